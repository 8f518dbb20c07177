// Answers of the HTTP server, in its thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct MHD_Response;

namespace quarn::live {

struct ResponseEnd {
    void operator()(MHD_Response* response) const;
};
/// Counted: connections that are still sending it keep it alive.
using Response = std::unique_ptr<MHD_Response, ResponseEnd>;

/// With the headers that every answer has. Throws std::bad_alloc.
Response make_response(std::string body, const char* content_type);
/// The same for text that lives as long as the process.
Response static_response(std::string_view body, const char* content_type);

/// A document that changes, made at most once a second.
class Document {
  public:
    using Clock = std::chrono::steady_clock;

    Document(const char* content_type, std::function<std::string()> make)
        : content_type_(content_type), make_(std::move(make)) {}

    bool is_fresh(Clock::time_point now) const {
        return response_ && now - made_ < std::chrono::seconds(1);
    }
    /// Made anew where it is not fresh. Throws what `make` throws.
    MHD_Response* response(Clock::time_point now);

  private:
    const char* content_type_;
    std::function<std::string()> make_;
    Response response_;
    Clock::time_point made_;
};

} // namespace quarn::live
