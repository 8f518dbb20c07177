// Bytes of a file or of standard input.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "input.h"

namespace quarn::inputs {

/// An open descriptor. Bytes that were only looked at come again.
class Source {
  public:
    enum class Status : std::uint8_t { data, end, interrupted, failed };
    struct Result {
        Status status = Status::end;
        std::size_t count = 0;
    };

    /// "-" is standard input. An error names what the operand is instead.
    static std::variant<std::unique_ptr<Source>, Error> open(const std::string& operand,
                                                             const std::atomic<bool>* stop);
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    ~Source();

    /// Reads some bytes, as many as are at hand; `interrupted` when a signal came in between.
    Result read(std::span<std::uint8_t> into);
    /// The first bytes that read() will return: `count` of them, fewer at the end of the input
    /// or when the stop flag is set. Nothing after an error.
    std::optional<std::span<const std::uint8_t>> peek(std::size_t count);
    /// Goes back to where it began, if it is seekable.
    bool rewind();

    /// Bytes from that offset on, wherever it stands; none if it is not seekable or that fails.
    std::size_t read_at(std::uint64_t from, std::span<std::uint8_t> into) const;

    bool seekable() const { return seekable_; }
    bool stopped() const { return stop_ && stop_->load(std::memory_order_relaxed); }
    std::uint64_t bytes_read() const { return bytes_read_; }
    std::optional<std::uint64_t> bytes_total() const { return bytes_total_; }
    /// After `failed`.
    Error error() const;

  private:
    Source(int fd, const std::atomic<bool>* stop) : fd_(fd), stop_(stop) {}
    std::optional<Error> examine();

    int fd_;
    const std::atomic<bool>* stop_;
    std::int64_t begin_ = 0; // where a seekable descriptor stood
    bool seekable_ = false;
    int errno_ = 0;
    std::vector<std::uint8_t> peeked_;
    std::size_t peeked_done_ = 0;
    std::uint64_t bytes_read_ = 0;
    std::optional<std::uint64_t> bytes_total_;
};

} // namespace quarn::inputs
