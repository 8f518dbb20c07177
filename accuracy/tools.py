"""Runs tools over a capture and brings what they say into one form.

A finding is a dict with rule, kind, pid, begin and end (each with packet) and detail."""
import json
import subprocess

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


ADAPTERS = {'quarn-check': quarn_check}


def run(name, path, capture):
    """(findings, verdict or None, error or None)"""
    try:
        return ADAPTERS[name](path, capture)
    except subprocess.TimeoutExpired:
        return [], None, f'no end within {TIMEOUT} s'
    except (OSError, ValueError, KeyError) as error:
        return [], None, f'{type(error).__name__}: {error}'
