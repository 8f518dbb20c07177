#include "file_input.h"
#include "input.h"
#include "layout.h"
#include "pcap_input.h"
#include "sniff.h"
#include "source.h"

namespace quarn::inputs {
namespace {

/// An input is looked at in steps of fixed sizes, so that what is found does not depend on how
/// much a pipe happens to hold; far enough to pass over what may stand before the first packet.
constexpr std::size_t looks[] = {16 << 10, 64 << 10, 256 << 10, 1 << 20};

} // namespace

std::variant<std::unique_ptr<Input>, Error> open(const std::string& operand,
                                                 const OpenOptions& options) {
    auto opened = Source::open(operand, options.stop);
    if (auto* error = std::get_if<Error>(&opened))
        return std::move(*error);
    auto source = std::get<std::unique_ptr<Source>>(std::move(opened));
    std::span<const std::uint8_t> head;
    for (const std::size_t look : looks) {
        const auto peeked = source->peek(look);
        if (!peeked)
            return source->error();
        head = *peeked;
        if (head.empty())
            return Error{ErrorKind::empty, "empty: not one byte"};
        if (is_pcap(head))
            return PcapInput::open(std::move(source), options);
        const bool whole = head.size() < look;
        if (const auto layout = find_layout(head, whole))
            return std::make_unique<FileInput>(std::move(source), *layout, options.keep);
        if (whole)
            break;
    }
    return Error{ErrorKind::not_ts, describe_not_ts(head)};
}

} // namespace quarn::inputs
