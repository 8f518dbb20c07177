// Look-ups in the tables in force.
#include "programs.h"

#include <algorithm>

namespace quarn {

const ElementaryStream* Programs::stream(std::uint16_t pid) const {
    for (const Program& program : programs)
        for (const ElementaryStream& s : program.streams)
            if (s.pid == pid)
                return &s;
    return nullptr;
}

std::vector<std::uint16_t> Programs::programs_of(std::uint16_t pid) const {
    std::vector<std::uint16_t> numbers;
    for (const Program& p : programs) {
        const bool named = std::any_of(p.streams.begin(), p.streams.end(),
                                       [&](const auto& s) { return s.pid == pid; });
        if (named || p.pmt_pid == pid || (p.pmt_in_force && p.pcr_pid == pid && pid != null_pid))
            numbers.push_back(p.number);
    }
    return numbers;
}

const Program* Programs::program(std::uint16_t number) const {
    const auto p = std::find_if(programs.begin(), programs.end(),
                                [&](const Program& x) { return x.number == number; });
    return p == programs.end() ? nullptr : &*p;
}

bool Programs::is_pcr_pid(std::uint16_t pid) const {
    return pid != null_pid && std::any_of(programs.begin(), programs.end(), [&](const Program& p) {
               return p.pmt_in_force && p.pcr_pid == pid;
           });
}

bool Programs::is_pmt_pid(std::uint16_t pid) const {
    return std::any_of(programs.begin(), programs.end(),
                       [&](const Program& p) { return p.pmt_pid == pid; });
}

bool Programs::complete() const {
    return pat_in_force && std::all_of(programs.begin(), programs.end(),
                                       [](const Program& p) { return p.pmt_in_force; });
}

} // namespace quarn
