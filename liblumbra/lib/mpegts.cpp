// mpegts.cpp - distances on the 33-bit clock of ISO/IEC 13818-1; the accessors are inline in the
// header. Called by the PCR and time-stamp checks of the analyzer. Owns nothing.
#include "mpegts.h"

#include <cstdlib>

#include "log.h"

LOG_MODULE(0);

using u64 = unsigned long long;

static constexpr u64 PCR_WRAP = u64{1} << 33;  // the clock counts modulo this
static constexpr u64 PCR_WRAP_MARGIN = 44999;  // longest distance that counts across the wrap
static constexpr unsigned PCR_GAP_MAX = 45000; // half a second

std::uint64_t calc_pcr_delta(std::uint64_t first, std::uint64_t last, unsigned flags) {
    const u64 wrapped = PCR_WRAP + last - first;
    const u64 gap = last - first;
    if (wrapped <= PCR_WRAP_MARGIN)
        return wrapped;
    if (first == 0)
        return gap;
    if (last < first) {
        LOG(&g_log, WARN_level, "%s: PCR last=%llu < first=%llu diff=%llu\n", __func__, u64{last},
            u64{first}, gap);
        if (flags & PCR_ABORT_BACKWARD)
            std::abort();
        return 0;
    }
    if ((flags & PCR_LOG_GAP) && gap > PCR_GAP_MAX)
        LOG(&g_log, WARN_level, "%s: PCR gap=%llu exceeds max=%u; last=%llu, first=%llu\n",
            __func__, gap, PCR_GAP_MAX, u64{last}, u64{first});
    return gap;
}

std::uint64_t ts_pcr_delta(std::uint64_t first, std::uint64_t last) {
    return calc_pcr_delta(first, last, 0);
}

std::uint32_t pcr_delta_ms(std::uint64_t first, std::uint64_t last) {
    // Longer distances than the result can hold lose their upper bits.
    return static_cast<std::uint32_t>(ts_pcr_delta(first, last) / 90);
}
