// Which HTTP connections are ended where there are too many of them or where they take too long.
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <map>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "live/connections.h"

namespace quarn::live {
namespace {

using namespace std::chrono_literals;

/// Plays "5:+a": at 5 s, connection a is opened. "?": the head of a request was read; "!": it was
/// answered; "-": closed by its owner; "room": one is about to be accepted; "due": those that take
/// too long have to go. Notes who was ended by each "room" and "due".
class Played {
  public:
    explicit Played(const std::string& script) {
        std::istringstream in(script);
        for (std::string step; in >> step;)
            play(step);
    }
    ~Played() {
        for (auto& [name, socket] : sockets_) {
            connections_.closed(*socket.connection);
            close(socket.own);
            close(socket.peer);
        }
    }
    std::string ended;

  private:
    struct Socket {
        int own = -1;
        int peer = -1;
        Connections::Connection* connection = nullptr;
        bool ended = false;
    };

    void play(const std::string& step) {
        const Connections::Clock::time_point now =
            Connections::Clock::time_point(1000s) +
            std::chrono::milliseconds(std::llround(1000 * std::stod(step)));
        const std::string what = step.substr(step.find(':') + 1);
        if (what == "room")
            connections_.make_room();
        else if (what == "due")
            connections_.end_overdue(now);
        else
            one(what[0], what[1], now);
        if (what == "room" || what == "due")
            note();
    }
    void one(char what, char name, Connections::Clock::time_point now) {
        Socket& socket = sockets_[name];
        if (what == '+') {
            int pair[2];
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
            socket = {pair[0], pair[1], &connections_.opened(pair[0], now)};
        } else if (what == '?') {
            connections_.request_began(*socket.connection, now);
        } else if (what == '!') {
            connections_.request_ended(*socket.connection, now);
        } else {
            connections_.closed(*socket.connection);
            close(socket.own);
            close(socket.peer);
            sockets_.erase(name);
        }
    }
    void note() {
        std::string names;
        for (auto& [name, socket] : sockets_) {
            char byte = 0;
            if (!socket.ended && recv(socket.peer, &byte, 1, MSG_DONTWAIT) == 0) {
                socket.ended = true;
                names += name;
            }
        }
        ended += (ended.empty() ? "" : " ") + (names.empty() ? "." : names);
    }

    Connections connections_{3, 10s};
    std::map<char, Socket> sockets_;
};

TEST(Connections, EndThoseThatHoldOutLongest) {
    const struct {
        const char* name;
        const char* script;
        const char* ended;
    } rows[] = {
        {"there is room", "0:+a 0:+b 0:room", "."},
        {"longest idle", "0:+a 1:+b 2:+c 3:room", "a"},
        {"idle counts from the answer", "0:+a 1:+b 2:+c 3:?a 4:!a 5:room", "b"},
        {"idle goes before busy", "0:+a 0:?a 1:+b 1:?b 2:+c 3:room", "c"},
        {"oldest request of all busy", "0:+a 1:+b 2:+c 3:?c 4:?a 5:?b 6:room", "c"},
        {"a request begins once", "0:+a 1:+b 2:+c 3:?a 4:?b 5:?a 6:?c 7:room", "a"},
        {"an answer without a request", "0:+a 1:+b 2:+c 3:!a 4:room", "a"},
        {"the ended take no room", "0:+a 1:+b 2:+c 3:room 3:+d 4:room 4:+e 5:-a 6:room", "a b c"},
        {"the ended come back no more", "0:+a 1:+b 2:+c 3:room 3:+d 4:?a 5:!a 5:room", "a b"},
        {"closed ones make room", "0:+a 1:+b 2:+c 3:-b 4:room", "."},
        {"idle for as long as it may", "0:+a 10:due 10.001:due", ". a"},
        {"a request in time", "0:+a 9:?a 19:due 19.001:due", ". a"},
        {"all overdue, of both kinds", "0:+a 1:+b 1:?b 2:+c 11.5:due 12.5:due", "ab c"},
        {"old but younger in its list", "0:+a 1:+b 2:?a 9:?b 9:!b 12.5:due 19.5:due", "a b"},
        {"ended once", "0:+a 11:due 12:due", "a ."},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Played(row.script).ended, row.ended) << row.name;
}

} // namespace
} // namespace quarn::live
