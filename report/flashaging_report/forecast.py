"""When will the run end? A forecast after each fill cycle, from the P/E growth the cycles so
far gave and the time they took.

The storage filler counts cycles by the device's P/E growth since its start and stops once
that growth exceeds the fill-cycle setting; the watchdog stops it at its deadline (the
"[WDT]" line's time plus its budget). After cycle k, with growth G_k and the cycles' mean
growth g and mean time d, the growth still needed is R = setting + 1 - G_k, so the wear
ends the run after n = ceil(R / g) more cycles, at end_k + n x d; the watchdog ends it
first when that lies past its deadline. The range takes the smallest and largest growth
and time of the cycles so far (and, since the counter is a whole number, a growth up to
one more than counted), so after one cycle it is narrow and widens or narrows as the
cycles differ.

Cycles are counted in the order they ran (a cycle that did not raise the P/E count is a
cycle too: it took its time).
"""

import math


def _rows(cycles):
    """[{index, end, number, own, seconds}] of the completed cycles: `number` is the growth
    before the cycle as its line logged it, `own` that number plus the cycle's judged P/E
    growth (the growth after it, as known at its end); `seconds` from the end of the cycle
    before (the first: from its own start)."""
    out = []
    prev_end = None
    for c in cycles:
        if c.get('outcome') != 'ok' or c.get('end') is None or c.get('number') is None:
            continue
        d = c['health'].get('eraseXLCCntAvg')
        start = prev_end if prev_end is not None else c.get('start')
        fill = (c['fill_end'] - c['start']) if c.get('fill_end') is not None and c.get('start') is not None else None
        out.append({'index': c['index'], 'end': c['end'], 'number': c['number'],
                    'own': c['number'] + d if d is not None else None,
                    'seconds': c['end'] - start if start is not None else c.get('seconds'), 'fill': fill})
        prev_end = c['end']
    return out


def _ceil(x):
    return int(math.ceil(x - 1e-9))


def make(cycles, limit, deadline=None, upto=None):
    """The forecast made after the last completed cycle (of those with index <= upto), or None.
    limit: the fill-cycle setting; deadline: the watchdog's deadline (ts) or None."""
    rows = _rows(cycles)
    if upto is not None:
        rows = [r for r in rows if r['index'] <= upto]
    if not rows or limit is None or rows[-1]['own'] is None:
        return None
    last = rows[-1]
    k = len(rows)
    # The growth after each cycle as known at the last one's end: the next cycle's logged
    # number (it counts what happened between the judgement and the next cycle too), the
    # last one's from its own judgement.
    after = [rows[i + 1]['number'] if i + 1 < k and rows[i + 1]['index'] == r['index'] + 1 else r['own']
             for i, r in enumerate(rows)]
    G = after[-1]
    steps = [g - p for g, p in zip(after, [0] + after[:-1]) if g is not None and p is not None]
    times = [r['seconds'] for r in rows if r['seconds'] is not None and r['seconds'] > 0]
    at = last['end']
    fc = {'after_cycle': last['index'], 'cycles_done': k, 'at': at, 'growth': G, 'limit': limit,
          'deadline_ts': deadline}
    rate = G / float(k)
    cyc_s = sum(times) / len(times) if times else None
    fc['rate'] = rate
    fc['cycle_s'] = cyc_s
    need = limit + 1 - G
    idx = last['index']
    if need <= 0:
        fc.update(end_cycle=idx, end_cycle_lo=idx, end_cycle_hi=idx, end_ts=at, end_ts_lo=at, end_ts_hi=at,
                  by='wear')
        return fc
    if cyc_s is None:
        return None
    steps = steps or [rate]
    g_lo = min(min(steps), rate)
    g_hi = max(max(steps), (G + 1) / float(k))
    d_lo, d_hi = min(times), max(times)

    def wear(g, d):
        if g <= 0:
            return None, None
        n = _ceil(need / g)
        return idx + n, at + n * d

    c_mid, t_mid = wear(rate, cyc_s)
    c_lo, t_lo = wear(g_hi, d_lo)
    c_hi, t_hi = wear(g_lo, d_hi)

    # The share of a cycle its fill takes: the watchdog stops a fill at once, but a benchmark
    # and a judgement run to their end, and the next cycle's writers then stop at once.
    shares = [r['fill'] / r['seconds'] for r in rows if r['fill'] is not None and r['seconds']]
    share = min(1.0, max(0.0, sum(shares) / len(shares))) if shares else 1.0

    def by_watchdog(d):
        left = max(0.0, deadline - at)
        whole = int(left // d)
        if left - whole * d < share * d:
            return idx + whole + 1, deadline
        return idx + whole + 2, at + (whole + 1) * d

    if deadline is not None:
        cut = {}
        if t_mid is None or t_mid > deadline:
            (c_mid, t_mid), cut['mid'] = by_watchdog(cyc_s), True
        if t_lo is None or t_lo > deadline:
            (c_lo, t_lo), cut['lo'] = by_watchdog(d_lo), True
        if t_hi is None or t_hi > deadline:
            (c_hi, t_hi), cut['hi'] = by_watchdog(d_hi), True
        if 'lo' in cut and 'hi' in cut:
            by = 'watchdog'
        elif 'hi' in cut:
            by = 'watchdog or wear' if 'mid' in cut else 'wear or watchdog'
        else:
            by = 'wear'
        if t_lo > t_hi:
            t_lo, t_hi = t_hi, t_lo
    else:
        by = 'wear' if t_mid is not None else 'nothing in sight'
    if c_lo is not None and c_hi is not None and c_lo > c_hi:
        c_lo, c_hi = c_hi, c_lo
    fc.update(end_cycle=c_mid, end_cycle_lo=c_lo, end_cycle_hi=c_hi, end_ts=t_mid, end_ts_lo=t_lo, end_ts_hi=t_hi,
              by=by)
    return fc


def per_cycle(cycles, limit, deadline, actual_end=None, actual_cycle=None):
    """The forecast made after each completed cycle, each with its error against the actual end
    (seconds, per cent of the time that was still to run, cycles) when the run has ended."""
    out = []
    for c in cycles:
        if c.get('outcome') != 'ok':
            continue
        f = make(cycles, limit, deadline, upto=c['index'])
        if f is None or f['after_cycle'] != c['index']:
            continue
        if actual_end is not None and f['end_ts'] is not None:
            f['actual_end_ts'] = actual_end
            f['actual_end_cycle'] = actual_cycle
            f['error_s'] = f['end_ts'] - actual_end
            left = actual_end - f['at']
            f['error_pct'] = 100.0 * f['error_s'] / left if left >= 1.0 else None   # nothing left to run
            f['error_cycles'] = (f['end_cycle'] - actual_cycle) if (f['end_cycle'] is not None and
                                                                     actual_cycle is not None) else None
            f['in_range'] = (f['end_ts_lo'] is not None and f['end_ts_hi'] is not None and
                             f['end_ts_lo'] - 1 <= actual_end <= f['end_ts_hi'] + 1)
        out.append(f)
    return out
