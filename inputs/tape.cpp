#include "tape.h"

#include <cerrno>

namespace quarn::inputs {

Source::Result Tape::read(std::span<std::uint8_t> into) {
    Source::Result result;
    if (replaying_) {
        result.status = Source::Status::data;
        result.count = std::fread(into.data(), 1, into.size(), kept_.get());
        replaying_ = result.count > 0;
    }
    if (!replaying_) {
        do
            result = source_->read(into);
        while (result.status == Source::Status::interrupted && !source_->stopped());
        status_ = result.status;
        if (recording_ && complete_ && !source_->seekable())
            complete_ = keep(into.first(result.count));
    }
    bytes_read_ += result.count;
    return result;
}

bool Tape::keep(std::span<const std::uint8_t> bytes) {
    if (!kept_)
        kept_.reset(std::tmpfile());
    return kept_ && std::fwrite(bytes.data(), 1, bytes.size(), kept_.get()) == bytes.size();
}

bool Tape::rewind() {
    recording_ = false;
    status_ = Source::Status::data;
    bytes_read_ = 0;
    if (source_->seekable())
        return source_->rewind();
    replaying_ = true;
    return complete_ && kept_ && std::fseek(kept_.get(), 0, SEEK_SET) == 0;
}

std::FILE* Tape::file() {
    const auto read = [](void* tape, char* into, std::size_t size) -> ssize_t {
        const auto result =
            static_cast<Tape*>(tape)->read({reinterpret_cast<std::uint8_t*>(into), size});
        if (result.status != Source::Status::failed)
            return static_cast<ssize_t>(result.count);
        errno = EIO;
        return -1;
    };
    std::FILE* file = fopencookie(this, "r", {.read = read, .write = {}, .seek = {}, .close = {}});
    if (file)
        (void)std::setvbuf(file, nullptr, _IOFBF,
                           std::size_t{64} * 1024); // without: smaller reads, no more
    return file;
}

} // namespace quarn::inputs
