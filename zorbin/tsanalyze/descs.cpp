// descs.cpp - copies of PMT sections for bitstream's readers and printers, with descriptor loops
// that end with their section and descriptors that can be printed. bitstream's validators step
// through some descriptors by 8-bit sums of lengths that the stream supplies; a sum that wraps to 0
// would keep them in place for ever. Its loops follow the length that they claim, and one of its
// formats does not fit 32-bit platforms. Called by pmt for every section; owns nothing, the copy
// lies in the context.
#include <algorithm>
#include <ctime>

#include <bitstream/mpeg/psi/pmt.h>

#include "tables.h"

namespace {

// The entries of a descriptor as bitstream's validator steps through them.
struct stepping {
    std::uint8_t tag;
    std::uint8_t start; // offset of the first entry
    std::uint8_t fixed; // bytes of an entry besides its variable parts
    std::uint8_t len;   // offset in an entry of the length of its first variable part
};

constexpr stepping STEPPINGS[] = {
    {0x45, 2, 2, 1},  // VBI data
    {0x51, 3, 4, 2},  // mosaic
    {0x5b, 2, 4, 3},  // multilingual network name
    {0x5c, 2, 4, 3},  // multilingual bouquet name
    {0x5d, 2, 5, 3},  // multilingual service name
    {0x5e, 3, 4, 3},  // multilingual component
    {0x6c, 2, 10, 9}, // cell list
    {0x6d, 2, 7, 6},  // cell frequency link
};

const stepping* stepping_of(std::uint8_t tag) {
    for (const stepping& s : STEPPINGS)
        if (s.tag == tag)
            return &s;
    return nullptr;
}

// Bytes that follow the first variable part of a mosaic cell, by its linkage.
std::uint8_t mosaic_link_size(std::uint8_t linkage) {
    constexpr std::uint8_t SIZES[] = {0, 2, 6, 6, 8};
    return linkage < sizeof SIZES ? SIZES[linkage] : std::uint8_t{0};
}

// Size of the entry at `p` in 8 bits, as the validator computes it.
std::uint8_t step(const stepping& s, const std::uint8_t* p) {
    unsigned size = s.fixed + unsigned{p[s.len]};
    const std::uint8_t* next = p + s.len + 1 + p[s.len]; // behind the first variable part
    if (s.tag == 0x51)
        size += mosaic_link_size(*next);
    else if (s.tag == 0x5d)
        size += *next;
    return static_cast<std::uint8_t>(size);
}

bool is_endless(const std::uint8_t* desc) {
    const stepping* s = stepping_of(desc_get_tag(desc));
    if (!s)
        return false;
    const std::uint8_t* p = desc + s->start;
    const int floor = s->start - DESC_HEADER_SIZE;
    for (int left = desc_get_length(desc); left > floor;) {
        const std::uint8_t n = step(*s, p);
        if (n == 0)
            return true;
        left -= n;
        p += n;
    }
    return false;
}

// bitstream prints the time in a local time offset as a long. Where time_t is wider, the texts
// behind it would be looked for at whatever its upper half says.
bool prints_wrong_time(const std::uint8_t* desc) {
    constexpr std::uint8_t LOCAL_TIME_OFFSET = 0x58;
    return sizeof(time_t) > sizeof(long) && desc_get_tag(desc) == LOCAL_TIME_OFFSET;
}

// Ends a descriptor loop where its section ends. What lies behind, a packet's stuffing or padding,
// would be printed as up to two thousand descriptors more.
bool clip_loop(const std::uint8_t* pmt, std::uint8_t* descs) {
    const std::ptrdiff_t end = psi_get_length(pmt) + PSI_HEADER_SIZE - PSI_CRC_SIZE;
    const std::ptrdiff_t room = end - (descs - pmt) - DESCS_HEADER_SIZE;
    if (descs_get_length(descs) <= room)
        return false;
    descs_set_length(descs, static_cast<std::uint16_t>(std::max<std::ptrdiff_t>(room, 0)));
    return true;
}

// Gives the descriptors of a loop that cannot be printed a tag of the user-private range: those are
// printed as unknown, byte by byte, so that a change in one still shows. Returns whether any tag
// was changed.
bool retag_unprintable(std::uint8_t* descs) {
    constexpr std::uint8_t USER_PRIVATE = 0x80;
    const std::uint16_t len = descs_get_length(descs);
    bool changed = false;
    for (std::size_t pos = 0; pos < len;) {
        std::uint8_t* desc = descs + DESCS_HEADER_SIZE + pos;
        if (is_endless(desc) || prints_wrong_time(desc)) {
            desc_set_tag(desc, desc_get_tag(desc) | USER_PRIVATE);
            changed = true;
        }
        pos += DESC_HEADER_SIZE + std::size_t{desc_get_length(desc)};
    }
    return changed;
}

// Applies an operation to the program's loop and to that of every stream; true if it ever was.
template <class Operation>
bool for_each_loop(std::uint8_t* pmt, Operation apply) {
    bool result = apply(pmt_get_descs(pmt));
    for (std::uint8_t i = 0; i < 255; i++) {
        std::uint8_t* es = pmt_get_es(pmt, i);
        if (!es)
            break;
        result |= apply(pmtn_get_descs(es));
    }
    return result;
}

} // namespace

// Readers that trust lengths run at most a few kilobytes past a section: what follows it in its
// packet belongs to what they see, and zeros lie behind. A descriptor may reach into the ones
// behind it, so a tag that is changed can make it endless: all are looked at until none is.
std::uint8_t* printable_pmt(tsan_ctx* tc, const section_view& section) {
    std::uint8_t* const pmt = tc->work;
    std::uint8_t* end = std::copy(section.bytes.begin(), section.bytes.end(), pmt);
    end = std::copy(section.behind.begin(), section.behind.end(), end);
    std::fill(end, pmt + sizeof tc->work, std::uint8_t{0});
    for_each_loop(pmt, [pmt](std::uint8_t* descs) { return clip_loop(pmt, descs); });
    while (for_each_loop(pmt, retag_unprintable)) {
    }
    return pmt;
}
