#include "live/document.h"

#include <microhttpd.h>
#include <new>
#include <utility>

namespace quarn::live {
namespace {

// Nothing but the page's own files is loaded or run, whatever stands in a name.
constexpr const char* content_policy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

void free_body(void* body) {
    delete static_cast<std::string*>(body);
}

Response with_headers(MHD_Response* raw, const char* content_type) {
    if (!raw)
        throw std::bad_alloc();
    Response response(raw);
    const std::pair<const char*, const char*> headers[] = {
        {MHD_HTTP_HEADER_CONTENT_TYPE, content_type}, {MHD_HTTP_HEADER_CACHE_CONTROL, "no-store"},
        {"Content-Security-Policy", content_policy},  {"X-Content-Type-Options", "nosniff"},
        {"Referrer-Policy", "no-referrer"},
    };
    for (const auto& [name, value] : headers)
        if (MHD_add_response_header(raw, name, value) != MHD_YES)
            throw std::bad_alloc();
    return response;
}

} // namespace

void ResponseEnd::operator()(MHD_Response* response) const {
    MHD_destroy_response(response);
}

Response make_response(std::string body, const char* content_type) {
    auto owned = std::make_unique<std::string>(std::move(body));
    MHD_Response* raw = MHD_create_response_from_buffer_with_free_callback_cls(
        owned->size(), owned->data(), free_body, owned.get());
    if (raw)
        static_cast<void>(owned.release()); // free_body() has it now
    return with_headers(raw, content_type);
}

Response static_response(std::string_view body, const char* content_type) {
    return with_headers(MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()),
                                                        MHD_RESPMEM_PERSISTENT),
                        content_type);
}

MHD_Response* Document::response(Clock::time_point now) {
    if (!is_fresh(now)) {
        response_ = make_response(make_(), content_type_);
        made_ = now;
    }
    return response_.get();
}

} // namespace quarn::live
