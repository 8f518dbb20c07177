// damage.cpp - puts known faults into the clean capture that make-demo encodes.
//
//   damage CLEAN DEMO
//
// Prints each fault with the number of the packet in DEMO (from 1) at which it shows. Times are
// seconds since the first PCR.
#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "ts_builder.h"

namespace {

using ts::bytes;
using ts::packet;

constexpr unsigned PAT_PID = 0;
constexpr unsigned PMT_PID = 4096;
constexpr unsigned VIDEO = 256; // carries the PCR
constexpr unsigned AUDIO1 = 257;
constexpr unsigned AUDIO2 = 258;
constexpr unsigned SUBTITLES = 260;   // announced, never sent
constexpr unsigned SECOND_PMT = 4112; // likewise
constexpr double TICKS = 90000;

unsigned pid_of(const packet& p) {
    return (p[1] & 0x1fU) << 8 | p[2];
}

bool has_start(const packet& p) {
    return (p[1] & 0x40) != 0;
}

bool has_adaptation(const packet& p) {
    return (p[3] & 0x20) != 0;
}

bool has_pcr(const packet& p) {
    return has_adaptation(p) && p[4] != 0 && (p[5] & 0x10) != 0;
}

std::uint64_t pcr_of(const packet& p) {
    return std::uint64_t{p[6]} << 25 | std::uint64_t{p[7]} << 17 | std::uint64_t{p[8]} << 9 |
           std::uint64_t{p[9]} << 1 | p[10] >> 7;
}

std::size_t payload_at(const packet& p) {
    return has_adaptation(p) ? 5U + p[4] : 4U;
}

// Where the PTS of the PES packet that starts in `p` stands; 0 when none does.
std::size_t pts_at(const packet& p) {
    const std::size_t pes = payload_at(p);
    return has_start(p) && pes + 14 <= p.size() && p[pes] == 0 && p[pes + 1] == 0 &&
                   p[pes + 2] == 1 && (p[pes + 7] & 0x80) != 0
               ? pes + 9
               : 0;
}

std::uint64_t read_pts(const packet& p, std::size_t at) {
    return std::uint64_t{p[at] & 0x0eU} << 29 | std::uint64_t{p[at + 1]} << 22 |
           std::uint64_t{p[at + 2] & 0xfeU} << 14 | std::uint64_t{p[at + 3]} << 7 | p[at + 4] >> 1;
}

void write_pts(packet& p, std::size_t at, std::uint64_t pts) {
    const bytes header = ts::pes_header(ts::AUDIO_ID, {.pts = pts});
    std::copy(header.begin() + 9, header.end(), p.begin() + static_cast<std::ptrdiff_t>(at));
}

// The section of a table packet, with `more` at the end of its loop and the next version.
packet extended(const packet& p, const bytes& more) {
    const auto sec = p.begin() + 5; // behind a pointer field of 0
    const auto length = (sec[1] & 0x0f) << 8 | sec[2];
    bytes body(sec + 8, sec + 3 + length - 4);
    body.insert(body.end(), more.begin(), more.end());
    const unsigned ext = static_cast<unsigned>(sec[3] << 8 | sec[4]);
    const unsigned version = (sec[5] >> 1 & 31U) + 1;
    const bytes made = ts::make_section(sec[0], ext, {.version = version}, body);
    return ts::make_packet(
        {.pid = pid_of(p), .cc = p[3] & 15U, .pusi = true, .payload = ts::pointed(made)});
}

class damager {
  public:
    void feed(packet p) {
        const unsigned pid = pid_of(p);
        follow(p, pid);
        if (pid == AUDIO1 || pid == AUDIO2) {
            audio(p, pid);
        } else if (pid == VIDEO) {
            video(p);
        } else {
            tables(p, pid);
        }
    }
    [[nodiscard]] const ts::stream& result() const { return out_; }

  private:
    void note(const char* what) { printf("%6zu  %s\n", out_.size() + 1, what); }
    bool once(bool& done, const char* what) {
        if (!done) {
            note(what);
        }
        return !std::exchange(done, true);
    }
    [[nodiscard]] bool between(double from, double till) const {
        return now_ >= from && now_ < till;
    }

    void follow(const packet& p, unsigned pid) {
        if (pid != VIDEO) {
            return;
        }
        if (has_pcr(p)) {
            first_pcr_ = first_pcr_ != 0 ? first_pcr_ : pcr_of(p);
            now_ = static_cast<double>(pcr_of(p) - first_pcr_) / TICKS;
        }
        if (const std::size_t at = pts_at(p); at != 0) {
            picture_pts_ = read_pts(p, at);
        }
    }

    void audio(packet p, unsigned pid) {
        const std::size_t at = pts_at(p);
        if (pid == AUDIO1 && now_ >= 1 && at == 0 &&
            once(lost_, "a packet of pid 257 lost before it")) {
            return;
        }
        if (pid == AUDIO2 && between(3, 3.2) && at != 0) {
            note("PTS of pid 258 is 0.8 s late");
            write_pts(p, at, read_pts(p, at) + 72000);
        }
        if (pid == AUDIO1 && now_ >= 4 && at != 0 &&
            once(near_, "PTS of pid 257 is 30 ticks after the picture's")) {
            write_pts(p, at, picture_pts_ + 30);
        }
        out_.add(p);
        if (pid == AUDIO2 && now_ >= 2.5 && once(twice_, "a packet of pid 258 twice")) {
            out_.add(p);
        }
    }

    void video(packet p) {
        if (now_ >= 2 && !has_adaptation(p) && burst_ < 3) {
            if (burst_++ == 0) {
                note("three packets of pid 256 lost before it");
            }
            return;
        }
        if (between(4.5, 4.8) && has_pcr(p)) {
            stripped_ = true;
            p[5] = static_cast<std::uint8_t>(p[5] & ~0x10U); // the six bytes become stuffing
            std::fill(p.begin() + 6, p.begin() + 12, std::uint8_t{0xff});
        } else if (stripped_ && has_pcr(p)) {
            once(gap_, "first PCR after a gap");
        }
        out_.add(p);
    }

    void tables(const packet& p, unsigned pid) {
        if (pid == PMT_PID && now_ >= 5.5) {
            once(pmt_, "the PMT lists pid 260, which has no data");
            out_.add(extended(p, {0x06, 0xe0 | SUBTITLES >> 8, SUBTITLES & 255, 0xf0, 0}));
        } else if (pid == PAT_PID && now_ >= 6.5) {
            once(pat_, "the PAT lists program 2, PMT pid 4112, which has no data");
            out_.add(extended(p, {0, 2, 0xe0 | SECOND_PMT >> 8, SECOND_PMT & 255}));
        } else {
            out_.add(p);
        }
    }

    ts::stream out_;
    double now_ = 0;
    std::uint64_t first_pcr_ = 0;
    std::uint64_t picture_pts_ = 0;
    int burst_ = 0;
    bool lost_ = false, near_ = false, twice_ = false, stripped_ = false, gap_ = false;
    bool pmt_ = false, pat_ = false;
};

} // namespace

int main(int argc, char** argv) {
    FILE* in = argc == 3 ? fopen(argv[1], "rb") : nullptr;
    if (in == nullptr) {
        fprintf(stderr, "usage: %s CLEAN DEMO\n", argv[0]);
        return 2;
    }
    damager d;
    for (packet p; fread(p.data(), p.size(), 1, in) == 1;) {
        d.feed(p);
    }
    fclose(in);
    if (!d.result().write(argv[2])) {
        perror(argv[2]);
        return 1;
    }
    return 0;
}
