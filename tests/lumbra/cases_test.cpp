// Everything that makes a short text or number of a few values, driven by the rows of cases.txt.
#include "lumbra_test.h"

#include <map>

#include "appcfg.h"
#include "strops.h"

static std::ostream& operator<<(std::ostream& out, const timespec& tms) {
    return out << tms.tv_sec << '+' << tms.tv_nsec;
}

namespace {

struct number { // of the type that is asked for
    long long value;
    template <class T>
    operator T() const {
        return static_cast<T>(value);
    }
};

struct cases_test : lumbra_test {
    // Fields of the row.
    const char* arg(std::size_t i) const { return row.at(i).c_str(); }
    number num(std::size_t i) const { return {std::stoll(row.at(i), nullptr, 0)}; }
    timespec time(std::size_t i) const { return {num(i), num(i + 1)}; }

    template <class Shown, class T>
    string parsed(int (*parse)(const char*, T*)) const {
        T value = 7;
        EXPECT_EQ(parse(arg(1), nullptr), parse(arg(1), &value));
        return string() << parse(arg(1), nullptr) << to_string(static_cast<Shown>(value));
    }
    // A text that `fill` writes into the room that field i gives.
    template <class Fill, class... T>
    string filled(std::size_t i, Fill fill, T... values) const {
        const std::size_t room = num(i);
        std::vector<char> buf(room);
        const auto n = fill(values..., buf.data(), room);
        return string() << n << (n < 0 ? "" : buf.data());
    }
    string distance() const {
        const timespec a = time(1), b = time(3);
        timespec delta = a, span;
        tspec_diff(&delta, &b, &delta); // the result may replace an operand
        calc_timespan(&a, &b, &span);
        return string() << delta << diff_ms(&a, &b) << span;
    }
    string timeout() {
        const timespec tmout = {2, 400'000'000}, now = time(1);
        const timespec other = {now.tv_nsec == 1 ? 0 : 99, 0}; // of the clock not to be asked
        clock.set_real(other);
        clock.set_monotonic(now);
        const bool out = timed_out(&START, &tmout);
        clock.set_real(now);
        clock.set_monotonic(other);
        return string() << timed_out_ext(&START, &tmout, &now) << out
                        << timed_out_real(&START, &tmout);
    }
    string line() const {
        log_ctx one = {};
        use_zone(arg(1));
        log_timefmt(&one, num(2));
        log_set_pid(&one, num(3));
        strcpy(one.group.sym8, arg(5));
        return logbuf_prepare(&one, num(4), "%s", "hello") == 5 ? g_outbuf : "";
    }
    string stamp() const {
        const timespec tms = time(2);
        use_zone(arg(1));
        return filled(5, mk_timestr, &tms, num(4));
    }

    static constexpr timespec START = {10, 600'000'000};
    std::vector<string> row;
    int level;
};

TEST_F(cases_test, rows) {
    const std::map<string, std::function<string()>> topics = {
        // clang-format off
        {"number", [&] { return parsed<std::int64_t>(a2int64) << parsed<ssize_t>(a2size)
                                                              << parsed<double>(a2double); }},
        {"chomp", [&] { string text = row[1];
                        std::replace(text.begin(), text.end(), 'N', '\n');
                        std::replace(text.begin(), text.end(), 'R', '\r');
                        chomp(text.data());
                        return string() << strlen(text.c_str()); }},
        {"facility", [&] { return string() << str2fac(arg(1)) << fac2str(str2fac(arg(1))); }},
        {"timefmt", [&] { return string() << str_to_timefmt(arg(1)); }},
        {"timefmt_str", [&] { return string(timefmt_str(num(1))); }},
        {"level", [&] { return level = 9, string() << match_log_level(arg(1), &level) << level; }},
        {"level_name", [&] { return string(log_level_str(num(1))); }},
        {"level_env", [&] { setenv("L", arg(1), 1); return string() << read_level_env("L", 17); }},
        {"line", [&] { return line(); }},
        {"passes", [&] { g_mod_ll[7] = num(1), g_sec_ll[3] = num(3);
                         return string() << log_level_passes({7, num(2), -1, {}}, num(4)); }},
        {"ms", [&] { const timespec tms = time(1); return string() << tms2ms(&tms); }},
        {"since", [&] { const timespec tms = time(1);
                        return string() << diff_ms(nullptr, &tms) << diff_ms(&tms, nullptr); }},
        {"distance", [&] { return distance(); }},
        {"timeout", [&] { return timeout(); }},
        {"tspan", [&] { const timespec tms = time(2);
                        tspan span;
                        return string() << set_tspan(&span, num(1), &tms, 5)
                                        << tspan_timed_out(&span, &START, -2U, num(4)); }},
        {"stamp", [&] { return stamp(); }},
        {"busy", [&] { g_tmlock = 1; const string text = stamp(); g_tmlock = 0; return text; }},
        {"scan", [&] { timespec tms = {7, 8};
                       use_zone(arg(1));
                       return string() << scan_log_time(arg(3), &tms, num(2)) << tms; }},
        {"date", [&] { return filled(2, mk_gmt_date, num(1)); }},
        {"span", [&] { return filled(2, mk_timespan, num(1)); }},
        {"end_of_day", [&] { use_zone(arg(1)); return string() << get_endofday_utime(num(2)); }},
    }; // clang-format on
    std::ifstream in(LUMBRA_CASES);
    int count = 0;
    for (string text; std::getline(in, text);) {
        if (text.empty() || text[0] == '#')
            continue;
        std::istringstream fields(text);
        row.clear();
        for (string field; std::getline(fields, field, '|');)
            row.push_back(field);
        clock.set_real({1711846799, 123456789}); // the last second before summer time
        clock.set_monotonic({13, 0});
        string result = outcome(topics.at(row[0])) << log.human();
        log.clear();
        EXPECT_EQ(result.substr(0, result.find('\n')), row.back()) << text;
        ++count;
    }
    EXPECT_GT(count, 150);
}

} // namespace
