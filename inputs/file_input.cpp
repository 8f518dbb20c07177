#include "file_input.h"

#include <algorithm>
#include <cstring>

namespace quarn::inputs {
namespace {

/// Parts of a size that stays in the second-level cache between read() and the sink.
constexpr std::size_t part = std::size_t{256} * 1024;
/// Room in front of a part, for what is left of the one before it.
constexpr std::size_t usual_rest = 4096;

} // namespace

FileInput::FileInput(std::unique_ptr<Source> source, const Layout& layout, std::size_t keep)
    : source_(std::move(source)), framer_(layout), packet_size_(static_cast<int>(layout.size)),
      buffer_(usual_rest + part), begin_(usual_rest), end_(usual_rest) {
    if (keep > 0 && !source_->seekable())
        history_.emplace(keep);
}

Input::Kept FileInput::kept() const {
    const auto size = static_cast<std::size_t>(packet_size_);
    if (history_)
        return {history_->begin(), history_->end(), size, false};
    if (!source_->seekable())
        return {};
    // A file that is being written may have grown.
    return {0, std::max(source_->bytes_total().value_or(0), bytes_read()), size, true};
}

std::size_t FileInput::read_again(std::uint64_t from, std::span<std::uint8_t> into) {
    return history_ ? history_->read(from, into) : source_->read_at(from, into);
}

/// Moves the rest in front of the place for the next part, at the same distance each time so that
/// the kernel copies to the start of a page.
void FileInput::make_room() {
    const std::size_t rest = end_ - begin_;
    const std::size_t front = rest <= usual_rest ? usual_rest : rest;
    if (buffer_.size() < front + part)
        buffer_.resize(front + part + Framer::hold_limit / 4);
    std::memmove(buffer_.data() + front - rest, buffer_.data() + begin_, rest);
    begin_ = front - rest;
    end_ = front;
}

Input::Status FileInput::read(Sink& sink) {
    make_room();
    const auto [status, count] = source_->read({buffer_.data() + end_, part});
    if (status == Source::Status::interrupted)
        return source_->stopped() ? Status::end : Status::more;
    if (history_)
        history_->append({buffer_.data() + end_, count});
    end_ += count;
    const bool end = status != Source::Status::data;
    begin_ += framer_.feed({buffer_.data() + begin_, end_ - begin_}, end, sink);
    if (status == Source::Status::failed) {
        error_ = source_->error();
        return Status::failed;
    }
    return end ? Status::end : Status::more;
}

} // namespace quarn::inputs
