// steps.h - packets from words: the one language of transcripts, golden captures and other streams
// that tests keep as data. A line is a step, its words are
//
//   pat [number:]pid[..pid] ...  v= s= l=          programs, numbered from 0 unless said otherwise
//   pmt pid type:pid[..pid][/hex] ...  pcr= v= n= d=hex   streams with descriptors; of the program
//   table pid id ext hex       a section with this body, its header and CRC
//   section pid hex            a section as it stands
//   first pid hex, more pid hex   one packet with exactly this payload, with and without unit start
//   data pid [count], null [count], empty pid, bad pid    packets; bad: with a wrong sync byte
//   pcr pid value, pes pid id pts dts [pcr]        "-": none
//   cc pid counter ..., lose pid [count]           packets with these counters; one behind a loss
//
// Numbers are decimal, stream types hexadecimal; v= s= l= are version, section and last section of
// a table, n= is a program number. Behind a table's step: prefix=bytes of stuffing before it,
// part=only this packet of it, "&" to send it back to back with the next, "damaged" for a wrong
// CRC. In hex text, xx*n, repeats a byte.
#pragma once

#include <string>
#include <vector>

#include "ts_builder.h"

namespace ts {

using words = std::vector<std::string>;
words split_words(const std::string& line);

// Adds the packets of one step. Returns false if there is no step of that name; a word that cannot
// be read throws what the standard library's conversions throw.
bool add_step(stream& s, const words& w);

} // namespace ts
