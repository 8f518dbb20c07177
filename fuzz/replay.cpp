// replay.cpp - runs one fuzz target on files, without a fuzzer: replay FILE-OR-DIRECTORY...
// Any finding ends the process. Fails as well if there was nothing to run.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "harness.h"

namespace fs = std::filesystem;

static std::vector<fs::path> files_of(const fs::path& path) {
    std::vector<fs::path> files;
    if (!fs::is_directory(path))
        return {path};
    for (const fs::directory_entry& entry : fs::directory_iterator(path))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

static bool replay(const fs::path& path) {
    FILE* in = std::fopen(path.c_str(), "rb");
    if (!in) {
        std::perror(path.c_str());
        return false;
    }
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(fs::file_size(path)));
    const bool whole = std::fread(bytes.data(), 1, bytes.size(), in) == bytes.size();
    std::fclose(in);
    std::printf("%s\n", path.c_str());
    std::fflush(stdout); // names the input that ends the process
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return whole;
}

int main(int argc, char* argv[]) {
    std::size_t count = 0;
    for (int i = 1; i < argc; i++) {
        for (const fs::path& path : files_of(argv[i])) {
            if (!replay(path))
                return 1;
            count++;
        }
    }
    std::printf("%zu inputs, %zu of them ended by a named invariant\n", count,
                inputs_ended_by_invariant());
    return count == 0 ? 1 : 0;
}
