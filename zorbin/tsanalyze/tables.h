// tables.h - from packets of a table's pid to programs and streams: sections, PAT, PMT, their
// texts, and where the pids belong.
#pragma once

#include "context.h"

// tables.cpp: a packet of the PAT's pid or of a PMT's.
void table_packet(tsan_ctx* tc, unsigned pid, ts_packet pkt);

// section.cpp: hands the sections that a packet completes to `handle`; and the memory of those that
// changed nothing.
using section_handler = void (*)(tsan_ctx* tc, const section_view& section);
void collect_sections(tsan_ctx* tc, section_collector* c, table_kind table, ts_packet pkt,
                      section_handler handle);
[[nodiscard]] bool is_seen(const seen_section* seen, const section_view& section);
void note_seen(seen_section* seen, const section_view& section, std::size_t count);

// pat.cpp: the first PAT, every later one, texts of the sections of one, the release of all.
void process_PAT(tsan_ctx* tc, const section_view& section);
void another_PAT(tsan_ctx* tc, const section_view& section);
void dump_pat(tsan_ctx* tc, const char* msg, std::uint8_t** psec);
void free_pats(tsan_ctx* tc);

// descs.cpp: a copy of a PMT section for bitstream's readers and printers: they stay inside it, and
// descriptors that they would never get through have another tag. It lies in the context and holds
// until the next call.
[[nodiscard]] std::uint8_t* printable_pmt(tsan_ctx* tc, const section_view& section);

// pmt.cpp: a PMT while the current program has no streams, one while it has; a static text.
void first_PMT(tsan_ctx* tc, const section_view& section, unsigned pid);
void compare_PMT(tsan_ctx* tc, const section_view& section, unsigned pid);
const char* stream_type_text(std::uint8_t scode);

// render.cpp: the text of a PMT, a copy that printable_pmt made, appended to `txt`. Allocates
// nothing.
void render_pmt(std::uint8_t* pld, ctxt_spec* txt);

// pids.cpp: makes the look-up table anew, after a change of the programs or streams.
void map_pids(tsan_ctx* tc);
