#!/usr/bin/python3
"""How far the report's forecast of a run's end was from the actual end, on simulated phones
whose wear is steady, changing, or cut short by the watchdog.

Usage (as root, after a build of build/default):
    bench/forecast_bench.py [--reps N] [--jobs N] [--sim PATH] [--out DIR] [--readme]

Each profile runs the default phone (sim/profiles/default) for more cycles than it ships with
(-full_filling_times 9, about five cycles) in the simulator; the report's summary keeps the
forecast made after each cycle and its error against the end. The table gives, per profile
and for the forecasts made after cycles 1, 2 and 3, the median over the repetitions of the
error of the end time (seconds, and per cent of the time that was still to run), of the
last cycle, and how often the actual end lay in the forecast's range. It asserts nothing and
is not part of CI. --readme writes the table into bench/README.md.
"""

import argparse
import datetime
import json
import os
import statistics
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(TOP, 'report'))

from flashaging_report import summary  # noqa: E402

BASE = ['-n 6', '-reserved_space 63500', '-full_filling_times 9']
# name -> (what it shows, argument elements, --set lines, the shipped profile)
PROFILES = {
    'steady': ('steady wear: 0.5 P/E per GiB, ~2.4 P/E a cycle; ends by wear', ['-s 3600'] + BASE, [], 'default'),
    'changing': ('wear that speeds up: the steady phone, -full_filling_times 15, plus P/E jumps of +1, +2, +3, '
                 '+4 at 35, 65, 95 and 125 s (the simulator\'s jump key; TBW jumps with them, 655 per P/E, so the '
                 'write amplification stays 2); ends by wear', ['-s 3600'] + BASE[:-1] + ['-full_filling_times 15'],
                 [j for n, t in ((1, 35), (2, 65), (3, 95), (4, 125))
                  for j in ('jump = eraseXLCCntAvg+%d@%d' % (n, t), 'jump = TBW+%d@%d' % (655 * n, t))], 'default'),
    'fast-wear': ('the fast-wear phone (write amplification 3.5, read reclaim and bad blocks growing, the same '
                  'P/E rate); ends by wear, then fails the whole test\'s judgement (read reclaim +48 over five '
                  'cycles)', ['-s 3600'] + BASE, [], 'fast-wear'),
    'watchdog': ('steady wear, but a 103 s watchdog budget (-s 100) ends the run before the wear does',
                 ['-s 100'] + BASE, [], 'default'),
}
AFTER = (1, 2, 3)


def run_one(sim, out_root, name, rep):
    desc, elements, sets, profile = PROFILES[name]
    out = os.path.join(out_root, '%s-%d' % (name, rep))
    cmd = [sim, 'run', '--profile', os.path.join(TOP, 'sim', 'profiles', profile), '--out', out]
    for s in sets:
        cmd += ['--set', s]
    cmd += ['--'] + elements
    env = dict(os.environ, FLASHAGING_REPORT='none')
    t0 = time.monotonic()
    r = subprocess.run(cmd, capture_output=True, text=True, env=env, timeout=1800)
    if r.returncode != 0:
        raise SystemExit('bench: %s failed:\n%s%s' % (' '.join(cmd), r.stdout, r.stderr))
    sm = summary.build(out)
    print('bench: %s rep %d: %s, %d cycles, %.0f s' % (name, rep, sm['end_reason']['kind'], len(sm['cycles']),
                                                       time.monotonic() - t0), file=sys.stderr, flush=True)
    return {'profile': name, 'rep': rep, 'end_kind': sm['end_reason']['kind'], 'cycles': len(sm['cycles']),
            'forecasts': sm['forecasts']}


def med(v):
    v = [x for x in v if x is not None]
    return statistics.median(v) if v else None


def fmt(v, f):
    return '–' if v is None else f % v


def table(results, reps):
    lines = ['| Profile | ended by (cycles) | forecast after cycle | end time error, s | error, % of the time '
             'still to run | last-cycle error | actual end in the range | forecast ended by |',
             '|---|---|---|---|---|---|---|---|']
    for name in PROFILES:
        runs = [r for r in results if r['profile'] == name]
        if not runs:
            continue
        ended = ', '.join(sorted({'%s (%d)' % (r['end_kind'], r['cycles']) for r in runs}))
        for k in AFTER:
            fs = [f for r in runs for f in r['forecasts'] if f['after_cycle'] == k and f.get('error_s') is not None]
            if not fs:
                continue
            lines.append('| %s | %s | %d | %s | %s | %s | %d of %d | %s |' % (
                name, ended, k, fmt(med([f['error_s'] for f in fs]), '%+.1f'),
                fmt(med([f['error_pct'] for f in fs]), '%+.1f'), fmt(med([f['error_cycles'] for f in fs]), '%+.0f'),
                sum(1 for f in fs if f['in_range']), len(fs), ', '.join(sorted({f['by'] for f in fs}))))
    return lines


def main():
    ap = argparse.ArgumentParser(description=__doc__.split('\n')[0])
    ap.add_argument('--reps', type=int, default=2)
    ap.add_argument('--jobs', type=int, default=2, help='simulated phones at once (they are paced by the flash '
                                                          'model, not the CPU)')
    ap.add_argument('--sim', default=os.path.join(TOP, 'build', 'default', 'sim', 'flashaging-sim'))
    ap.add_argument('--out', default='/var/tmp/flashaging-forecast-bench')
    ap.add_argument('--profiles', default=','.join(PROFILES), help='comma list (none: only score the kept runs '
                                                                     'again, with --merge)')
    ap.add_argument('--readme', action='store_true')
    ap.add_argument('--merge', action='store_true', help='keep the other profiles\' runs of OUT/forecasts.json')
    a = ap.parse_args()
    names = [n for n in a.profiles.split(',') if n in PROFILES]
    jobs = [(n, rep) for rep in range(1, a.reps + 1) for n in names]
    t0 = time.monotonic()
    load0 = os.getloadavg()[0]
    os.makedirs(a.out, exist_ok=True)
    with ThreadPoolExecutor(max_workers=a.jobs) as pool:
        results = list(pool.map(lambda j: run_one(a.sim, a.out, *j), jobs))
    kept = os.path.join(a.out, 'forecasts.json')
    if a.merge and os.path.exists(kept):
        with open(kept) as f:
            old = [r for r in json.load(f) if r['profile'] not in names]
        for r in old:
            # Scored again by the report's current code, from the run's own folder.
            folder = os.path.join(a.out, '%s-%d' % (r['profile'], r['rep']))
            if os.path.isdir(folder):
                r['forecasts'] = summary.build(folder)['forecasts']
        results = old + results
        names = [n for n in PROFILES if any(r['profile'] == n for r in results)]
    with open(kept, 'w') as f:
        json.dump(results, f, indent=1, default=str)
    head = ['Taken %s: %d repetition%s of each profile, %d phones at once, %.0f s in all; load average (1 min) '
            '%.1f at the start, %.1f at the end.' % (datetime.datetime.now().strftime('%Y-%m-%d %H:%M'), a.reps,
                                                     '' if a.reps == 1 else 's', a.jobs, time.monotonic() - t0,
                                                     load0, os.getloadavg()[0]), '']
    head += ['- **%s**: %s' % (n, PROFILES[n][0]) for n in names] + ['']
    text = '\n'.join(head + table(results, a.reps))
    print(text)
    if a.readme:
        path = os.path.join(HERE, 'README.md')
        with open(path, encoding='utf-8') as f:
            readme = f.read()
        b, e = '<!-- forecast begin -->', '<!-- forecast end -->'
        i, j = readme.index(b) + len(b), readme.index(e)
        with open(path, 'w', encoding='utf-8') as f:
            f.write(readme[:i] + '\n' + text + '\n' + readme[j:])


if __name__ == '__main__':
    main()
