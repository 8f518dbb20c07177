"""Transport stream packets, tables and service information for clean captures.

Used by make-captures. A packet is a bytearray of 188; times are 27 MHz ticks."""
import struct

NULL_PID = 0x1FFF
PCR_WRAP = (1 << 33) * 300


def load(path):
    with open(path, 'rb') as file:
        data = file.read()
    return [bytearray(data[i:i + 188]) for i in range(0, len(data) - 187, 188)]


def save(path, packets):
    with open(path, 'wb') as file:
        file.write(b''.join(packets))


def pid(p):
    return (p[1] & 0x1F) << 8 | p[2]


def set_pid(p, value):
    p[1] = p[1] & 0xE0 | value >> 8
    p[2] = value & 0xFF


def payload_offset(p):
    control = p[3] >> 4 & 3
    if control == 1:
        return 4
    return min(188, 5 + p[4]) if control == 3 else 188


def pcr(p):
    if not p[3] & 0x20 or p[4] < 7 or not p[5] & 0x10:
        return None
    base = p[6] << 25 | p[7] << 17 | p[8] << 9 | p[9] << 1 | p[10] >> 7
    return base * 300 + ((p[10] & 1) << 8 | p[11])


def null_packet():
    return bytearray(bytes([0x47, 0x1F, 0xFF, 0x10]) + b'\xff' * 184)


def crc32(data):
    value = 0xFFFFFFFF
    for byte in data:
        value ^= byte << 24
        for _ in range(8):
            value = (value << 1 ^ 0x04C11DB7 if value & 0x80000000 else value << 1) & 0xFFFFFFFF
    return value


def long_section(table_id, extension, version, number, last, body):
    head = struct.pack('>BHHBBB', table_id, 0xF000 | len(body) + 9, extension,
                       0xC1 | version << 1, number, last)
    return head + body + struct.pack('>I', crc32(head + body))


def packets_of(sections, on_pid):
    """Packets of one section or of several behind each other, which then begin inside of packets; the
    counters are set when they are placed."""
    sections = [sections] if isinstance(sections, bytes) else list(sections)
    starts, data = [], b''
    for section in sections:
        starts.append(len(data))
        data += section
    out, at = [], 0
    while at < len(data):
        # A packet in which a section begins has one byte less: the pointer to it.
        begin = next((s for s in starts if at <= s < at + 183), None)
        head = b'' if begin is None else bytes([begin - at])
        part = data[at:at + 184 - len(head)]
        at += len(part)
        out.append(bytearray((bytes([0x47, (0x40 if head else 0) | on_pid >> 8, on_pid & 0xFF, 0x10]) + head + part)
                             .ljust(188, b'\xff')))
    return out


def bcd(value):
    return value // 10 << 4 | value % 10


def utc(seconds):
    """Modified Julian date and time of day of a fixed Monday, `seconds` after noon."""
    seconds += 12 * 3600
    return struct.pack('>HBBB', 60676 + seconds // 86400, bcd(seconds // 3600 % 24),
                       bcd(seconds // 60 % 60), bcd(seconds % 60))


def descriptor(tag, body):
    return bytes([tag, len(body)]) + body


def nit(network_id, services, other=False):
    names = descriptor(0x40, b'Harbour')
    listed = descriptor(0x41, b''.join(struct.pack('>HB', n, 1) for n in services))
    cable = descriptor(0x44, bytes.fromhex('0312000000ff0205006900000f'[:22]))
    loop = struct.pack('>HHH', 1, 0xFF01, 0xF000 | len(listed + cable)) + listed + cable
    body = struct.pack('>H', 0xF000 | len(names)) + names + struct.pack('>H', 0xF000 | len(loop)) + loop
    return long_section(0x41 if other else 0x40, network_id, 3, 0, 0, body)


def sdt(services, other=False, transport_stream=1):
    body = struct.pack('>HB', 0xFF01, 0xFF)
    for number, name in services:
        text = name.encode()
        service = descriptor(0x48, bytes([1, 4]) + b'Pier' + bytes([len(text)]) + text)
        body += struct.pack('>HBH', number, 0xFD | (not other) << 1, 0x8000 | len(service)) + service
    return long_section(0x46 if other else 0x42, transport_stream, 5, 0, 0, body)


def eit(service, number, other=False, transport_stream=1, long_text=0):
    """Section 0 (the event that runs) or 1 (the next) of a service."""
    title = ('Now' if number == 0 else 'Next') + f' on {service}'
    short = descriptor(0x4D, b'eng' + bytes([len(title)]) + title.encode() + b'\0')
    for part in range(long_text):
        words = ('Ships come and go. ' * 12)[:200].encode()
        short += descriptor(0x4E, bytes([part << 4 | long_text - 1]) + b'eng\0' + bytes([len(words)]) + words)
    start = utc(0 if number == 0 else 3600)
    event = struct.pack('>H', 100 + number) + start + bytes([1, 0, 0]) + struct.pack(
        '>H', (4 if number == 0 else 1) << 13 | len(short)) + short
    body = struct.pack('>HHBB', transport_stream, 0xFF01, 1, 0x4F if other else 0x4E) + event
    return long_section(0x4F if other else 0x4E, service, 7, number, 1, body)


def tdt(seconds):
    return struct.pack('>BH', 0x70, 0x7005) + utc(seconds)


def tot(seconds):
    offset = descriptor(0x58, b'GBR' + bytes([0x02]) + bytes([0, 0]) + utc(86400 * 60) + bytes([1, 0]))
    head = struct.pack('>BH', 0x73, 0x7000 | 5 + 2 + len(offset) + 4) + utc(seconds) + struct.pack(
        '>H', 0xF000 | len(offset)) + offset
    return head + struct.pack('>I', crc32(head))


class Plan:
    """Sections that come again every so many seconds, from a first time on."""

    def __init__(self):
        self.items = []

    def add(self, on_pid, period_s, first_s, make):
        """make(seconds) returns the section or the sections that are due."""
        self.items.append((on_pid, period_s, first_s, make))

    def due(self, duration_s):
        """[(seconds, packets)] in order of time."""
        out = []
        for on_pid, period, first, make in self.items:
            at = first
            while at < duration_s:
                out.append((at, packets_of(make(int(at)), on_pid)))
                at += period
        return sorted(out, key=lambda entry: entry[0])


def full_si(services, long_text=0):
    """NIT, SDT, EIT present and following, TDT and TOT of services [(number, name)], none closer
    than 25 ms to its like."""
    plan = Plan()
    numbers = [n for n, _ in services]
    plan.add(0x10, 2.0, 0.21, lambda _: nit(40, numbers))
    plan.add(0x10, 7.0, 0.93, lambda _: nit(41, [900], other=True))
    plan.add(0x11, 1.0, 0.33, lambda _: sdt(services))
    plan.add(0x11, 5.0, 0.77, lambda _: sdt([(900, 'Elsewhere')], other=True, transport_stream=2))
    for i, (number, _) in enumerate(services):
        for part in (0, 1):
            plan.add(0x12, 1.3, 0.11 + 0.4 * i + 0.2 * part,
                     lambda _, n=number, s=part: eit(n, s, long_text=long_text))
            plan.add(0x12, 6.0, 1.03 + 0.4 * i + 0.2 * part,
                     lambda _, s=part: eit(900, s, other=True, transport_stream=2))
    plan.add(0x14, 10.0, 0.51, tdt)
    plan.add(0x14, 10.0, 5.61, tot)
    return plan


def packed_si(services):
    """The same with sections that share packets, those of different services behind each other."""
    plan = Plan()
    numbers = [n for n, _ in services]
    elsewhere = sdt([(900, 'Elsewhere')], other=True, transport_stream=2)
    plan.add(0x10, 3.0, 0.21, lambda _: [nit(40, numbers), nit(41, [900], other=True)])
    plan.add(0x11, 1.0, 0.33, lambda _: [sdt(services), elsewhere])
    for part in (0, 1):
        plan.add(0x12, 1.2, 0.11 + 0.6 * part,
                 lambda _, s=part: [eit(n, s, long_text=1) for n in numbers] + [eit(900, s, other=True, transport_stream=2)])
    plan.add(0x14, 10.0, 0.51, tdt)
    plan.add(0x14, 10.0, 5.61, tot)
    return plan


def times(packets, clock_pid):
    """Seconds of each packet from the first on, by the PCRs of a pid."""
    known = [(i, pcr(p)) for i, p in enumerate(packets) if pid(p) == clock_pid and pcr(p) is not None]
    out = [0.0] * len(packets)
    rate = (known[-1][1] - known[0][1]) / (known[-1][0] - known[0][0])
    ends = [(0, known[0][1] - known[0][0] * rate)] + known
    ends.append((len(packets), known[-1][1] + (len(packets) - known[-1][0]) * rate))
    origin = ends[0][1]
    for (i, a), (j, b) in zip(ends, ends[1:]):
        for k in range(i, j):
            out[k] = (a + (b - a) * (k - i) / (j - i) - origin) / 27e6
    return out


def insert(packets, plan, clock_pid, into_nulls):
    """Puts planned sections into the stream: into null packets at a constant rate, else between
    packets. What the stream had on the pids of the plan goes."""
    own = {entry[0] for entry in plan.items}
    at = times(packets, clock_pid)
    if into_nulls:
        packets = [null_packet() if pid(p) in own else p for p in packets]
    waiting, out, queue, counters, ended = plan.due(at[-1]), [], [], {}, {}
    for p, now in zip(packets, at):
        while waiting and waiting[0][0] <= now:
            queue += waiting.pop(0)[1]
        if pid(p) in own:
            continue
        # Sections that waited for null packets must not come closer to each other than 25 ms.
        if queue and (not into_nulls or pid(p) == NULL_PID) and (
                not queue[0][1] & 0x40 or now - ended.get(pid(queue[0]), -1) > 0.03):
            section = queue.pop(0)
            ended[pid(section)] = now
            counter = counters[pid(section)] = (counters.get(pid(section), -1) + 1) & 15
            section[3] |= counter
            out.append(section)
            if into_nulls:
                continue
        out.append(p)
    return out
