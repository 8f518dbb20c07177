#include "pcap_file.h"

#include <optional>
#include <pcap/pcap.h>

namespace quarn::inputs {
namespace {

pcap_t* pcap(void* handle) {
    return static_cast<pcap_t*>(handle);
}

std::optional<Link> known_link(int type) {
    switch (type) {
    case DLT_EN10MB:
        return Link::ethernet;
    case DLT_LINUX_SLL:
        return Link::linux_cooked;
    case DLT_LINUX_SLL2:
        return Link::linux_cooked_2;
    case DLT_RAW:
    case DLT_IPV4:
    case DLT_IPV6:
        return Link::raw_ip;
    case DLT_NULL:
    case DLT_LOOP:
        return Link::loopback;
    default:
        return {};
    }
}

std::string name_of_link(int type) {
    const char* name = pcap_datalink_val_to_description(type);
    return name ? name : "type " + std::to_string(type);
}

} // namespace

std::unique_ptr<PcapFile> PcapFile::open(std::FILE* file, std::string& error) {
    char text[PCAP_ERRBUF_SIZE] = "";
    pcap_t* handle =
        pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, text);
    if (!handle) {
        std::fclose(file);
        error = text;
        return {};
    }
    const int type = pcap_datalink(handle);
    const auto link = known_link(type);
    if (!link) {
        pcap_close(handle);
        error = "its link layer is " + name_of_link(type) +
                "; Ethernet, Linux cooked, raw IP and loopback are read";
        return {};
    }
    return std::unique_ptr<PcapFile>(new PcapFile(handle, *link));
}

PcapFile::~PcapFile() {
    pcap_close(pcap(handle_));
}

PcapFile::Status PcapFile::next(Frame& frame) {
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    switch (pcap_next_ex(pcap(handle_), &header, &bytes)) {
    case 1:
        frame.bytes = {bytes, header->caplen};
        frame.cut = header->caplen < header->len;
        frame.seconds = header->ts.tv_sec;
        frame.nanoseconds = static_cast<std::int32_t>(header->ts.tv_usec);
        return Status::frame;
    case PCAP_ERROR_BREAK:
        return Status::end;
    default:
        return Status::failed;
    }
}

std::string PcapFile::error() const {
    return pcap_geterr(pcap(handle_));
}

} // namespace quarn::inputs
