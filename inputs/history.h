// The last bytes of an input that cannot be read a second time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

namespace quarn::inputs {

/// Keeps as many bytes as it was made for, allocated once; what comes pushes out the oldest.
class History {
  public:
    /// 0: keeps nothing.
    explicit History(std::size_t size)
        : size_(size), bytes_(std::make_unique_for_overwrite<std::uint8_t[]>(size)) {}

    /// The next bytes of the input.
    void append(std::span<const std::uint8_t> bytes) {
        if (bytes.size() > size_) {
            end_ += bytes.size() - size_;
            bytes = bytes.last(size_);
        }
        while (!bytes.empty()) {
            const std::size_t count = std::min(bytes.size(), size_ - place(end_));
            std::memcpy(bytes_.get() + place(end_), bytes.data(), count);
            end_ += count;
            bytes = bytes.subspan(count);
        }
    }
    /// Offsets in the input: the first byte that is kept, and the one behind the last.
    std::uint64_t begin() const { return end_ - std::min<std::uint64_t>(end_, size_); }
    std::uint64_t end() const { return end_; }
    /// Fewer than asked for at the end, none where they are not kept.
    std::size_t read(std::uint64_t from, std::span<std::uint8_t> into) const {
        if (from < begin() || from >= end_)
            return 0;
        std::size_t done = 0;
        while (done < into.size() && from + done < end_) {
            const std::size_t at = place(from + done);
            const std::size_t count = std::min(
                {into.size() - done, size_ - at,
                 static_cast<std::size_t>(std::min<std::uint64_t>(end_ - from - done, size_))});
            std::memcpy(into.data() + done, bytes_.get() + at, count);
            done += count;
        }
        return done;
    }

  private:
    std::size_t place(std::uint64_t offset) const {
        return static_cast<std::size_t>(offset % size_);
    }

    std::size_t size_;
    std::unique_ptr<std::uint8_t[]> bytes_;
    std::uint64_t end_ = 0;
};

} // namespace quarn::inputs
