"""Lawful habits of other multiplexers, put into captures of ffmpeg: what is clean has to stay clean.

Used by make-captures. Packets are bytearrays of 188, changed in place."""
import struct

import tsbuild

PCR_HZ = 27_000_000


def first_section(packets, on_pid):
    for p in packets:
        if tsbuild.pid(p) == on_pid and p[1] & 0x40:
            at = tsbuild.payload_offset(p) + 1
            size = 3 + ((p[at + 1] & 15) << 8 | p[at + 2])
            return bytes(p[at:at + size])
    raise ValueError(f'no section on pid {on_pid}')


def change_pmt(packets, change, on_pid=4096):
    """Every PMT on the pid becomes what change makes of its body between header and CRC."""
    section = first_section(packets, on_pid)
    body = change(section[8:-4])
    new = tsbuild.long_section(2, section[3] << 8 | section[4], section[5] >> 1 & 31, 0, 0, body)
    for p in packets:
        if tsbuild.pid(p) == on_pid and p[1] & 0x40:
            p[4:] = (b'\0' + new).ljust(184, b'\xff')


def pcr_alone(packets, pcr_pid=0x1F0, source=256, period_s=0.03):
    """PCRs on a pid of their own, in packets without payload; at a constant rate."""
    marks = [(i, tsbuild.pcr(p)) for i, p in enumerate(packets) if tsbuild.pid(p) == source and tsbuild.pcr(p) is not None]
    ticks = (marks[-1][1] - marks[0][1]) / (marks[-1][0] - marks[0][0])
    change_pmt(packets, lambda body: struct.pack('>H', 0xE000 | pcr_pid) + body[2:])
    out, due, extra = [], 0.0, 0
    for p in packets:
        if tsbuild.pid(p) == source and tsbuild.pcr(p) is not None:
            if p[3] & 0x10:
                p[5] &= 0xEF
                p[6:12] = b'\xff' * 6
            else:
                p = tsbuild.null_packet()
        if len(out) * ticks >= due: # what comes too early for a null packet pushes the others back
            due = len(out) * ticks + period_s * PCR_HZ
            base, extension = divmod(round(marks[0][1] + (len(out) - marks[0][0]) * ticks), 300)
            out.append(bytearray(bytes([0x47, pcr_pid >> 8, pcr_pid & 255, 0x20, 183, 0x10, base >> 25 & 255,
                                        base >> 17 & 255, base >> 9 & 255, base >> 1 & 255,
                                        (base & 1) << 7 | 0x7E | extension >> 8, extension & 255]).ljust(188, b'\xff')))
            extra += 1
        if extra and tsbuild.pid(p) == tsbuild.NULL_PID:
            extra -= 1
            continue
        out.append(p)
    return out


def shift_stamp(p, at, ticks):
    value = (p[at] >> 1 & 7) << 30 | p[at + 1] << 22 | p[at + 2] >> 1 << 15 | p[at + 3] << 7 | p[at + 4] >> 1
    value = (value + ticks) % (1 << 33)
    p[at:at + 5] = bytes([p[at] & 0xF1 | (value >> 30 & 7) << 1, value >> 22 & 255, (value >> 15 & 127) << 1 | 1,
                          value >> 7 & 255, (value & 127) << 1 | 1])


def frames_over_pes(packets, source=257, frame_ticks=2160, by=100):
    """Audio frames of one size that begin in one PES packet and end in the next."""
    places, data = [], bytearray()
    for p in packets:
        if tsbuild.pid(p) != source or not p[3] & 0x10:
            continue
        at = tsbuild.payload_offset(p)
        if p[1] & 0x40:
            if p[at + 7] & 0x80:
                shift_stamp(p, at + 9, frame_ticks)
            at += 9 + p[at + 8]
        places.append((p, at))
        data += p[at:]
    data = data[by:] + data[-by:]
    for p, at in places:
        p[at:] = data[:188 - at]
        del data[:188 - at]
    return packets


def sparse_streams(packets, text_pid=0x1F1, cue_pid=0x1F2, source=256):
    """Teletext that comes every four seconds and cues (SCTE 35) every five, into null packets."""
    text = struct.pack('>BHH', 6, 0xE000 | text_pid, 0xF007) + bytes([0x56, 5]) + b'eng' + bytes([0x09, 0])
    cue = struct.pack('>BHH', 0x86, 0xE000 | cue_pid, 0xF000)
    change_pmt(packets, lambda body: body + text + cue)
    null_cue = bytes([0xFC, 0x30, 0x11, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0, 0, 0])
    null_cue += struct.pack('>I', tsbuild.crc32(null_cue))
    at, due, counters = tsbuild.times(packets, source), {text_pid: 0.3, cue_pid: 0.4}, {text_pid: 0, cue_pid: 0}
    start = next(tsbuild.pcr(p) for p in packets if tsbuild.pcr(p) is not None) // 300
    for i, p in enumerate(packets):
        for one, period in ((text_pid, 4), (cue_pid, 5)):
            if at[i] >= due[one] and tsbuild.pid(p) == tsbuild.NULL_PID:
                due[one] += period
                new = tsbuild.packets_of(null_cue, cue_pid)[0]
                if one == text_pid:
                    new = bytearray(bytes([0x47, 0x40 | text_pid >> 8, text_pid & 255, 0x10, 0, 0, 1, 0xBD, 0, 178, 0x85, 0x80,
                                           0x24, 0x21, 0, 1, 0, 1]).ljust(4 + 9 + 0x24, b'\xff') + b'\x10')
                    shift_stamp(new, 13, start + round((at[i] + 0.5) * 90000))
                    new = bytearray(bytes(new).ljust(188, b'\xff'))
                new[3] |= counters[one]
                counters[one] = counters[one] + 1 & 15
                packets[i] = p = new
    return packets


# name, the capture it is made of, what is done to it
VARIANTS = [
    ('cbr-pcr-alone', 'cbr-h264-aac', pcr_alone),
    ('cbr-frames-over-pes', 'cbr-mpeg2-mp2', frames_over_pes),
    ('vbr-frames-over-pes', 'vbr-pcr80', frames_over_pes),
    ('cbr-sparse', 'cbr-short-pes', sparse_streams),
]
