"""A run followed as its log grows: the records of the log's last run, the phase it is in
after each record, and the texts that say so.

The phase is decided after every record from what has been read up to it, so the same log
gives the same phase changes however its lines arrive (one by one, in bursts, all at once).
"""

import re
import time

from . import forecast, logparse, model, summary

R_CAPACITY = re.compile(r'flash capacity is (\d+)')
MODES = model.BENCH_MODES
H8_BLOCKS, H8_PERIOD_S = 100, 3.0


def clock(ts):
    return time.strftime('%H:%M:%S', time.localtime(ts)) if ts is not None else '--:--:--'


def span(lo, hi, fmt):
    if lo is None or hi is None:
        return '?'
    a, b = fmt(lo), fmt(hi)
    return a if a == b else '%s-%s' % (a, b)


def mib_text(mib):
    return '%.2f GiB' % (mib / 1024.0) if mib >= 1024 else '%d MiB' % mib


class LiveRun:
    """Feeds complete log lines; keeps the last run's analysis and its phase."""

    def __init__(self):
        self.reader = logparse.RecordReader()
        self.an = model.Analyser()
        self.past_setup = False
        self.runs = 0               # runs begun in the log so far
        self.phase = None           # key: ('fill', 3), ('setup',), ...
        self.capacity = None        # bytes, from "flash capacity is"
        self.first_failure = None   # the first failure record of the run
        self.offset = None          # host clock minus log clock, the smallest seen
        self._result = None
        self.finished = []          # dicts of the cycles before the running one (final)
        self.pe = None              # P/E count after them

    # ---- reading -----------------------------------------------------------------------

    def feed(self, lines, arrived=None, texts=False):
        """Reads complete lines (without or with their line end); returns the events they
        bring, in order: ('run', record) when a new run begins, ('phase', key, record),
        ('failure', record); with `texts`, each event ends with its plain line, made from
        what was read up to its record."""
        events = []
        for r in self.reader.feed_lines(lines):
            if r.ts is not None and arrived is not None:
                off = arrived - r.ts
                if self.offset is None or off < self.offset:
                    self.offset = off
            starts = logparse._starts_run(r)
            if starts and self.an.count and self.past_setup:
                self.an = model.Analyser()
                self.past_setup = False
                self.capacity = None
                self.first_failure = None
                self.finished, self.pe = [], None
            if not self.an.count:
                self.runs += 1
                events.append(('run', r, '[%s] run %d of the log begins' % (clock(r.ts), self.runs)))
            if r.kind == 'body' and not starts:
                self.past_setup = True
            failures = len(self.an.run['failures'])
            cur = self.an.cur
            self.an.feed(r)
            if cur is not None and self.an.cur is not cur:
                if not self.finished:
                    self.pe = self.an.run['pe_start']
                d = cur.as_dict(self.pe)
                self.pe = d['pe_after'] if d['pe_after'] is not None else self.pe
                self.finished.append(d)
            self._result = None
            if r.kind == 'body':
                m = R_CAPACITY.search(r.msg)
                if m:
                    self.capacity = int(m.group(1))
            if self.first_failure is None and len(self.an.run['failures']) > failures:
                self.first_failure = self.an.run['failures'][0]
                events.append(('failure', r, failure_line(self) if texts else None))
            key = phase_of(self.an)
            if key != self.phase:
                self.phase = key
                events.append(('phase', key, r, phase_line(self, key, r) if texts else None))
        return events

    def result(self):
        """The analysis of what has been read (kept until the next line)."""
        if self._result is None:
            self._result = self.an.result()
        return self._result

    def view(self):
        """What the plain lines need, without the whole analysis: the settings and the
        cycles (those done kept, the running one made afresh)."""
        run = self.an.run
        cycles = list(self.finished)
        if self.an.cur is not None:
            cycles.append(self.an.cur.as_dict(self.pe if self.finished else run['pe_start']))
        return {'cycles': cycles, 'settings': run['settings'], 'pe_start': run['pe_start'],
                'signal': run['signal'], 'wdt_start': run['wdt_start']}

    def ended(self):
        return 'end' in self.an.marks

    def now(self):
        """The log's clock now, from the host's clock and the offset seen so far."""
        return time.time() - self.offset if self.offset is not None else None

    # ---- figures -------------------------------------------------------------------------

    def deadline(self):
        return summary.watchdog_deadline(self.an.run)

    def forecast(self, res=None):
        res = res or self.view()
        return forecast.make(res['cycles'], res['settings'].get('fill_cycles'), self.deadline())

    def growth(self, res=None):
        """P/E growth since the start as the last completed cycle left it."""
        res = res or self.result()
        f = self.forecast(res)
        return f['growth'] if f else None

    def verdict(self, word=None):
        """(verdict word, exit status) of the run read so far; 3 unless it has ended."""
        res = self.result()
        if not self.ended():
            return 'START', 3
        v, _ = summary.verdict_of(res, word)
        return v, {'SUCCESS': 0, 'FAIL': 1, 'SKIP': 4}.get(v, 3)


def phase_of(an):
    """The phase key after the records read so far (see the module's note)."""
    marks = an.marks
    if 'end' in marks:
        return ('end',)
    if 'signal' in marks:
        return ('abnormal',)
    if 'gate' in marks or 'skip' in marks:
        return ('skip',)
    if any(k in marks for k in ('run_ok', 'run_fail', 'list_fail', 'env_fail', 'setup_fail', 'filler_end')):
        return ('summary',)
    cur = an.cur
    h8 = [t for t in an.run['tests'] if t['name'] == 'enter-H8']
    latest = max([cur.start_line if cur else 0] + [t['line'] for t in h8])
    if 'runner' in marks and marks['runner'].no > latest:
        return ('judge',)
    if h8 and h8[-1]['end'] is None and (cur is None or cur.start_line < h8[-1]['line']):
        return ('h8',)
    if cur is None:
        return ('setup',)
    k = cur.index
    if cur.outcome in ('ok', 'watchdog', 'fail'):
        return ({'ok': 'done', 'watchdog': 'wdt', 'fail': 'failed'}[cur.outcome], k)
    if an.health is not None or cur.deltas or cur.bench_skipped or len(cur.bench) >= len(MODES):
        return ('health', k)
    if cur.bench or len(cur.writers) >= 8:
        return ('bench', k)
    if cur.battery_msgs and not cur.writers:
        return ('wait', k)
    return ('fill', k)


# ---- texts -------------------------------------------------------------------------------

def cycle_of(res, k):
    for c in res['cycles']:
        if c['index'] == k:
            return c
    return None


def fill_text(c):
    f = c['fill'] or {}
    if not f:
        return 'no writer reported'
    return 'fill %s by %d writer%s at %.0f MiB/s' % (mib_text(f['mib']), f['writers'], '' if f['writers'] == 1 else 's',
                                                     f['mib_s'] or 0)


def reads_text(c):
    if c['reads_per_s']:
        return '%.0f verified reads/s (%d reader%s)' % (c['reads_per_s'], len(c['readers']),
                                                        '' if len(c['readers']) == 1 else 's')
    return 'verified reads: no reader line (each logs after 1000 reads)'


def bench_text(c):
    if c['bench_skipped']:
        return 'benchmark skipped (less than 512 MiB free)'
    if not c['bench']:
        return 'no benchmark figure'
    return 'benchmark ' + ', '.join('%s %.1f' % (m, c['bench'][m]) for m in MODES if m in c['bench']) + ' MiB/s'


def forecast_text(f):
    if f is None:
        return 'forecast after the first complete cycle'
    if f['end_ts'] is None:
        return 'forecast: no end in sight (the P/E count does not grow)'
    cyc = span(f['end_cycle_lo'], f['end_cycle_hi'], lambda x: '%d' % x)
    when = span(f['end_ts_lo'], f['end_ts_hi'], clock)
    return 'forecast: ends after cycle %s%s at %s%s, by %s' % (
        f['end_cycle'], '' if cyc == '%s' % f['end_cycle'] else ' (%s)' % cyc, clock(f['end_ts']),
        '' if when == clock(f['end_ts']) else ' (%s)' % when, f['by'])


def growth_text(live, res, f):
    fc = res['settings'].get('fill_cycles')
    g = f['growth'] if f else 0
    pe0 = res['pe_start']
    out = 'P/E +%d of %s allowed' % (g, fc if fc is not None else '?')
    if pe0 is not None and fc is not None:
        out += ' (%d -> %d, ends above %d)' % (pe0, pe0 + g, pe0 + fc)
    return out


def phase_line(live, key, r):
    """One plain line for a change of phase, from what was read up to record `r`."""
    res = live.view()
    name = key[0]
    k = key[1] if len(key) > 1 else None
    c = cycle_of(res, k) if k is not None else None
    if name == 'setup':
        text = 'set-up'
    elif name == 'h8':
        text = 'enter-H8: %d blocks of 4 KiB, one every %d s' % (H8_BLOCKS, H8_PERIOD_S)
    elif name == 'wait':
        text = 'cycle %d: battery wait (above 49.0 C)' % k
    elif name == 'fill':
        text = 'cycle %d: fill' % k
        if c and c['mix'] is not None:
            text += ', file mix %d (%s)' % (c['mix'], c['mix_text'])
    elif name == 'bench':
        text = 'cycle %d: benchmark; %s' % (k, fill_text(c))
    elif name == 'health':
        text = 'cycle %d: health judgement; %s; %s' % (k, reads_text(c), bench_text(c))
    elif name == 'done':
        f = live.forecast(res)
        text = 'cycle %d done in %.1f s; %s; %s' % (k, c['seconds'] or 0, growth_text(live, res, f), forecast_text(f))
    elif name == 'wdt':
        text = 'cycle %d ended by the watchdog (a pass)' % k
    elif name == 'failed':
        text = 'cycle %d failed' % k
    elif name == 'judge':
        text = 'health judgement of the test'
    elif name == 'summary':
        text = 'summary'
    elif name == 'abnormal':
        text = 'abnormal end: caught %s' % (res['signal'] or {}).get('name', 'a signal')
    elif name == 'skip':
        text = 'skipped at set-up'
    else:
        text = 'end of the run'
    return '[%s] %s' % (clock(r.ts), text)


def failure_line(live):
    ff = live.first_failure
    return '[%s] FAILURE line %d: %s' % (clock(ff['ts']), ff['line'], ff['text'])


def final_line(live, word=None):
    """The verdict line and the exit status: 0 SUCCESS, 1 FAIL, 4 SKIP, 3 otherwise."""
    res = live.result()
    if not live.an.count:
        return 'no line of the flash aging program arrived', 3
    if not live.ended():
        why = 'the log stopped before the run\'s end (no end line)'
        if res['signal']:
            why = 'abnormal end: the program caught %s; %s' % (res['signal']['name'], why)
        return 'ABNORMAL END: %s; last line %d' % (why, live.an.last.no), 3
    v, code = live.verdict(word)
    pwa = summary.without_aging(res, v, {'cycles_complete': sum(1 for c in res['cycles'] if c['outcome'] == 'ok')})
    text = '%s: %s' % (v, res['end_text'].rstrip(':').rstrip('.') + '.')
    if pwa:
        text = '%s, PASSED WITHOUT AGING: %s.' % (v, pwa['why'])
    return text, code
