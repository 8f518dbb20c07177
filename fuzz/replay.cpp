// replay.cpp - runs one fuzz target on the files of a directory, without a fuzzer. Any finding ends
// the process. Fails as well if there was nothing to run.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char* argv[]) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argc == 2 ? argv[1] : ".")) {
        std::ifstream in(entry.path(), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
        std::printf("%s\n", entry.path().c_str());
        std::fflush(stdout); // names the input that ends the process
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        count++;
    }
    return count == 0 ? 1 : 0;
}
