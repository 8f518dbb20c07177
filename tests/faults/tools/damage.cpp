// damage.cpp - damages a copy of a capture at random places: damage INPUT OUTPUT SEED
//
// Half of the damage goes to packets that carry tables, where it does most. Sync bytes are mostly
// spared, since a run ends at the first one that is wrong.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

namespace {

constexpr std::size_t PACKET = 188;
using bytes = std::vector<std::uint8_t>;
using place = bytes::iterator;

class damager {
  public:
    damager(bytes& capture, unsigned seed) : capture_(capture), rnd_(seed) {
        for (std::size_t n = 0; n < packets(); n++) {
            const std::uint8_t* p = &capture_[n * PACKET];
            const unsigned pid = (p[1] & 0x1fU) << 8 | p[2];
            if (pid == 0 || (p[1] & 0x40 && p[4] == 0 && p[5] == 2))
                tables_.push_back(n);
        }
    }
    void run() {
        for (std::size_t times = 1 + below(60); times > 0; times--)
            once();
        if (below(4) == 0)
            capture_.resize(below(capture_.size()) + 1);
    }

  private:
    [[nodiscard]] std::size_t packets() const { return capture_.size() / PACKET; }
    std::size_t below(std::size_t n) { return rnd_() % n; }
    std::uint8_t any() {
        const std::uint8_t favourites[] = {0, 1, 2, 0x0f, 0x40, 0x47, 0x5b, 0x80, 0xfe, 0xff};
        return below(2) == 0 ? static_cast<std::uint8_t>(rnd_()) : favourites[below(10)];
    }
    place packet() {
        const bool table = !tables_.empty() && below(2) == 0;
        const std::size_t n = table ? tables_[below(tables_.size())] : below(packets());
        return capture_.begin() + static_cast<std::ptrdiff_t>(n * PACKET);
    }
    // A place in a packet, most often in what its headers say.
    std::ptrdiff_t offset() {
        if (below(200) == 0)
            return 0;
        return static_cast<std::ptrdiff_t>(1 + below(below(3) == 0 ? PACKET - 1 : 40));
    }
    void once() {
        const place p = packet();
        const std::ptrdiff_t at = offset();
        switch (below(6)) {
        case 0:
            p[at] = static_cast<std::uint8_t>(p[at] ^ 1 << below(8));
            break;
        case 1:
            p[at] = any();
            break;
        case 2:
            std::generate(p + at, p + static_cast<std::ptrdiff_t>(PACKET),
                          [this] { return any(); });
            break;
        case 3: // another packet in its place: a lost and a repeated one
            std::copy_n(packet(), PACKET, p);
            break;
        case 4: // a header on another's body
            std::copy_n(packet(), 4, p);
            break;
        default: // part of a packet moves
            std::copy_backward(p + at, p + static_cast<std::ptrdiff_t>(PACKET - 1),
                               p + static_cast<std::ptrdiff_t>(PACKET));
            break;
        }
    }

    bytes& capture_;
    std::minstd_rand rnd_;
    std::vector<std::size_t> tables_; // packets in which one starts
};

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s INPUT OUTPUT SEED\n", argv[0]);
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    bytes capture{std::istreambuf_iterator<char>(in), {}};
    if (capture.size() < PACKET)
        return 1;
    damager(capture, static_cast<unsigned>(std::atoi(argv[3]))).run();
    std::ofstream out(argv[2], std::ios::binary);
    out.write(reinterpret_cast<const char*>(capture.data()),
              static_cast<std::streamsize>(capture.size()));
    return out ? 0 : 1;
}
