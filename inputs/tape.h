// A source that can be read twice from its beginning, also if it is a pipe.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>

#include "source.h"

namespace quarn::inputs {

/// What is read before rewind() from a source that cannot go back is kept in a file without a
/// name.
class Tape {
  public:
    explicit Tape(std::unique_ptr<Source> source) : source_(std::move(source)) {}

    /// Reads on. Signals do not end the wait unless the stop flag is set: then it is the end.
    Source::Result read(std::span<std::uint8_t> into);
    /// To be called once. False if what was read could not be kept.
    bool rewind();

    const Source& source() const { return *source_; }
    std::uint64_t bytes_read() const { return bytes_read_; }
    /// Whether read() has come to the end of the source.
    bool at_end() const { return status_ == Source::Status::end; }
    bool failed() const { return status_ == Source::Status::failed; }

    /// A stream of the C library over this tape, which must outlive it. Null if out of memory.
    std::FILE* file();

  private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    bool keep(std::span<const std::uint8_t> bytes);

    std::unique_ptr<Source> source_;
    std::unique_ptr<std::FILE, Close> kept_;
    bool recording_ = true;
    bool complete_ = true; // everything that was read is in kept_
    bool replaying_ = false;
    Source::Status status_ = Source::Status::data;
    std::uint64_t bytes_read_ = 0;
};

} // namespace quarn::inputs
