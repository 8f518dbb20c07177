#include "live/connections.h"

#include <iterator>
#include <sys/socket.h>

namespace quarn::live {

void Connections::make_room() {
    if (idle_.size() + busy_.size() < limit_)
        return;
    end(idle_.empty() ? busy_.front() : idle_.front());
}

Connections::Connection& Connections::opened(int fd, Clock::time_point now) {
    Connection& connection = idle_.emplace_back(Connection{fd, now, &idle_, {}});
    connection.self = std::prev(idle_.end());
    return connection;
}

void Connections::request_began(Connection& connection, Clock::time_point now) {
    if (connection.in != &idle_)
        return;
    connection.since = now;
    move(connection, busy_);
}

void Connections::request_ended(Connection& connection, Clock::time_point now) {
    if (connection.in != &busy_)
        return;
    connection.since = now;
    move(connection, idle_);
}

void Connections::closed(Connection& connection) {
    connection.in->erase(connection.self);
}

void Connections::end_overdue(Clock::time_point now) {
    for (auto* list : {&idle_, &busy_})
        while (!list->empty() && now - list->front().since > request_)
            end(list->front());
}

void Connections::move(Connection& connection, std::list<Connection>& to) {
    to.splice(to.end(), *connection.in, connection.self);
    connection.in = &to;
}

void Connections::end(Connection& connection) {
    shutdown(connection.fd, SHUT_RDWR);
    move(connection, ended_);
}

} // namespace quarn::live
