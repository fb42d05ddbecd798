#!/usr/bin/python3
"""Times flashaging-report on a 24-hour log and on a batch of 1000 phones.

    bench/report_bench.py RUN_DIR [--cycles N] [--phones N] [--reps N] [--work DIR]

RUN_DIR is a finished simulated run (e.g. out/run-<date> of scripts/run-phone). The 24-hour
log repeats that run's fill cycles (their lines, interleaving and plain lines as they are,
the times moved) until N cycles (default 480, one every 3 minutes) fill 24 hours; the batch
is N copies of the run folder as different phones (serial numbers, speeds and health growths
varied, a few slow and worn ones). Prints the wall times (median of the repetitions, min and
max). Asserts nothing."""

import datetime
import os
import random
import re
import shutil
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOOL = os.path.join(os.path.dirname(HERE), 'report', 'flashaging-report')
PREFIX = re.compile(r'\[(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})\]')
FMT = '%Y-%m-%d %H:%M:%S.%f'


def shift(line, seconds):
    def move(m):
        t = datetime.datetime.strptime(m.group(1), FMT) + datetime.timedelta(seconds=seconds)
        return '[%s]' % t.strftime(FMT)[:23]
    return PREFIX.sub(move, line)


def day_log(src_log, cycles, period=180.0):
    lines = open(src_log, encoding='utf-8', errors='replace').read().split('\n')
    starts = [i for i, l in enumerate(lines) if 'g_group_size is' in l]
    ends = [i for i, l in enumerate(lines) if re.search(r'fill_cycle \d+/\d+ cost', l)]
    if not starts or len(ends) < len(starts):
        sys.exit('the run in %s has no whole fill cycle' % src_log)
    head, tail = lines[:starts[0]], lines[ends[-1] + 1:]
    blocks = [lines[s:e + 1] for s, e in zip(starts, ends)]
    t0 = datetime.datetime.strptime(PREFIX.search(lines[starts[0]]).group(1), FMT)
    out = [l.replace('config fill_cycle to 5', 'config fill_cycle to %d' % (2 * cycles)) for l in head]
    for k in range(cycles):
        b = blocks[k % len(blocks)]
        bt = datetime.datetime.strptime(PREFIX.search(b[0]).group(1), FMT)
        off = (t0 - bt).total_seconds() + k * period
        for l in b:
            l = re.sub(r'fill_cycle \d+/\d+ cost', 'fill_cycle %d/%d cost' % (2 * k, 2 * cycles), l)
            out.append(shift(l, off))
    out += [shift(l, cycles * period) for l in tail]
    return '\n'.join(out)


def cpu():
    import resource
    u = resource.getrusage(resource.RUSAGE_CHILDREN)
    return u.ru_utime + u.ru_stime


def timed(cmd, reps):
    times = []
    c0 = cpu()
    for _ in range(reps):
        t = time.monotonic()
        r = subprocess.run(cmd, capture_output=True, text=True)
        times.append(time.monotonic() - t)
        if r.returncode != 0:
            sys.exit('failed: %s\n%s' % (' '.join(cmd[:4]), r.stderr))
    global LAST_CPU
    LAST_CPU = (cpu() - c0) / reps
    return statistics.median(times), min(times), max(times), r.stdout


def make_phone(src, dest, serial, rnd, slow=False, worn=False):
    os.makedirs(os.path.join(dest, 'factory'))
    for f in ('flash_aging_result.txt', 'flash_aging_results.csv', 'flash_aging.log'):
        p = os.path.join(src, 'factory', f)
        if os.path.exists(p):
            shutil.copy(p, os.path.join(dest, 'factory', f))
    res = os.path.join(dest, 'factory', 'flash_aging_results.csv')
    text = open(res, encoding='utf-8').read()
    open(res, 'w', encoding='utf-8').write(re.sub(r'Serialno:.*', 'Serialno:' + serial, text))
    log = os.path.join(dest, 'factory', 'flash_aging.log')
    text = open(log, encoding='utf-8').read()
    f = rnd.gauss(1.0, 0.04) * (0.55 if slow else 1.0)
    text = re.sub(r'speed is ([\d.]+)', lambda m: 'speed is %.2f' % (float(m.group(1)) * f), text)
    text = re.sub(r'(MB/s, cost is )([\d.]+)', lambda m: '%s%.2f' % (m.group(1), float(m.group(2)) / f), text)
    if worn:
        text = re.sub(r'delta badBlockRuntime is (\d+)', lambda m: 'delta badBlockRuntime is %d' % (int(m.group(1)) + 8), text)
    open(log, 'w', encoding='utf-8').write(text)


def main():
    args = sys.argv[1:]
    opts = {'--cycles': 480, '--phones': 1000, '--reps': 3, '--work': '/var/tmp/flashaging-report-bench'}
    rest = []
    while args:
        a = args.pop(0)
        if a in opts and args:
            opts[a] = args.pop(0) if a == '--work' else int(args.pop(0))
        else:
            rest.append(a)
    if len(rest) != 1:
        sys.exit(__doc__)
    src = rest[0]
    work = opts['--work']
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)

    day = os.path.join(work, 'day')
    os.makedirs(os.path.join(day, 'factory'))
    for f in ('flash_aging_result.txt', 'flash_aging_results.csv'):
        shutil.copy(os.path.join(src, 'factory', f), os.path.join(day, 'factory', f))
    text = day_log(os.path.join(src, 'factory', 'flash_aging.log'), opts['--cycles'])
    with open(os.path.join(day, 'factory', 'flash_aging.log'), 'w', encoding='utf-8') as fh:
        fh.write(text)
    nlines = text.count('\n') + 1
    med, lo, hi, _ = timed([TOOL, day], opts['--reps'])
    import json
    sm = json.load(open(os.path.join(day, 'summary.json')))
    hours = (sm['end_ts'] - sm['start_ts']) / 3600.0
    print('24-hour log: %d cycles, %d lines, %.1f MiB, %.1f h: report in %.2f s (min %.2f, max %.2f; CPU %.2f s)' % (
        len(sm['cycles']), nlines, len(text) / 1048576.0, hours, med, lo, hi, LAST_CPU))

    rnd = random.Random(5)
    phones = os.path.join(work, 'phones')
    dirs = []
    for i in range(opts['--phones']):
        d = os.path.join(phones, 'P%05d' % i)
        make_phone(src, d, 'SIMB%05d' % i, rnd, slow=(i % 250 == 7), worn=(i % 250 == 11))
        dirs.append(d)
    times = []
    c0 = cpu()
    for _ in range(opts['--reps']):
        out = os.path.join(work, 'batch')
        shutil.rmtree(out, ignore_errors=True)
        t = time.monotonic()
        r = subprocess.run([TOOL, 'batch', '--out', out] + dirs, capture_output=True, text=True)
        times.append(time.monotonic() - t)
        if r.returncode != 0:
            sys.exit(r.stderr)
    print('batch of %d phones: batch.html and the SQLite file in %.1f s (min %.1f, max %.1f; CPU %.1f s); %s' % (
        len(dirs), statistics.median(times), min(times), max(times), (cpu() - c0) / opts['--reps'],
        r.stdout.splitlines()[0].split(' (', 1)[1][:-1]))
    print('machine: %d cores, load average %s' % (os.cpu_count(), ' '.join('%.1f' % x for x in os.getloadavg())))


if __name__ == '__main__':
    main()
