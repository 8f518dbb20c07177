// What a channel writes: everything, until it is too much for who reads it.
#include <cstdint>
#include <fstream>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "live/channel.h"
#include "live/outputs.h"
#include "ts_builder.h"

namespace quarn::live {
namespace {

using testing::ElementsAre;
using Json = nlohmann::json;

constexpr Ticks ms = 27'000;

class ChannelTest : public testing::Test {
  protected:
    ChannelTest() {
        settings_.name = "News";
        settings_.measure.live = true;
        settings_.measure.ignore = {Rule::unreferenced_pid};
        outputs_.emplace(Outputs::Wanted{path_, {}, {}}, [] {});
        channel_.emplace(settings_, *outputs_);
        channel_->state(InputState::up, "here");
    }
    ~ChannelTest() override { ::unlink(path_.c_str()); }

    /// One packet, `after` ticks behind the one before, in a datagram of its own.
    void packet(unsigned pid, unsigned counter, Ticks after) {
        std::vector<std::uint8_t> bytes(inputs::ts_packet_size, 0xFF);
        bytes[0] = 0x47;
        bytes[1] = static_cast<std::uint8_t>(pid >> 8);
        bytes[2] = static_cast<std::uint8_t>(pid);
        bytes[3] = static_cast<std::uint8_t>(0x10 | (counter & 15));
        packet(bytes, after);
    }
    void packet(std::span<const std::uint8_t> bytes, Ticks after) {
        inputs::PacketInfo info;
        info.byte = packets_++ * inputs::ts_packet_size;
        info.arrival = pass(after);
        info.utc_us = utc_us();
        info.sync_right = true;
        channel_->raw(bytes, {now_, utc_us()});
        channel_->packet(bytes.data(), info);
    }
    /// Counters of that many pids break, all of them within that time.
    void break_counters(unsigned pids, Ticks within) {
        for (const unsigned counter : {0U, 5U})
            for (unsigned pid = first_pid_; pid < first_pid_ + pids; ++pid)
                packet(pid, counter, within / 2 / pids);
        first_pid_ += pids;
    }
    /// A sound pid for that long, and a PAT if there is one.
    void go_on(Ticks time, bool pat) {
        for (Ticks t = 0; t < time; t += 100 * ms) {
            packet(0x1FFE, sound_++, 50 * ms);
            if (pat)
                packet(ts::section_packets(0, pats_++, {ts::pat_section({})}).front(), 50 * ms);
            else
                pass(50 * ms);
        }
    }
    /// All that was written.
    std::vector<Json> records() {
        channel_->end();
        last_ = channel_->snapshot();
        outputs_.reset();
        std::vector<Json> all;
        std::ifstream in(path_);
        for (std::string line; std::getline(in, line);)
            all.push_back(Json::parse(line));
        return all;
    }
    static std::vector<Json> of_rule(const std::vector<Json>& all, const std::string& rule) {
        std::vector<Json> some;
        for (const Json& record : all)
            if (record["type"] == "finding" && record["rule"] == rule)
                some.push_back(record);
        return some;
    }

    InputSettings settings_;
    std::optional<Channel> channel_;
    Snapshot last_;

  private:
    Ticks pass(Ticks time) {
        now_ += time;
        while (ticked_ + 200 * ms <= now_)
            channel_->tick({ticked_ += 200 * ms, utc_us()});
        return now_;
    }
    std::int64_t utc_us() const { return 1'800'000'000'000'000 + now_ / 27; }

    const std::string path_ =
        testing::TempDir() + "channel." + std::to_string(::getpid()) + ".jsonl";
    std::optional<Outputs> outputs_;
    Ticks now_ = 500'000 * ms;
    Ticks ticked_ = now_;
    std::uint64_t packets_ = 0;
    unsigned first_pid_ = 0x100;
    unsigned sound_ = 0;
    unsigned pats_ = 0;
};

TEST_F(ChannelTest, leaves_out_what_is_more_than_the_quota_and_counts_all_of_it) {
    go_on(2000 * ms, true);
    break_counters(1700, 20'000 * ms); // without a PAT meanwhile
    break_counters(1, 10 * ms);
    go_on(2000 * ms, true);
    go_on(2000 * ms, false); // the quota is used up
    go_on(65'000 * ms, true);
    break_counters(30, 60 * ms); // a minute later
    go_on(62'000 * ms, true);
    const auto all = records();

    const auto breaks = of_rule(all, "1.4");
    EXPECT_EQ(breaks.size(), 1029U); // 999 of the first minute
    EXPECT_EQ(last_.findings.at(Rule::continuity_count_error, Severity::error), 1731U);
    const auto quota = of_rule(all, "q.13");
    ASSERT_EQ(quota.size(), 2U);
    EXPECT_EQ(quota[0]["state"], "raise");
    EXPECT_EQ(quota[0]["open"], true);
    EXPECT_EQ(quota[1]["state"], "clear");
    EXPECT_EQ(quota[1]["raised_seq"], quota[0]["seq"]);
    EXPECT_EQ(quota[1]["detail"]["left_out"], 1731 - 1029 + 2);
    EXPECT_EQ(quota[1]["begin"], quota[0]["begin"]);
    EXPECT_EQ(last_.findings.at(Rule::suppressed, Severity::warning), 1U);
    EXPECT_EQ(last_.open.at(Rule::suppressed, Severity::warning), 0U);

    // No PAT for a while: raised before there was too much, cleared while there was. Again: both
    // are among what was left out.
    std::vector<std::string> pat;
    for (const Json& record : of_rule(all, "1.3.a"))
        pat.push_back(record["state"]);
    EXPECT_THAT(pat, ElementsAre("raise", "clear"));
    EXPECT_EQ(last_.findings.at(Rule::pat_error_2, Severity::error), 2U);

    std::uint64_t seq = 0; // without a gap: what is left out has no number
    for (const Json& record : all)
        EXPECT_EQ(record["seq"], ++seq);
    for (const Json& row : all.back()["rules"])
        if (row["rule"] == "1.4" || row["rule"] == "q.13") {
            EXPECT_EQ(row["count"], row["rule"] == "1.4" ? 1731 : 1) << row;
        }
}

} // namespace
} // namespace quarn::live
