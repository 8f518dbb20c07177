"""Runs tools over a capture and brings what they say into one form.

A finding is a dict with rule, kind, pid, begin and end (each with packet) and detail."""
import json
import os
import re
import subprocess
import tempfile

TIMEOUT = 120  # seconds a file


def point(rule, kind, pid, packet, detail=None):
    return {'rule': rule, 'kind': kind, 'pid': pid, 'begin': {'packet': packet}, 'end': {'packet': packet}, 'detail': detail or {}}


def quarn_check(path, capture):
    done = subprocess.run([path, '--json', capture], capture_output=True, text=True, timeout=TIMEOUT, errors='replace')
    findings, verdict, error = [], None, None
    for line in done.stdout.splitlines():
        record = json.loads(line)
        if record['type'] == 'finding':
            findings.append(record)
        elif record['type'] == 'summary':
            verdict = record['verdict']
        elif record['type'] == 'error':
            error = f'{record["kind"]}: {record["text"]}'
    if verdict is None and error is None:
        error = f'no summary, status {done.returncode}: {done.stderr.strip()[-300:]}'
    return findings, verdict, error


def elsewhere(rules, kind, pid, packet=None):
    """What a tool says without all the words: * is any kind or pid, no packet is any place."""
    return point(rules, kind, pid, packet)


QUARN = {'CC-BRK': '1.4', 'CC-RST': '1.4', 'PAT-DIFF': 'q.4|q.5', 'PMT-DIFF': 'q.4|q.5', 'PID-NDAT': '1.6',
         'PCR-FREQ': '2.3.a|2.3.b|q.7', 'PCR-DELTA': 'q.1|q.2|q.3', 'AV-DELTA+': 'q.2|q.3'}


def quarn(path, capture):
    """The lines for scripts; the packet stands in square brackets."""
    options = ['-a', 'on', '-A', 'pcr_freq=100', '-A', 'pcr_delta=1500', '-A', 'pdts_delta=500']
    done = subprocess.run([path, *options, capture], capture_output=True, text=True, timeout=TIMEOUT, errors='replace')
    findings, last = [], {}
    for line in done.stdout.splitlines():
        words = line.split(' ALERT ', 1)[-1].split()
        if ' ALERT ' not in line or words[0] not in QUARN:
            continue
        pids = {'PAT-DIFF': '0', 'PCR-DELTA': words[5], 'AV-DELTA+': words[5]}
        pid = int(pids.get(words[0], words[2]))
        packet = int(re.findall(r'\[(\d+)\]', line)[-1])
        # PCR-DELTA is repeated at every packet until the next time stamp: one statement.
        key = words[0], pid
        if not words[0].endswith(('-DELTA', '-DELTA+')) or key not in last or packet - last[key] > 3000:
            kind = 'never' if words[0] == 'PID-NDAT' else '*'
            findings.append(elsewhere(QUARN[words[0]], kind, '*' if words[0] == 'PMT-DIFF' else pid, packet))
        last[key] = packet
    return findings, None, None


def ffprobe(path, capture):
    """Places are not told: what is said of a pid holds anywhere."""
    done = subprocess.run([path, '-v', 'debug', '-count_packets', '-show_entries', 'stream=id', capture], capture_output=True, text=True,
                          timeout=TIMEOUT, errors='replace')
    findings = []
    for line in done.stderr.splitlines():
        found = re.search(r'Continuity check failed for pid (\d+)', line)
        if found:
            findings.append(elsewhere('1.4', '*', int(found[1])))
        elif 'DTS discontinuity' in line or 'non monotonically increasing dts' in line or 'out of order' in line:
            findings.append(elsewhere('q.2|q.3|2.3.b|q.7', '*', '*'))
        elif 'Packet corrupt' in line:
            findings.append(elsewhere('2.1|1.4|1.1|1.2', '*', '*'))
        elif 'max resync size reached' in line or 'resync' in line:
            findings.append(elsewhere('1.1|1.2', '*', '*'))
    return findings, None, None


def tsreport(path, capture):
    """Counters come with a byte, PCR gaps and CRC errors without; the pid behind -cnt is that of a file of
    counters, breaks are told of all."""
    findings = []
    with tempfile.TemporaryDirectory() as away:
        done = subprocess.run([path, '-b', '-cnt', '256', os.path.abspath(capture)], capture_output=True, text=True, cwd=away,
                              timeout=TIMEOUT, errors='replace')
    for line in (done.stdout + done.stderr).splitlines():
        found = re.search(r'PID\((\d+)\): Continuity Counter (?:discontinuity|duplicate).* at (\d+)', line)
        if found:
            findings.append(elsewhere('1.4', '*', int(found[1]), int(found[2]) // 188 + 1))
        elif 'PCR gap of' in line:
            findings.append(elsewhere('2.3.a|2.3.b|q.7', '*', '*'))
        elif 'Calculated CRC for' in line:
            findings.append(elsewhere('2.2', '*', '*'))
    return findings, None, None


# What each tool can say, by rule; None: all of them.
COVERS = {
    'quarn-check': None,
    'quarn': {'1.4', '1.6', '2.3.a', '2.3.b', 'q.1', 'q.2', 'q.3', 'q.4', 'q.5', 'q.7'},
    'ffprobe': {'1.1', '1.2', '1.4', '2.1', '2.3.b', 'q.2', 'q.3', 'q.7'},
    'tsreport': {'1.4', '2.2', '2.3.a', '2.3.b', 'q.7'},
}
ADAPTERS = {'quarn-check': quarn_check, 'quarn': quarn, 'ffprobe': ffprobe, 'tsreport': tsreport}


def run(name, path, capture):
    """(findings, verdict or None, error or None)"""
    try:
        return ADAPTERS[name](path, capture)
    except subprocess.TimeoutExpired:
        return [], None, f'no end within {TIMEOUT} s'
    except (OSError, ValueError, KeyError, IndexError) as error:
        return [], None, f'{type(error).__name__}: {error}'
