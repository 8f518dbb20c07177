#include "list.h"

#include <cerrno>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <system_error>

namespace quarn::check {

namespace {

std::vector<std::string> lines_of(std::istream& in) {
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(std::move(line));
    }
    return lines;
}

std::vector<std::string> read_list(const std::string& path) {
    const auto unreadable = [&] {
        return std::system_error(errno ? errno : EIO, std::generic_category(), "--list " + path);
    };
    errno = 0;
    std::ifstream file;
    if (path != "-") {
        file.open(path);
        if (!file)
            throw unreadable();
    }
    std::istream& in = path == "-" ? std::cin : file;
    std::vector<std::string> lines = lines_of(in);
    if (in.bad())
        throw unreadable();
    return lines;
}

} // namespace

std::vector<std::string> inputs_of(const CommandLine& line) {
    std::vector<std::string> all = line.files;
    if (line.list) {
        std::vector<std::string> more = read_list(*line.list);
        all.insert(all.end(), more.begin(), more.end());
    }
    const Shard shard = line.shard.value_or(Shard{});
    std::vector<std::string> chosen;
    std::size_t named = 0;
    for (std::size_t k = 0; k < all.size(); ++k) {
        if (all[k].empty() && k >= line.files.size())
            continue;
        ++named;
        if (k % shard.count + 1 == shard.index)
            chosen.push_back(all[k]);
    }
    if (named == 0)
        throw std::runtime_error("--list " + line.list.value_or("") + ": no input is named in it");
    return chosen;
}

} // namespace quarn::check
