"""Holds what a tool says of a damaged capture against the truth.

A finding is a dict as tools.py makes it; a pattern is an entry of `must` or `may` of quarn-inject(1)."""
WARNINGS = ('2.4', '3.', 'q.4', 'q.5', 'q.6', 'q.7', 'q.8', 'q.10', 'q.12', 'q.13')


def within(value, span, tolerance=0):
    return span[0] - tolerance <= value <= span[1] + tolerance


def right_words(pattern, finding):
    """Rule, kind and pid, as far as the tool tells them."""
    return (pattern['rule'] in finding['rule'].split('|')
            and (not pattern['kinds'] or finding['kind'] in ('*', *pattern['kinds']))
            and (not pattern['pids'] or finding['pid'] in ('*', *pattern['pids'])))


def matches(pattern, finding, tolerance):
    place, span = finding['begin']['packet'], pattern['begin']
    if 'schema' not in finding and pattern['end']: # of a stretch others tell the end, or some place in it
        span = span[0], pattern['end'][1]
    if right_words(pattern, finding) and (place is None or within(place, span, tolerance)):
        return True
    return any(matches(other, finding, tolerance) for other in pattern.get('or', []))


def allows(pattern, finding, tolerance):
    first, last = finding['begin']['packet'], finding['end']['packet']
    if first is None:
        return right_words(pattern, finding)
    end = pattern['end'] if 'schema' not in finding and pattern['end'] else pattern['begin']
    return (right_words(pattern, finding) and first <= end[1] + tolerance
            and last >= pattern['begin'][0] - tolerance)


def wrong_details(pattern, finding):
    """What a finding of quarn-check that was expected says wrongly beside its place."""
    if not right_words(pattern, finding) or 'schema' not in finding:
        return []
    out = []
    for key in ('begin', 'end'):
        if pattern[key] and not within(finding[key]['packet'], pattern[key]):
            out.append(f'{key} {finding[key]["packet"]} not in {pattern[key]}')
    for key, test in pattern['detail'].items():
        value = finding['count'] if key == 'count' else finding['detail'].get(key)
        if 'in' in test:
            good = value in test['in']
        elif 'near' in test:
            good = isinstance(value, (int, float)) and abs(value - test['near']) <= test['within']
        else:
            good = any(all(change.get(k) == v for k, v in test['has'].items()) for change in value or [])
        if not good:
            out.append(f'{key} {value} instead of {test}')
    return out


def judge(truth, findings, tolerance):
    """(hits, misses, false alarms, details) of one capture; a false alarm belongs to the nearest fault."""
    left = list(findings)
    hits, misses, details = [], [], []
    for record in truth:
        for pattern in record['must']:
            found = [f for f in left if matches(pattern, f, tolerance)]
            if not found:
                misses.append((record, pattern))
                continue
            best = min(found, key=lambda f: (len(wrong_details(pattern, f)), abs((f['begin']['packet'] or 0) - pattern['begin'][0])))
            left.remove(best)
            hits.append(record)
            details += [(record, best, text) for text in wrong_details(pattern, best)]
    # Tools without records of their own may say the same thing more than once.
    left = [f for f in left if 'schema' in f or not any(allows(p, f, tolerance) for r in truth for p in r['must'])]
    # That a sparse stream (subtitles, cues) is quiet may be told as an information anywhere.
    left = [f for f in left if not (f['rule'] == '1.6' and f.get('severity') == 'info')]
    left = [f for f in left if not any(allows(p, f, tolerance) for r in truth for p in r['may'])]
    false = [(min(truth, key=lambda r: abs(r['packet'] - (f['begin']['packet'] or 0))), f) for f in left]
    return hits, misses, false, details


def why_missed(pattern, findings, covered):
    """Of a miss: the tool says nothing of that rule anywhere, it does so elsewhere, or it can and did not."""
    rules = {p['rule'] for p in [pattern, *pattern.get('or', [])]}
    if covered is not None and not rules & covered:
        return 'not looked at'
    said = {rule for f in findings for rule in f['rule'].split('|')}
    return 'said elsewhere' if rules & said else 'not said'


def expected_verdict(truth):
    if any(not p['rule'].startswith(WARNINGS) and not p.get('or') and p['kinds'] != ['frames_missing']
           for r in truth for p in r['must']):
        return ('failed',)
    return ('healthy', 'insufficient') if not any(r['must'] or r['may'] for r in truth) else None
