// The rules about stamps at their limits, on a program with video, audio and teletext.
#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "measure/stamps.h"

namespace quarn {
namespace {

constexpr std::uint16_t video = 256;
constexpr std::uint16_t audio = 257;
constexpr std::uint16_t text = 258;
constexpr std::uint16_t pcr_pid = 259;
constexpr double tick = 1.0 / 90; // ms

/// A PES packet; times in ms.
struct Unit {
    std::uint16_t pid = 0;
    double at = 0;     // when it comes
    double stamp = 0;  // DTS or PTS
    double frames = 0; // since the stamp before; 0: not counted
    bool dropped = false;
    bool without_stamp = false;
};

Place place(double ms) {
    Place p;
    p.packet = static_cast<std::uint64_t>(ms * 10) + 1;
    p.time = std::llround(ms * ticks_per_ms);
    return p;
}

std::string number(double value) {
    char text_of[32];
    std::snprintf(text_of, sizeof text_of, "%.5g", value);
    return text_of;
}

struct Found : Output {
    std::string text;
    std::map<Rule, int> consequences;
    void finding(Finding&& f) override {
        const auto ms = [](const Place& p) {
            return p.time == no_time
                       ? std::string("-")
                       : number(static_cast<double>(p.time) / static_cast<double>(ticks_per_ms));
        };
        text += std::string(text.empty() ? "" : "; ") + std::string(info(f.rule).id) + " ";
        if (f.kind != Kind::none)
            text += std::string(word(f.kind)) + " ";
        if (f.severity != info(f.rule).severity)
            text += std::string(word(f.severity)) + " ";
        text += std::to_string(*f.pid) + " at " + ms(f.begin);
        if (f.shape == Shape::interval)
            text += (f.open ? " open at " : " to ") + ms(f.end);
        for (const auto& figure :
             {f.detail.interval_ms, f.detail.step_ms, f.detail.late_ms, f.detail.drift_ms_per_s})
            if (figure)
                text += ", " + number(*figure);
    }
    void consequence(Rule rule) override { ++consequences[rule]; }
};

/// Ten seconds, or another time, of a stream in which all is right, and what is done to it. Stamps
/// are 500 ms (video), 300 ms (audio) and 200 ms (teletext) ahead of the clock, and wrap after 5 s.
struct Scene {
    Options options;
    double end = 10'000;
    double video_step = 40;
    bool clock = true;
    std::function<void(Unit&)> change = [](Unit&) {};
    std::multimap<double, std::function<void(Stamps&, const Place&)>> doings;

    ProgramsPtr programs = [] {
        auto made = std::make_shared<Programs>();
        Program& p = made->programs.emplace_back();
        p.number = 1;
        p.pcr_pid = pcr_pid;
        p.streams = {{video, 0x1B, StreamKind::video, Codec::h264, {}, false, false},
                     {audio, 0x81, StreamKind::audio, Codec::ac3, {}, false, false},
                     {text, 0x06, StreamKind::teletext, Codec::dvb_teletext, {}, false, false}};
        return made;
    }();

    std::string run(Found* found = nullptr, Judgement* judgement = nullptr) const {
        Found own;
        Found& out = found ? *found : own;
        Stamps stamps(options, out);
        stamps.programs(programs, at(0));
        std::multimap<double, Unit> units;
        for (double t = 0; t < end; t += video_step)
            add(units, {video, t, t + 500, 0});
        for (double t = 5; t < end; t += 72)
            add(units, {audio, t, t + 295, 72});
        for (double t = 10; t < end; t += 1000)
            add(units, {text, t, t + 200, 0});
        std::map<std::uint16_t, std::uint32_t> starts;
        auto doing = doings.begin();
        for (const auto& [t, unit] : units) {
            for (; doing != doings.end() && doing->first <= t; ++doing)
                doing->second(stamps, at(doing->first));
            if (unit.dropped)
                continue;
            feed(stamps, unit, starts[unit.pid]);
        }
        stamps.finish(at(end));
        if (judgement)
            stamps.judge(*judgement);
        return out.text;
    }

    void loss(double ms, std::uint16_t pid) {
        doings.emplace(ms, [pid](Stamps& s, const Place& p) { s.hold_off(pid, p); });
    }
    void jump(double ms, bool flagged) {
        doings.emplace(ms, [flagged](Stamps& s, const Place& p) { s.clock_jump(1, p, flagged); });
    }

  private:
    Place at(double ms) const {
        Place p = place(ms);
        if (!clock)
            p.time = no_time;
        return p;
    }
    void add(std::multimap<double, Unit>& units, Unit unit) const {
        change(unit);
        units.emplace(unit.at, unit);
    }
    void feed(Stamps& stamps, const Unit& unit, std::uint32_t& starts) const {
        constexpr double origin = static_cast<double>(stamp_wrap) - 5000 * 90.0;
        PesEvent e;
        e.pid = unit.pid;
        e.valid = true;
        e.disturbed = false;
        e.starts = ++starts;
        if (!unit.without_stamp) {
            starts = 0;
            e.pts = std::llround(origin + unit.stamp * 90) & (stamp_wrap - 1);
            if (unit.frames > 0)
                e.frame_ticks = unit.frames * 90;
        }
        const Ticks pcr = std::llround((origin + unit.at * 90) * 300) % pcr_wrap;
        stamps.pes(e, at(unit.at), clock ? std::optional<Ticks>(pcr) : std::nullopt);
    }
};

struct Row {
    const char* name;
    std::function<void(Scene&)> set;
    const char* want;
};

void check(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        Scene scene;
        row.set(scene);
        EXPECT_EQ(scene.run(), row.want) << row.name;
    }
}

/// Stamps of a pid that come between two times are moved.
auto moved(std::uint16_t pid, double from, double to, double ms) {
    return [=](Scene& s) {
        s.change = [=](Unit& u) {
            if (u.pid == pid && u.at >= from && u.at < to)
                u.stamp += ms;
        };
    };
}
auto dropped(std::uint16_t pid, double from, double to) {
    return [=](Scene& s) {
        s.change = [=](Unit& u) { u.dropped = u.pid == pid && u.at > from && u.at < to; };
    };
}
constexpr double ever = 1e9;

TEST(Stamps, StepsOfAudioAgainstItsFrames) {
    check({
        {"nothing", [](Scene&) {}, ""},
        {"40 ms", moved(audio, 4000, ever, 40), ""},
        {"40 ms and a tick", moved(audio, 4000, ever, 40 + tick), "q.2 jump 257 at 4037, 40.011"},
        {"back", moved(audio, 4000, ever, -100), "q.2 jump 257 at 4037, -100"},
        {"for a while", moved(audio, 4000, 6000, 100),
         "q.2 jump 257 at 4037, 100; q.2 jump 257 at 6053, -100"},
        {"in one packet", moved(audio, 4000, 4072, 100),
         "q.2 jump 257 at 4037, 100; q.2 jump 257 at 4109, -100"},
        {"in the last packet", moved(audio, 9930, ever, 100), "q.2 jump 257 at 9941, 100"},
        {"twice the same way is a drift",
         [](Scene& s) {
             s.change = [](Unit& u) {
                 if (u.pid == audio && u.at > 4000)
                     u.stamp += u.at > 4100 ? 100 : 50;
             };
         },
         "q.2 drift 257 at 4037, 100, 694.44"},
        {"slowly, and once",
         [](Scene& s) {
             s.end = 30'000;
             s.change = [](Unit& u) {
                 if (u.pid == audio && u.at > 4000 && u.at < 20'000)
                     u.stamp += (u.at - 4000) / 100;
                 else if (u.pid == audio && u.at >= 20'000)
                     u.stamp += 160;
             };
         },
         "q.2 drift 257 at 4109, 40.689, 10.091"},
        {"no faster than sampling clocks differ",
         [](Scene& s) {
             s.end = 600'000;
             s.change = [](Unit& u) { u.stamp += u.pid == audio ? u.at * 90e-6 : 0; };
         },
         ""},
        {"rounded to whole milliseconds",
         [](Scene& s) {
             s.end = 100'000;
             s.change = [](Unit& u) {
                 u.frames = u.pid == audio ? 72 : 0;
                 u.stamp = std::floor(u.stamp + std::fmod(u.at, 0.9));
             };
         },
         ""},
        {"silence: the stamps are right",
         [](Scene& s) {
             s.change = [](Unit& u) {
                 if (u.pid == audio && u.at > 4000) {
                     u.at += 300;
                     u.stamp += 300;
                 }
             };
         },
         ""},
        {"late packets are no silence",
         [](Scene& s) {
             s.change = [](Unit& u) {
                 if (u.pid == audio && u.at > 4000 && u.at < 4072)
                     u.at += 60;
                 if (u.pid == audio && u.at > 4000)
                     u.stamp += 100;
             };
         },
         "q.2 jump 257 at 4097, 100"},
        {"over 10 s ahead is out of order", moved(audio, 4000, ever, 10'000),
         "q.3 257 at 4037, 10072"},
        {"and back as well", moved(audio, 4000, ever, -10'073),
         "q.3 257 at 4037, -10001; q.1 257 at 4037 open at 10000, 9778"},
    });
}

TEST(Stamps, AreQuietAroundOtherFaults) {
    // The step comes at 4037.
    const auto with = [](std::function<void(Scene&)> more) {
        return [=](Scene& s) {
            moved(audio, 4000, ever, 100)(s);
            more(s);
        };
    };
    const char* jump = "q.2 jump 257 at 4037, 100";
    check({
        {"a loss 0.6 s before", with([](Scene& s) { s.loss(3437, audio); }), jump},
        {"a loss a little later", with([](Scene& s) { s.loss(3438, audio); }), ""},
        {"alignment lost", with([](Scene& s) { s.loss(3500, null_pid); }), ""},
        {"a loss of another stream", with([](Scene& s) { s.loss(3500, video); }), jump},
        {"a loss behind it", with([](Scene& s) { s.loss(4038, audio); }), jump},
        {"the clock jumps with it", with([](Scene& s) { s.jump(4036, true); }), ""},
        {"the clock jumps 0.6 s before", with([](Scene& s) { s.jump(3437, false); }), jump},
        {"the clock jumps behind it", with([](Scene& s) { s.jump(4636, false); }), ""},
        {"the clock jumps 0.6 s behind it", with([](Scene& s) { s.jump(4637, false); }), jump},
        {"a stop", with([](Scene& s) {
             s.doings.emplace(
                 4036, [](Stamps& x, const Place&) { x.stopped(audio, place(3970), place(4037)); });
         }),
         ""},
        {"another type on the pid", with([](Scene& s) {
             s.doings.emplace(4030, [&s](Stamps& x, const Place& p) {
                 auto other = std::make_shared<Programs>(*s.programs);
                 other->programs[0].streams[1].stream_type = 0x06;
                 x.programs(other, p);
             });
         }),
         ""},
    });
}

TEST(Stamps, MissingPictures) {
    const auto three_to_two = [](Scene& s) {
        s.change = [](Unit& u) {
            if (u.pid == video && std::lround(u.at / 40) % 2)
                u.stamp += 8;
            u.dropped = u.pid == video && u.at > 4000 && u.at < 4100;
        };
    };
    check({
        {"one", dropped(video, 4000, 4080), "q.2 frames_missing warning 256 at 4080, 40"},
        {"up to the limit of 2.5", dropped(video, 4000, 4680),
         "q.2 frames_missing warning 256 at 4680, 640"},
        {"so many that PTS are missing", dropped(video, 4000, 4720),
         "2.5 256 at 4000 to 4720, 720"},
        {"film on 60 Hz", three_to_two, ""},
        {"too early to know", dropped(video, 400, 480), ""},
        {"with a loss in another stream",
         [](Scene& s) {
             dropped(video, 4000, 4080)(s);
             s.loss(4050, audio);
         },
         ""},
        {"without PCRs",
         [](Scene& s) {
             dropped(video, 4000, 4080)(s);
             s.doings.emplace(4070, [](Stamps& x, const Place&) {
                 x.pcr_gap(pcr_pid, place(3900), place(4070));
             });
         },
         ""},
        {"every other picture without a stamp",
         [](Scene& s) {
             s.change = [](Unit& u) {
                 u.without_stamp = u.pid == video && std::lround(u.at / 40) % 2;
                 u.dropped = u.pid == video && std::lround(u.at) == 4040;
             };
         },
         "q.2 frames_missing warning 256 at 4080, 40"},
    });
}

TEST(Stamps, Order) {
    check({
        {"back", moved(video, 4000, ever, -41), "q.3 256 at 4000, -1"},
        {"equal", moved(video, 4000, ever, -40), "q.3 256 at 4000, 0"},
        {"10 s ahead", moved(video, 4000, ever, 9960),
         "q.2 frames_missing warning 256 at 4000, 9960"},
        {"more than that", moved(video, 4000, ever, 9961), "q.3 256 at 4000, 10001"},
        {"teletext: told once", moved(text, 4000, 5000, -1500),
         "q.3 info 258 at 4010, -500; q.1 info 258 at 4010 to 5010, 1300"},
        {"10 s by right",
         [](Scene& s) {
             s.end = 30'000;
             dropped(text, 4000, 20'000)(s);
         },
         ""},
        {"audio of which nothing is counted",
         [](Scene& s) {
             s.change = [](Unit& u) {
                 u.frames = 0;
                 u.stamp -= u.pid == audio && u.at > 4000 ? 100 : 0;
             };
         },
         "q.3 257 at 4037, -28"},
        {"no clock, so no steps that time could explain",
         [](Scene& s) {
             s.clock = false;
             s.change = [](Unit& u) {
                 if (u.at > 4000)
                     u.stamp += u.pid == video ? -41 : 20'000;
             };
         },
         "q.3 256 at -, -1"},
    });
}

TEST(Stamps, Lateness) {
    const auto late = [](double ms) { return moved(audio, 4000, 6000, ms); };
    check({
        {"just in time", late(-295), "q.2 jump 257 at 4037, -295; q.2 jump 257 at 6053, 295"},
        {"a tick later", late(-295 - tick),
         "q.2 jump 257 at 4037, -295.01; q.2 jump 257 at 6053, 295.01; "
         "q.1 257 at 4037 to 6053, 0.011111"},
        {"to the end", moved(video, 4000, ever, -510),
         "q.3 256 at 4000, -470; q.1 256 at 4000 open at 10000, 10"},
        {"now and then, one stretch",
         [](Scene& s) {
             s.change = [](Unit& u) {
                 if (u.pid == video && u.at >= 4000 && u.at < 6000)
                     u.stamp -= std::lround(u.at / 40) % 5 ? 499.9 : 510;
             };
             s.loss(3999, video); // nothing but lateness is asked for here
             for (double t = 4000; t < 6500; t += 40)
                 s.doings.emplace(t, [](Stamps& x, const Place& p) {
                     PesEvent e;
                     e.pid = video;
                     x.pes(e, p, {});
                 });
         },
         "q.1 256 at 4600 to 5840, 10"},
        {"teletext, told once",
         [](Scene& s) {
             s.end = 20'000;
             s.change = [](Unit& u) {
                 if (u.pid == text && std::lround(u.at / 1000) % 4 == 1)
                     u.stamp -= 300;
             };
         },
         "q.1 info 258 at 1010 to 2010, 100"},
    });
}

TEST(Stamps, LatenessWhenTheClockJumps) {
    const auto behind = [](double jump, bool flagged) {
        return [=](Scene& s) {
            s.change = [](Unit& u) { // seen from the clock, all stamps went back
                if (u.at >= 4000)
                    u.stamp -= 1000;
            };
            s.jump(jump, flagged);
        };
    };
    for (const double jump : {3990.0, 4500.0}) {
        EXPECT_EQ(
            [&] {
                Scene s;
                behind(jump, false)(s);
                return s.run();
            }(),
            "")
            << jump;
    }
    Scene flagged;
    behind(3990, true)(flagged);
    EXPECT_EQ(flagged.run(), "q.1 256 at 4600 open at 10000, 500; q.1 257 at 4613 open at 10000, "
                             "705; q.1 info 258 at 5010 open at 10000, 800");
}

TEST(Stamps, DistanceOfPts) {
    const auto gap = [](double ms) { // between 4000 and what follows
        return [=](Scene& s) {
            s.video_step = 100;
            s.change = [=](Unit& u) {
                u.dropped = u.pid == video && u.at > 4000 && u.at < 4700;
                if (u.pid == video && std::lround(u.at) == 4700)
                    u.at = 4000 + ms;
            };
        };
    };
    const auto with = [&](std::function<void(Scene&)> more) {
        return [=](Scene& s) {
            gap(750)(s);
            more(s);
        };
    };
    const char* found = "2.5 256 at 4000 to 4750, 750";
    check({
        {"700 ms", gap(700), "q.2 frames_missing warning 256 at 4700, 600"},
        {"and a tick", gap(700 + tick), "2.5 256 at 4000 to 4700, 700.01"},
        {"no stamp between",
         [](Scene& s) {
             s.change = [](Unit& u) {
                 u.without_stamp = u.pid == video && u.at > 4000 && u.at < 5000;
             };
         },
         "2.5 256 at 4000 to 5000, 1000"},
        {"to the end", dropped(audio, 9000, ever), "2.5 257 at 8933 open at 10000, 1067"},
        {"a loss in it", with([](Scene& s) { s.loss(4100, video); }), ""},
        {"a loss in another stream", with([](Scene& s) { s.loss(4100, audio); }), found},
        {"an outage in it", with([](Scene& s) {
             s.doings.emplace(4740,
                              [](Stamps& x, const Place&) { x.outage(place(4100), place(4600)); });
         }),
         ""},
        {"an outage before it", with([](Scene& s) {
             s.doings.emplace(4740,
                              [](Stamps& x, const Place&) { x.outage(place(3000), place(4000)); });
         }),
         found},
        {"scrambled", with([](Scene& s) {
             s.doings.emplace(4100, [](Stamps& x, const Place& p) { x.scrambled(video, p); });
         }),
         ""},
        {"profile segment", with([](Scene& s) { s.options.profile = Profile::segment; }), ""},
        {"still pictures", with([](Scene& s) {
             auto still = std::make_shared<Programs>(*s.programs);
             still->programs[0].streams[0].still_picture = true;
             s.programs = still;
         }),
         ""},
    });
}

struct Answers : Judgement {
    std::map<Rule, std::string> of;
    void yes(Rule rule) override { of[rule] += "yes "; }
    void no(Rule rule, const char* why, std::optional<std::uint16_t> pid) override {
        of[rule] += std::string("no ") + why + (pid ? " " + std::to_string(*pid) : "") + " ";
    }
    void not_applicable(Rule rule, const char* why) override {
        of[rule] += std::string("n/a ") + why + " ";
    }
};

TEST(Stamps, SayWhatWasJudged) {
    struct {
        const char* name;
        std::function<void(Scene&)> set;
        Rule rule;
        const char* want;
    } const rows[] = {
        {"all", [](Scene&) {}, Rule::stamp_jump, "yes yes "},
        {"too short", [](Scene& s) { s.end = 650; }, Rule::pts_error,
         "no shorter than its limit 256 no shorter than its limit 257 "},
        {"no clock", [](Scene& s) { s.clock = false; }, Rule::late_stamp,
         "no no clock 256 no no clock 257 "},
        {"no stamps",
         [](Scene& s) { s.change = [](Unit& u) { u.without_stamp = u.pid == audio; }; },
         Rule::stamp_order, "yes no no time stamps 257 "},
        {"frames that are not found", [](Scene& s) { s.change = [](Unit& u) { u.frames = 0; }; },
         Rule::stamp_jump, "yes no no audio frames are found 257 "},
        {"scrambled",
         [](Scene& s) {
             s.change = [](Unit& u) { u.dropped = true; };
             s.doings.emplace(1, [](Stamps& x, const Place& p) { x.scrambled(video, p); });
         },
         Rule::late_stamp, "n/a all of it is scrambled "},
        {"nothing announced", [](Scene& s) { s.programs = std::make_shared<Programs>(); },
         Rule::stamp_order, "n/a no such video or audio is announced "},
        {"segment", [](Scene& s) { s.options.profile = Profile::segment; }, Rule::pts_error,
         "n/a profile segment "},
    };
    for (const auto& row : rows) {
        Scene scene;
        row.set(scene);
        Answers answers;
        scene.run(nullptr, &answers);
        EXPECT_EQ(answers.of[row.rule], row.want) << row.name;
    }
}

TEST(Stamps, CountWhatFollowsFromOthers) {
    Scene scene;
    dropped(audio, 4000, 5000)(scene);
    scene.loss(4500, audio);
    Found found;
    EXPECT_EQ(scene.run(&found), "");
    EXPECT_EQ(found.consequences[Rule::pts_error], 1);
}

} // namespace
} // namespace quarn
