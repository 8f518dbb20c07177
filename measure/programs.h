// What the tables in force say: programs, their streams, who refers to which pid.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "packet.h"
#include "summary.h"

namespace quarn {

/// One entry of a PMT.
struct ElementaryStream {
    std::uint16_t pid = null_pid;
    std::uint8_t stream_type = 0;
    StreamKind kind = StreamKind::unknown;
    Codec codec = Codec::unknown;
    std::string language;       // ISO 639-2 of the first descriptor that has one
    bool still_picture = false; // a descriptor declares still pictures
    bool scrambled = false;     // a CA descriptor speaks of it (its own or its program's)

    bool is_av() const { return kind == StreamKind::video || kind == StreamKind::audio; }
};

/// A program of the PAT. Without a PMT in force it has no streams.
struct Program {
    std::uint16_t number = 0;
    std::uint16_t pmt_pid = null_pid;
    bool pmt_in_force = false;
    std::uint16_t pcr_pid = null_pid;
    std::vector<ElementaryStream> streams;
    std::vector<std::uint16_t> ca_pids; // of both descriptor loops
};

/// The state of PAT, PMTs and CAT at one place of the stream; never changed once it is handed out.
struct Programs {
    bool pat_in_force = false;
    bool cat_in_force = false;
    std::vector<Program> programs; // in the order of their numbers
    std::optional<std::uint16_t> network_pid;
    std::vector<std::uint16_t> cat_pids; // that the CAT names

    /// The first entry of a PMT for that pid, nullptr if no PMT in force names it.
    const ElementaryStream* stream(std::uint16_t pid) const;
    /// Numbers of the programs whose PMT names the pid as a stream or as PCR_PID, or that have it
    /// as program_map_PID; in order.
    std::vector<std::uint16_t> programs_of(std::uint16_t pid) const;
    const Program* program(std::uint16_t number) const;
    bool is_pcr_pid(std::uint16_t pid) const;
    bool is_pmt_pid(std::uint16_t pid) const;
    /// PAT in force and a PMT in force for every program that it names.
    bool complete() const;
};
using ProgramsPtr = std::shared_ptr<const Programs>;

/// What an SDT of this stream says about a service. Texts are UTF-8; not set: no service
/// descriptor.
struct ServiceNames {
    std::optional<std::string> name;
    std::optional<std::string> provider;
};

} // namespace quarn
