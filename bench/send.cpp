// send.cpp - sends a capture over loopback to many ports at once, for bench/live.
//
//     send FILE BITS_PER_SECOND SECONDS FIRST_PORT PORTS
//
// Prints how many datagrams that were.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

#include "sender.h"

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fputs("send FILE BITS_PER_SECOND SECONDS FIRST_PORT PORTS\n", stderr);
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    const std::vector<char> file{std::istreambuf_iterator<char>(in), {}};
    if (file.size() < datagram_size) {
        std::fprintf(stderr, "%s: no capture\n", argv[1]);
        return 2;
    }
    const std::vector<std::uint8_t> data(file.begin(), file.end());
    const Pace pace{static_cast<unsigned>(std::atoi(argv[4])),
                    static_cast<unsigned>(std::atoi(argv[5])), std::atof(argv[2]),
                    std::atof(argv[3])};
    const std::uint64_t sent = send_paced(data, pace);
    std::printf("%llu\n", static_cast<unsigned long long>(sent));
    return sent > 0 ? 0 : 1;
}
