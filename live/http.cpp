#include "live/http.h"

#include <algorithm>
#include <array>
#include <microhttpd.h>
#include <string_view>
#include <sys/resource.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

#include "live/api.h"
#include "live/connections.h"
#include "live/document.h"
#include "live/listener.h"
#include "live/metrics.h"
#include "live/page_files.h"
#include "live/process_use.h"

namespace quarn::live {
namespace {

using Clock = Connections::Clock;

constexpr rlim_t most_connections = 256;
// Connections that were ended and are not closed yet count for the library.
constexpr unsigned about_to_close = 128;
constexpr unsigned idle_limit_s = 5;
constexpr auto request_limit = std::chrono::seconds(10);
// For the head of a request.
constexpr std::size_t connection_memory = 16384;
// What the kernel takes over of an answer that is not read.
constexpr int send_buffer = 65536;

constexpr const char* plain_text = "text/plain; charset=utf-8";
constexpr const char* prometheus_text = "text/plain; version=0.0.4; charset=utf-8";
constexpr const char* json_text = "application/json";

/// Inputs need descriptors too: without one a connection cannot even be accepted to be refused.
std::size_t connection_limit() {
    rlimit descriptors{};
    if (getrlimit(RLIMIT_NOFILE, &descriptors) != 0)
        return most_connections;
    return static_cast<std::size_t>(
        std::clamp<rlim_t>(descriptors.rlim_cur / 4, 1, most_connections));
}

Connections::Connection& connection_of(MHD_Connection* connection) {
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return *static_cast<Connections::Connection*>(info->socket_context);
}

} // namespace

/// All but construction and destruction runs in the library's one thread.
class Http::Impl {
  public:
    Impl(const inputs::Endpoint& endpoint, HttpSources sources);
    ~Impl() { MHD_stop_daemon(daemon_); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    std::uint16_t port() const {
        return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
    }

  private:
    static MHD_Result accepting(void* self, const sockaddr*, socklen_t);
    static void connection_changed(void* self, MHD_Connection* connection, void** context,
                                   MHD_ConnectionNotificationCode what);
    static MHD_Result request(void* self, MHD_Connection* connection, const char* url,
                              const char* method, const char*, const char*,
                              std::size_t* upload_size, void** seen);
    static void request_completed(void* self, MHD_Connection* connection, void** seen,
                                  MHD_RequestTerminationCode);

    MHD_Result answer(MHD_Connection* connection, std::string_view url, std::string_view method);
    MHD_Response* fresh(Document& document);

    HttpSources sources_;
    const std::size_t limit_ = connection_limit();
    Connections connections_{limit_, request_limit};
    Document metrics_;
    Document inputs_;
    Response page_ = static_response(page_html, "text/html; charset=utf-8");
    Response style_ = static_response(page_css, "text/css; charset=utf-8");
    Response script_ = static_response(page_js, "text/javascript; charset=utf-8");
    Response icon_ = static_response(icon_svg, "image/svg+xml");
    Response healthy_ = static_response("ok\n", plain_text);
    Response unhealthy_ = static_response("inputs are not being read\n", plain_text);
    Response not_found_ =
        static_response("not found; there are /, /api/inputs, /metrics, /healthz\n", plain_text);
    Response wrong_method_ = static_response("only GET and HEAD\n", plain_text);
    Response failed_ = static_response("out of memory\n", plain_text);
    MHD_Daemon* daemon_ = nullptr;
};

Http::Impl::Impl(const inputs::Endpoint& endpoint, HttpSources sources)
    : sources_(std::move(sources)),
      metrics_(prometheus_text,
               [this] { return metrics_of(sources_.inputs(), sources_.process(), process_use()); }),
      inputs_(json_text, [this] { return inputs_json(sources_.inputs()); }) {
    if (MHD_add_response_header(wrong_method_.get(), MHD_HTTP_HEADER_ALLOW, "GET, HEAD") != MHD_YES)
        throw std::bad_alloc();
    const int listener = open_listener(endpoint);
    daemon_ = MHD_start_daemon(
        MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC, 0, accepting, this, request, this,
        MHD_OPTION_LISTEN_SOCKET, listener, MHD_OPTION_CONNECTION_LIMIT,
        static_cast<unsigned>(limit_) + about_to_close, MHD_OPTION_CONNECTION_TIMEOUT, idle_limit_s,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, connection_memory, MHD_OPTION_NOTIFY_CONNECTION,
        connection_changed, this, MHD_OPTION_NOTIFY_COMPLETED, request_completed, this,
        MHD_OPTION_END);
    if (!daemon_)
        throw std::system_error(errno, std::generic_category(),
                                "cannot serve HTTP on " + inputs::to_string(endpoint));
}

MHD_Result Http::Impl::accepting(void* self, const sockaddr*, socklen_t) {
    Connections& connections = static_cast<Impl*>(self)->connections_;
    connections.end_overdue(Clock::now());
    connections.make_room();
    return MHD_YES;
}

void Http::Impl::connection_changed(void* self, MHD_Connection* connection, void** context,
                                    MHD_ConnectionNotificationCode what) {
    Connections& connections = static_cast<Impl*>(self)->connections_;
    if (what == MHD_CONNECTION_NOTIFY_CLOSED) {
        connections.closed(*static_cast<Connections::Connection*>(*context));
        return;
    }
    const int fd =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof send_buffer);
    *context = &connections.opened(fd, Clock::now());
}

MHD_Result Http::Impl::request(void* self, MHD_Connection* connection, const char* url,
                               const char* method, const char*, const char*,
                               std::size_t* upload_size, void** seen) {
    Impl& http = *static_cast<Impl*>(self);
    if (!*seen) { // the head; nothing may be answered before the second call
        *seen = self;
        http.connections_.request_began(connection_of(connection), Clock::now());
        return MHD_YES;
    }
    if (*upload_size != 0) { // nobody wants a body
        *upload_size = 0;
        return MHD_YES;
    }
    try {
        return http.answer(connection, url, method);
    } catch (...) {
        return MHD_queue_response(connection, MHD_HTTP_INTERNAL_SERVER_ERROR, http.failed_.get());
    }
}

void Http::Impl::request_completed(void* self, MHD_Connection* connection, void**,
                                   MHD_RequestTerminationCode) {
    static_cast<Impl*>(self)->connections_.request_ended(connection_of(connection), Clock::now());
}

MHD_Result Http::Impl::answer(MHD_Connection* connection, std::string_view url,
                              std::string_view method) {
    if (method != MHD_HTTP_METHOD_GET && method != MHD_HTTP_METHOD_HEAD)
        return MHD_queue_response(connection, MHD_HTTP_METHOD_NOT_ALLOWED, wrong_method_.get());
    const auto ok = [&](MHD_Response* response) {
        return MHD_queue_response(connection, MHD_HTTP_OK, response);
    };
    if (url == "/healthz")
        return sources_.healthy()
                   ? ok(healthy_.get())
                   : MHD_queue_response(connection, MHD_HTTP_SERVICE_UNAVAILABLE, unhealthy_.get());
    if (url == "/metrics")
        return ok(fresh(metrics_));
    if (url == "/api/inputs")
        return ok(fresh(inputs_));
    const std::array<std::pair<std::string_view, MHD_Response*>, 4> files{
        {{"/", page_.get()},
         {"/page.css", style_.get()},
         {"/page.js", script_.get()},
         {"/icon.svg", icon_.get()}}};
    for (const auto& [path, response] : files)
        if (url == path)
            return ok(response);
    return MHD_queue_response(connection, MHD_HTTP_NOT_FOUND, not_found_.get());
}

/// Whoever still reads an old answer keeps it in memory, so those who take too long go first.
MHD_Response* Http::Impl::fresh(Document& document) {
    const auto now = Clock::now();
    if (!document.is_fresh(now))
        connections_.end_overdue(now);
    return document.response(now);
}

Http::Http(const inputs::Endpoint& endpoint, HttpSources sources)
    : impl_(std::make_unique<Impl>(endpoint, std::move(sources))) {}

Http::~Http() = default;

std::uint16_t Http::port() const {
    return impl_->port();
}

} // namespace quarn::live
