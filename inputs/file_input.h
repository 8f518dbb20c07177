// A file or pipe of packets.
#pragma once

#include <memory>
#include <vector>

#include "framer.h"
#include "history.h"
#include "input.h"
#include "source.h"

namespace quarn::inputs {

class FileInput : public Input {
  public:
    /// `keep`: see OpenOptions.
    FileInput(std::unique_ptr<Source> source, const Layout& layout, std::size_t keep);

    Status read(Sink& sink) override;
    const Error& error() const override { return error_; }
    int packet_size() const override { return packet_size_; }
    std::uint64_t bytes_read() const override { return source_->bytes_read(); }
    std::optional<std::uint64_t> bytes_total() const override { return source_->bytes_total(); }
    std::optional<Flow> flow() const override { return {}; }
    Kept kept() const override;
    std::size_t read_again(std::uint64_t from, std::span<std::uint8_t> into) override;

  private:
    void make_room();

    std::unique_ptr<Source> source_;
    Framer framer_;
    std::optional<History> history_; // of a pipe
    int packet_size_;
    Error error_;
    // What the framer has not done yet lies in front of where the next part is read to.
    std::vector<std::uint8_t> buffer_;
    std::size_t begin_;
    std::size_t end_;
};

} // namespace quarn::inputs
