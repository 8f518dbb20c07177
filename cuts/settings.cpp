#include "settings.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace quarn::cuts {

void check_directory(const std::string& directory) {
    struct stat status {};
    const bool found = ::stat(directory.c_str(), &status) == 0;
    const bool other = found && !S_ISDIR(status.st_mode);
    if (found && !other && ::access(directory.c_str(), W_OK | X_OK) == 0)
        return;
    throw std::system_error(other ? ENOTDIR : errno, std::generic_category(),
                            "directory for cuts " + directory);
}

std::string no_room(const Settings& settings, std::uint64_t files, std::uint64_t bytes,
                    std::uint64_t needed, std::string_view option) {
    const auto named = [option](const char* what) {
        return " (" + std::string(option) + what + ")";
    };
    const std::string allowed = std::to_string(settings.bytes) + " bytes that are allowed";
    if (files == settings.files)
        return "there are " + std::to_string(files) + (files == 1 ? " file" : " files") +
               ", and no more are allowed" + named("files");
    if (needed == 0)
        return "the last one ends early, the " + allowed + " are used up" + named("bytes");
    return "the next one needs some " + std::to_string(needed) + " bytes, and of the " + allowed +
           " " + std::to_string(bytes) + " are used" + named("bytes");
}

} // namespace quarn::cuts
