// url.cpp - what users write for a live input. What is shown of it names the same input.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "inputs/url.h"

using namespace quarn::inputs;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void must(bool holds) {
    if (!holds)
        std::abort();
}

bool same(const InputUrl& a, const InputUrl& b) {
    return a.scheme == b.scheme && a.endpoint == b.endpoint && a.has_source == b.has_source &&
           a.source == b.source && a.interface_name == b.interface_name && a.host == b.host &&
           a.mode == b.mode && a.latency == b.latency && a.path == b.path && a.loop == b.loop &&
           a.bitrate == b.bitrate;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto parsed = parse_url(text);
    if (const auto* wrong = std::get_if<std::string>(&parsed)) {
        must(!wrong->empty() && wrong->find('\n') == std::string::npos);
        (void)without_secrets(text);
        return 0;
    }
    const auto& url = std::get<InputUrl>(parsed);
    const auto shown = parse_url(url.without_secrets());
    must(std::holds_alternative<InputUrl>(shown));
    must(same(url, std::get<InputUrl>(shown)) && std::get<InputUrl>(shown).passphrase.empty());
    return 0;
}
