// Frames of a pcap or pcapng file. The only place that knows libpcap.
//
// Its source is built with another size of time_t than the rest of the tree on some platforms (that
// of the library's own interface), so nothing that holds a time_t or timeval may stand in here.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

#include "link.h"

namespace quarn::inputs {

class PcapFile {
  public:
    enum class Status : std::uint8_t { frame, end, failed };
    struct Frame {
        std::span<const std::uint8_t> bytes; // valid until the next call
        bool cut = false;                    // it was longer than what was captured
        std::int64_t seconds = 0;            // since 1970-01-01 UTC
        std::int32_t nanoseconds = 0;
    };

    /// Takes the file over, and closes it also when it is none that can be read: then the result
    /// is empty, and `error` says why.
    static std::unique_ptr<PcapFile> open(std::FILE* file, std::string& error);
    PcapFile(const PcapFile&) = delete;
    PcapFile& operator=(const PcapFile&) = delete;
    ~PcapFile();

    Link link() const { return link_; }
    Status next(Frame& frame);
    /// After `failed`: the file is damaged, or ends inside a frame.
    std::string error() const;

  private:
    PcapFile(void* handle, Link link) : handle_(handle), link_(link) {}

    void* handle_; // pcap_t
    Link link_;
};

} // namespace quarn::inputs
