// Measures a capture of 188-byte packets from standard input: a line a finding, then the verdict.
//
//     measure_capture <capture.ts
//
// Exit status: 0 healthy, 1 failed, 2 insufficient.
#include <cstdio>
#include <string_view>
#include <vector>

#include <quarn/measure/measure.h>

namespace {

/// Takes findings as they are decided.
class Print : public quarn::Sink {
  public:
    void finding(const quarn::Finding& f) override {
        const std::string_view id = quarn::info(f.rule).id;
        const std::string_view kind = quarn::word(f.kind);
        std::printf("%.*s %.*s packet %llu", static_cast<int>(id.size()), id.data(),
                    static_cast<int>(kind.size()), kind.data(),
                    static_cast<unsigned long long>(f.begin.packet));
        if (f.pid)
            std::printf(" pid %d", *f.pid);
        if (f.detail.lost)
            std::printf(" lost %lld", static_cast<long long>(*f.detail.lost));
        std::printf("\n");
    }
};

} // namespace

int main() {
    constexpr std::size_t packet_size = 188;
    quarn::Options options;
    options.limits = quarn::limits_of(options.profile);
    options.limits.pcr_gap = 200 * quarn::ticks_per_ms; // more patient than the default
    Print print;
    quarn::Stream stream(options, print);

    std::vector<unsigned char> block(packet_size * 1000);
    std::uint64_t byte = 0;
    while (const std::size_t count =
               std::fread(block.data(), packet_size, block.size() / packet_size, stdin)) {
        // Whoever finds a wrong sync byte tells it by sync_loss() and goes on in step; this example
        // only takes files that have none.
        for (std::size_t i = 0; i < count; ++i)
            if (block[i * packet_size] != 0x47) {
                std::fprintf(stderr, "no packet begins at byte %llu\n",
                             static_cast<unsigned long long>(byte + i * packet_size));
                return 3;
            }
        stream.packets(block.data(), count, packet_size, byte);
        byte += count * packet_size;
    }
    stream.end();
    return static_cast<int>(stream.summary().verdict);
}
