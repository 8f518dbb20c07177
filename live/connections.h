// Which HTTP connections are open, and which of them has to go when there are too many.
#pragma once

#include <chrono>
#include <cstddef>
#include <list>

namespace quarn::live {

/// Keeps connections few: at the limit the one that has been idle longest makes room for a new one;
/// where all have a request under way, the one whose request is the oldest. So whoever holds
/// connections open only takes them from those who do the same. Of one thread.
///
/// A connection is ended by shutting its socket down; whoever owns the socket sees that and closes.
class Connections {
  public:
    using Clock = std::chrono::steady_clock;
    struct Connection {
        int fd = -1;
        Clock::time_point since; // accepted, last request answered, or request begun
        std::list<Connection>* in = nullptr;
        std::list<Connection>::iterator self;
    };

    /// `limit`: connections at a time; `request`: time for the head of a request, and again from
    /// there to the last byte of the answer.
    Connections(std::size_t limit, Clock::duration request) : limit_(limit), request_(request) {}

    /// Makes room for one that is about to be accepted.
    void make_room();
    /// The connection is valid until closed().
    Connection& opened(int fd, Clock::time_point now);
    void request_began(Connection& connection, Clock::time_point now);
    void request_ended(Connection& connection, Clock::time_point now);
    /// To be called before the socket is closed.
    void closed(Connection& connection);
    /// Ends those that take longer than they may.
    void end_overdue(Clock::time_point now);

  private:
    static void move(Connection& connection, std::list<Connection>& to);
    void end(Connection& connection);

    std::size_t limit_;
    Clock::duration request_;
    std::list<Connection> idle_;  // oldest first
    std::list<Connection> busy_;  // oldest first
    std::list<Connection> ended_; // shut down, about to be closed
};

} // namespace quarn::live
