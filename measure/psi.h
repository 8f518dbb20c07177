// What PAT, PMT, CAT, SDT and NIT say, and what is different between two versions of them. Nothing
// is read outside a section, whatever its lengths say.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "finding.h"
#include "programs.h"
#include "table_versions.h"
#include "tables.h"

namespace quarn {

namespace table_id {
inline constexpr std::uint8_t pat = 0x00;
inline constexpr std::uint8_t cat = 0x01;
inline constexpr std::uint8_t pmt = 0x02;
inline constexpr std::uint8_t nit_actual = 0x40;
inline constexpr std::uint8_t nit_other = 0x41;
inline constexpr std::uint8_t sdt_actual = 0x42;
inline constexpr std::uint8_t sdt_other = 0x46;
inline constexpr std::uint8_t bat = 0x4A;
inline constexpr std::uint8_t eit_actual = 0x4E;
inline constexpr std::uint8_t eit_other = 0x4F;
inline constexpr std::uint8_t eit_schedule = 0x50;
inline constexpr std::uint8_t eit_schedule_other = 0x60;
inline constexpr std::uint8_t eit_last = 0x6F;
inline constexpr std::uint8_t tdt = 0x70;
inline constexpr std::uint8_t rst = 0x71;
inline constexpr std::uint8_t stuffing = 0x72;
inline constexpr std::uint8_t tot = 0x73;
} // namespace table_id

namespace table_pid {
inline constexpr std::uint16_t pat = 0x00;
inline constexpr std::uint16_t cat = 0x01;
inline constexpr std::uint16_t nit = 0x10;
inline constexpr std::uint16_t sdt = 0x11;
inline constexpr std::uint16_t eit = 0x12;
inline constexpr std::uint16_t rst = 0x13;
inline constexpr std::uint16_t tdt = 0x14;
} // namespace table_pid

/// Programs and streams beyond these are not followed: a stream has 8191 pids, and memory is
/// bounded.
inline constexpr std::size_t programs_max = 1024;
inline constexpr std::size_t streams_max = 1024; // of a program

struct Pat {
    std::map<std::uint16_t, std::uint16_t> pmt_pids; // by program number
    std::optional<std::uint16_t> network_pid;
};
Pat read_pat(const Sections& sections);
Program read_pmt(std::uint16_t number, std::uint16_t pmt_pid, const Sections& sections);
/// The pids of its CA descriptors.
std::vector<std::uint16_t> read_cat(const Sections& sections);
std::map<std::uint16_t, ServiceNames> read_sdt(const Sections& sections);

/// Both versions are whole; at most changes_max are told.
inline constexpr std::size_t changes_max = 64;
std::vector<TableChange> pat_changes(const Sections& before, const Sections& after);
std::vector<TableChange> pmt_changes(const Sections& before, const Sections& after);
std::vector<TableChange> sdt_changes(const Sections& before, const Sections& after);
std::vector<TableChange> nit_changes(const Sections& before, const Sections& after);

/// Whether both say the same, version numbers aside.
bool same_content(const Sections& a, const Sections& b);

} // namespace quarn
