#include "live/process_use.h"

#include <cstddef>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace quarn::live {
namespace {

double seconds_of(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// The fields of /proc/self/stat behind the name, which may hold anything; the first is field 3.
std::vector<std::string> stat_fields() {
    std::ifstream file("/proc/self/stat");
    std::string text((std::istreambuf_iterator<char>(file)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    return {std::istream_iterator<std::string>(fields), {}};
}

std::uint64_t open_descriptors() {
    std::error_code error;
    std::uint64_t count = 0;
    for (std::filesystem::directory_iterator entry("/proc/self/fd", error), end;
         !error && entry != end; entry.increment(error))
        ++count;
    return count;
}

} // namespace

ProcessUse process_use() {
    constexpr std::size_t first = 3;
    constexpr std::size_t user_time = 14;
    constexpr std::size_t system_time = 15;
    constexpr std::size_t start_time = 22;
    constexpr std::size_t resident_pages = 24;
    ProcessUse use;
    const std::vector<std::string> fields = stat_fields();
    if (fields.size() > resident_pages - first) {
        const auto field = [&](std::size_t number) { return std::stod(fields[number - first]); };
        const auto hertz = static_cast<double>(sysconf(_SC_CLK_TCK));
        use.cpu_s = (field(user_time) + field(system_time)) / hertz;
        use.started_utc_s =
            seconds_of(CLOCK_REALTIME) - seconds_of(CLOCK_BOOTTIME) + field(start_time) / hertz;
        use.resident_bytes = static_cast<std::uint64_t>(field(resident_pages) *
                                                        static_cast<double>(sysconf(_SC_PAGESIZE)));
    }
    rlimit descriptors{};
    if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0)
        use.most_descriptors = descriptors.rlim_cur;
    use.open_descriptors = open_descriptors();
    return use;
}

} // namespace quarn::live
