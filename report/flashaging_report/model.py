"""Turns one run's log records into the figures of the report: set-up, tests, fill cycles,
benchmark speeds, health growths, battery waits and why the run ended."""

import copy
import re

from . import lines

R_WRITER = re.compile(r'runs (-?\d+), ret (-?\d+), fill (\d+)MB,\s+speed is (\S+) MB/s, cost is (\S+)s')
R_READER = re.compile(r'read_times is (-?\d+), average 1000 times cost (\S+)s')
R_GROUP = re.compile(r'g_group_size is (-?\d+)')
R_CYCLE_COST = re.compile(r'fill_cycle (-?\d+)/(-?\d+) cost (\S+)s')
R_BATTERY = re.compile(r'BATTERY_TEMP higher than (-?\d+), sleep (-?\d+)s')
R_BENCH_SIZE = re.compile(r'size is 0x([0-9a-fA-F]+), file num is (\d+), time cost (\S+)')
R_BENCH_SPEED = re.compile(r'(seq write|seq read|rand write|rand read|ERROR): ==== speed is (\S+)MB/s ====')
R_DELTA = re.compile(r'delta (readReclaim|badBlockRuntime|TBW|eraseCacheCntAvg|eraseXLCCntAvg) is (-?\d+)$')
R_WAF = re.compile(r'WAF is (\S+)$')
R_WDT_CONF = re.compile(r'\[WDT\] test_time:(-?\d+), spike_time:(-?\d+), test_smp:(-?\d+), testtime:(-?\d+)')
R_SIG = re.compile(r'SIG (-?\d+) catched')
R_COST = re.compile(r'flash aging cost time :(\S+)\(S\)')
R_PE = re.compile(r'PE cycle is (\d+)')
R_FILL_CYCLES = re.compile(r'config fill_cycle to (-?\d+)')
R_LEFT = re.compile(r'config left space to (-?\d+)MB')
R_TOTAL = re.compile(r'storage_filler total cost (\S+)s')
R_TEST_NUM = re.compile(r'test_num = (-?\d+), result = (\d+)')

BENCH_MODES = ('seq write', 'seq read', 'rand write', 'rand read')
HEALTH_KEYS = ('readReclaim', 'badBlockRuntime', 'TBW', 'eraseCacheCntAvg', 'eraseXLCCntAvg')

# The three file mixes by the bytes one pass writes.
MIXES = {
    149696512: (0, '190 files a pass, 4 KiB to 32 MiB, mostly small'),
    242159616: (1, '44 files a pass, 4 KiB to 32 MiB, mostly large'),
    268435456: (2, '8 files of 32 MiB a pass'),
}

SIGNALS = {1: 'SIGHUP', 2: 'SIGINT', 4: 'SIGILL', 5: 'SIGTRAP', 6: 'SIGABRT', 7: 'SIGBUS', 8: 'SIGFPE',
           10: 'SIGUSR1', 11: 'SIGSEGV', 14: 'SIGALRM', 15: 'SIGTERM'}

def _f(s):
    try:
        return float(s)
    except (TypeError, ValueError):
        return None


def _i(s):
    try:
        return int(s)
    except (TypeError, ValueError):
        return None


def quote(r):
    """The line as it stands in the log (the body with its own prefix, when it had one)."""
    return r.raw if r.raw else r.msg


class Cycle:
    def __init__(self, index, rec):
        self.index = index                  # 1-based order in the run
        self.number = None                  # the program's cycle number (P/E growth)
        self.start = rec.ts
        self.start_line = rec.no
        self.group_size = None
        self.mix = None
        self.writers = []                   # dicts: runs, ret, mib, mib_s, cost, ts
        self.readers = []                   # dicts: reads, cost_1000, ts
        self.battery_msgs = []              # (seconds slept, line)
        self.bench = {}                     # mode -> MiB/s
        self.bench_detail = {}              # mode -> (bytes, transfers, seconds)
        self.bench_skipped = None
        self.deltas = {}
        self.waf = None
        self.cost = None
        self.end = None
        self.outcome = None                 # 'ok', 'fail', 'watchdog', 'incomplete'
        self.errors = []
        self.benign = []                    # retried or benign lines (see lines.py)

    def fill_figures(self):
        w = self.writers
        if not w:
            return {}
        mib = sum(x['mib'] for x in w)
        cost = max((x['cost'] for x in w if x['cost'] is not None), default=None)
        speeds = [x['mib_s'] for x in w if x['mib_s'] is not None]
        out = {'writers': len(w), 'mib': mib, 'seconds': cost,
               'mib_s': (mib / cost) if cost else None,
               'writer_mib_s_min': min(speeds) if speeds else None,
               'writer_mib_s_max': max(speeds) if speeds else None,
               'writer_mib_s_median': _median(speeds)}
        return out

    def reads_per_s(self):
        rates = [1000.0 / r['cost_1000'] for r in self.readers if r['cost_1000']]
        return sum(rates) if rates else None

    def battery_wait(self):
        """Seconds between the cycle's start and its writers' start (the battery hold), from
        the writers' own durations; None when the fill did not report."""
        if self.start is None or not self.writers:
            return None
        starts = [x['ts'] - x['cost'] for x in self.writers if x['ts'] is not None and x['cost'] is not None]
        if not starts:
            return None
        return max(0.0, min(starts) - self.start)

    def fill_end(self):
        ts = [x['ts'] for x in self.writers + self.readers if x['ts'] is not None]
        return max(ts) if ts else None

    def as_dict(self, pe_before):
        fill = self.fill_figures()
        pe_after = None
        if pe_before is not None and 'eraseXLCCntAvg' in self.deltas:
            pe_after = pe_before + self.deltas['eraseXLCCntAvg']
        wait = self.battery_wait()
        return {
            'index': self.index, 'number': self.number, 'start': self.start, 'end': self.end,
            'seconds': self.cost, 'outcome': self.outcome,
            'mix': self.mix[0] if self.mix else None,
            'mix_text': self.mix[1] if self.mix else None,
            'pass_bytes': self.group_size,
            'battery_wait_s': wait,
            'battery_lines': [m for _, m in self.battery_msgs],
            'fill': fill,
            'fill_end': self.fill_end(),
            'writers': self.writers, 'readers': [
                dict(r, reads_per_s=(1000.0 / r['cost_1000'] if r['cost_1000'] else None)) for r in self.readers],
            'reads_per_s': self.reads_per_s(),
            'bench': self.bench, 'bench_skipped': self.bench_skipped,
            'bench_mib': (sum(self.bench_detail[m][0] for m in ('seq write', 'rand write') if m in self.bench_detail)
                          / 1048576.0 + 512.0 * len(self.bench_detail)) if self.bench_detail else 0.0,
            'health': self.deltas, 'waf': self.waf, 'pe_after': pe_after,
            'errors': self.errors, 'benign': self.benign,
        }


def _median(v):
    v = sorted(x for x in v if x is not None)
    if not v:
        return None
    n = len(v)
    return v[n // 2] if n % 2 else (v[n // 2 - 1] + v[n // 2]) / 2.0


class Analyser:
    """Reads one run's records one at a time (a followed log grows line by line); `result`
    gives the figures of what it has read so far."""

    def __init__(self):
        self.run = {
            'settings': {}, 'pe_start': None,
            'events': [], 'tests': [], 'gaps': [], 'failures': [], 'benign': [],
            'health_checks': [],
            'signal': None, 'watchdog_fired': None, 'cost_s': None,
            'outcome_line': None, 'left_out': [], 'wdt_start': None,
        }
        self.cycles = []
        self.cur = None
        self.health = None          # the health block being read: dict with deltas
        self.health_owner = None    # 'cycle', 'runner', 'filler'
        self.runner_case = None
        self.last_bench_size = None
        self.marks = {}             # name -> record
        self.ctx = lines.Context()
        self.first = self.last = None
        self.last_cycle_line = None   # the last "fill_cycle %d/%d cost" record
        self.ts_min = self.ts_max = None
        self.count = 0

    def ev(self, kind, r, text):
        self.run['events'].append({'kind': kind, 'ts': r.ts, 'line': r.no, 'text': text})

    def note_line(self, r):
        """Files an error-looking line as a failure or apart (retried, benign); its class."""
        c = lines.classify(r, self.ctx)
        if c is None:
            return None
        cls, why = c
        item = {'line': r.no, 'text': quote(r), 'ts': r.ts, 'cls': cls, 'why': why}
        if cls == lines.FAILURE:
            self.run['failures'].append(item)
            if self.cur is not None:
                self.cur.errors.append(quote(r))
        else:
            self.run['benign'].append(item)
            if self.cur is not None:
                self.cur.benign.append(quote(r))
        return cls

    def close_health(self):
        h = self.health
        if h is None:
            return
        if self.health_owner == 'cycle' and self.cur is not None:
            self.cur.deltas.update(h['deltas'])
            self.cur.waf = h.get('waf')
        else:
            self.run['health_checks'].append(dict(h, owner=self.health_owner, case=self.runner_case))
        self.health = None

    def feed(self, r):
        if self.first is None:
            self.first = r
        self.last = r
        self.count += 1
        if r.ts is not None:
            if self.ts_min is None or r.ts < self.ts_min:
                self.ts_min = r.ts
            if self.ts_max is None or r.ts > self.ts_max:
                self.ts_max = r.ts
        if r.kind == 'garbled':
            self.run['gaps'].append({'line': r.no, 'text': r.msg[:200], 'ts': r.ts})
            return
        m = r.msg
        if r.kind == 'plain':
            d = R_DELTA.match(m)
            if d:
                if self.health is None:
                    self.health = {'deltas': {}, 'waf': None, 'line': r.no, 'ts': r.ts}
                    if self.cur is not None and self.cur.end is None and (self.cur.bench or self.cur.bench_skipped or self.cur.writers):
                        self.health_owner = 'cycle'
                    elif self.runner_case is not None:
                        self.health_owner = 'runner'
                    else:
                        self.health_owner = 'filler'
                self.health['deltas'][d.group(1)] = int(d.group(2))
                return
            w = R_WAF.match(m)
            if w:
                if self.health is None:
                    self.health = {'deltas': {}, 'waf': None, 'line': r.no, 'ts': r.ts}
                    self.health_owner = 'cycle' if self.cur is not None and self.cur.end is None else 'filler'
                self.health['waf'] = _f(w.group(1))
                self.close_health()
                return
            b = R_BENCH_SIZE.match(m)
            if b:
                self.last_bench_size = (int(b.group(1), 16), int(b.group(2)), _f(b.group(3)))
                return
            b = R_BENCH_SPEED.match(m)
            if b:
                if self.cur is not None:
                    self.cur.bench[b.group(1)] = _f(b.group(2))
                    if self.last_bench_size:
                        self.cur.bench_detail[b.group(1)] = self.last_bench_size
                self.last_bench_size = None
                return
            if m.startswith('left space is less than'):
                if self.cur is not None:
                    self.cur.bench_skipped = m
                return
            self.note_line(r)
            return

        # [FLASH] bodies
        f = r.func
        if self.health is not None and not (f == 'get_total_capacity'):
            self.close_health()
        if f in ('initialize_args', 'get_args_from_config_xml'):
            x = R_FILL_CYCLES.search(m)
            if x:
                self.run['settings']['fill_cycles'] = int(x.group(1))
            x = R_LEFT.search(m)
            if x:
                self.run['settings']['reserve_mib'] = int(x.group(1))
            if 'aging version is 2.0' in m:
                self.run['settings']['aging_version'] = '2.0'
            self.marks.setdefault('setup', r)
            return
        x = R_PE.search(m) if f == 'pe_cycle_check' else None
        if x:
            self.run['pe_start'] = int(x.group(1))
            return
        if f == 'initialize_flashtest_env':
            if m.startswith('Init Success!'):
                self.marks['setup_ok'] = r
            elif m.startswith('PE > 30'):
                self.marks['gate'] = r
                self.run['gate'] = 'wear'
            elif m.startswith('Userdata partition is not mounted'):
                self.marks['gate'] = r
                self.run['gate'] = 'free space'
            elif r.level in ('FATAL', 'ERROR'):
                self.marks.setdefault('setup_fail', r)
            return
        if f in ('init_result', 'init_log_file') and r.level == 'FATAL':
            self.marks.setdefault('setup_fail', r)
            return
        if f == 'main':
            if m.startswith('Start Flash Aging Test!'):
                self.marks['tests_start'] = r
                self.ev('tests', r, 'tests start')
            elif m.startswith('skip flashtest!'):
                self.marks['skip'] = r
            elif m.startswith('Init flashtest env fail'):
                self.marks['env_fail'] = r
            elif m.startswith('Init flashtest testlist fail'):
                self.marks['list_fail'] = r
            elif m.startswith('Run flashtest testlist fail'):
                self.marks['run_fail'] = r
            elif m.startswith('Run flashtest success'):
                self.marks['run_ok'] = r
            return
        if f == 'initialize_flash_tests':
            x = R_TEST_NUM.search(m)
            if x:
                self.run['settings']['test_num'] = int(x.group(1))
                self.run['left_out'].append(int(x.group(2)))     # 5 enter-H8, 6 the storage filler
            return
        if f == 'flash_wdt_thread_start':
            x = R_WDT_CONF.search(m)
            if x:
                self.run['settings'].update(test_time=int(x.group(1)), spike=int(x.group(2)),
                                       num_samples=int(x.group(3)), budget_s=int(x.group(4)))
                self.run['wdt_start'] = r.ts
            return
        if f == 'flash_wdt_thread' and 'say test over' in m:
            self.marks['wdt'] = r
            self.run['watchdog_fired'] = r.ts
            self.ev('watchdog', r, 'watchdog: test time over')
            return
        if f == 'flash_sigroutine':
            x = R_SIG.search(m)
            if x and 'signal' not in self.marks:
                self.marks['signal'] = r
                n = int(x.group(1))
                self.run['signal'] = {'number': n, 'name': SIGNALS.get(n, 'signal %d' % n)}
                self.ev('signal', r, 'caught %s' % SIGNALS.get(n, 'signal %d' % n))
            return
        if f == 'flash_agingcost':
            x = R_COST.search(m)
            if x:
                self.run['cost_s'] = _f(x.group(1))
                self.marks['end'] = r
            return
        if f == 'run_flash_tests':
            x = re.match(r'case (\d+) healthinfo:', m)
            if x:
                self.runner_case = int(x.group(1))
                self.marks['runner'] = r
                return
        if f == 'enter_h8_test':
            if m.startswith('enter_h8_test begin'):
                self.run['tests'].append({'name': 'enter-H8', 'start': r.ts, 'end': None, 'line': r.no})
                self.ev('enter_h8', r, 'enter-H8 begins')
            elif m.startswith('enter_h8_test end'):
                for t in self.run['tests']:
                    if t['name'] == 'enter-H8' and t['end'] is None:
                        t['end'] = r.ts
                self.ev('enter_h8_end', r, 'enter-H8 ends')
        if f == 'storage_filler_run' or f == 'storage_filler':
            x = R_GROUP.search(m)
            if x:
                if not any(t['name'] == 'storage filler' for t in self.run['tests']):
                    self.run['tests'].append({'name': 'storage filler', 'start': r.ts, 'end': None})
                if self.cur is not None and self.cur.end is None:
                    self.cur.outcome = self.cur.outcome or 'incomplete'
                self.cur = Cycle(len(self.cycles) + 1, r)
                self.cur.group_size = int(x.group(1))
                self.cur.mix = MIXES.get(self.cur.group_size)
                self.cur.number = None
                self.cycles.append(self.cur)
                self.ctx.new_cycle()
                self.runner_case = None
                return
            x = R_BATTERY.search(m)
            if x and self.cur is not None:
                self.cur.battery_msgs.append((int(x.group(2)), quote(r)))
                return
            x = R_CYCLE_COST.search(m)
            if x:
                self.last_cycle_line = r
                if self.cur is not None:
                    self.cur.number = int(x.group(1))
                    self.cur.cost = _f(x.group(3))
                    self.cur.end = r.ts
                    self.cur.outcome = self.cur.outcome or 'ok'
                    self.run['settings'].setdefault('fill_cycles', int(x.group(2)))
                return
            if 'exit, wdt timeout' in m:
                self.note_line(r)            # a pass: the watchdog's time is up
                self.marks['filler_wdt'] = r
                if self.cur is not None:
                    self.cur.outcome = 'watchdog'
                    self.cur.end = r.ts
                return
            x = R_TOTAL.search(m)
            if x:
                for t in self.run['tests']:
                    if t['name'] == 'storage filler':
                        t['end'] = r.ts
                        t['seconds'] = _f(x.group(1))
                self.marks['filler_end'] = r
                return
        if f == 'fill_fn':
            x = R_WRITER.search(m)
            if x and self.cur is not None:
                self.cur.writers.append({'runs': int(x.group(1)), 'ret': int(x.group(2)), 'mib': int(x.group(3)),
                                    'mib_s': _f(x.group(4)), 'cost': _f(x.group(5)), 'ts': r.ts, 'tid': r.tid})
                return
        if f == 'read_disturb_file':
            x = R_READER.search(m)
            if x and self.cur is not None:
                self.cur.readers.append({'reads': int(x.group(1)), 'cost_1000': _f(x.group(2)), 'ts': r.ts,
                                    'tid': r.tid})
                return
        if f == 'run_flash_tests' and m.startswith('But skip driver errors'):
            # The driver errors the line before reported are skipped: not a failure after all.
            for x in reversed(self.run['failures']):
                if 'index failed' in x['text']:
                    self.run['failures'].remove(x)
                    x.update(cls=lines.BENIGN, why='driver errors are skipped (-skip_err_state): the self.run goes on')
                    self.run['benign'].append(x)
                    break
        cls = self.note_line(r)
        if cls == lines.FAILURE and self.cur is not None and self.cur.end is None:
            if 'storage_filler cycle' in m or 'benchmark_check cycle' in m or 'healthinfo_judge cycle' in m:
                self.cur.outcome = 'fail'
                self.cur.end = r.ts

    def _snapshot(self):
        """A copy that `result` may change: what closing the open health block and the running
        cycle changes is copied, the rest shared (the figures are read at once)."""
        a = copy.copy(self)
        a.run = dict(self.run)
        for k in ('health_checks', 'failures', 'benign'):
            a.run[k] = list(self.run[k])
        a.marks = dict(self.marks)
        a.cycles = list(self.cycles)
        a.health = copy.deepcopy(self.health)
        if self.cur is not None:
            a.cur = copy.copy(self.cur)
            a.cur.deltas = dict(self.cur.deltas)
            a.cycles[a.cycles.index(self.cur)] = a.cur
        return a

    def result(self, final=False):
        """The run's figures so far; unless `final`, the reader may go on feeding afterwards."""
        a = self if final else self._snapshot()
        a.close_health()
        cur = a.cur
        if cur is not None and cur.end is None and cur.outcome is None:
            cur.outcome = 'incomplete'
        run = a.run
        run['first_line'] = a.first.no if a.first else None
        run['last_line'] = a.last.no if a.last else None
        run['start'], run['end'] = a.ts_min, a.ts_max
        # P/E count along the run: start count plus the growth each cycle's judgement saw.
        pe = run['pe_start']
        out_cycles = []
        for c in a.cycles:
            d = c.as_dict(pe)
            if d['pe_after'] is not None:
                pe = d['pe_after']
            out_cycles.append(d)
        run['cycles'] = out_cycles
        run['marks'] = {k: {'line': v.no, 'ts': v.ts, 'text': quote(v)} for k, v in a.marks.items()}
        run['complete'] = 'end' in a.marks
        _decide_end(run, a, a.marks)
        return run


def analyse(records):
    """Figures of one run from its records (already split into runs)."""
    a = Analyser()
    for r in records:
        a.feed(r)
    return a.result(final=True)


def _decide_end(run, an, marks):
    """Why the run ended, with the line that shows it."""
    first_fail = run['failures'][0] if run['failures'] else None
    fc = run['settings'].get('fill_cycles')

    def put(kind, text, line):
        run['end_kind'] = kind
        run['end_text'] = text
        run['end_quote'] = line['text'] if isinstance(line, dict) else (quote(line) if line else None)
        run['end_line'] = (line['line'] if isinstance(line, dict) else line.no) if line else None

    if 'signal' in marks:
        s = run['signal']
        put('signal', 'Abnormal end: the program caught %s and broke off the run.' % s['name'], marks['signal'])
    elif 'gate' in marks:
        what = ('the device is worn (P/E count above 30)' if run.get('gate') == 'wear'
                else 'the data partition has less than 64 GiB free')
        put('gate', 'Skipped at set-up: %s.' % what, marks['gate'])
    elif 'env_fail' in marks or 'setup_fail' in marks:
        put('setup', 'Set-up failed.', marks.get('setup_fail') or marks['env_fail'])
    elif 'list_fail' in marks:
        put('failure', 'The test list could not be built.', marks['list_fail'])
    elif 'run_fail' in marks:
        put('failure', 'A test failed; the first failure line:', first_fail or marks['run_fail'])
    elif 'filler_wdt' in marks or ('wdt' in marks and 'run_ok' in marks):
        put('watchdog', 'The watchdog ended the test at the end of its time budget (a pass).',
            marks.get('filler_wdt') or marks['wdt'])
    elif 'run_ok' in marks or 'end' in marks:
        cyc = run['cycles']
        if cyc and 'filler_end' in marks:
            last = cyc[-1]
            n = last.get('number')
            text = ('Ended by wear: the device gained more P/E cycles than the %s allowed.' % fc
                    if fc is not None else 'Ended by wear.')
            pe0, pe1 = run['pe_start'], None
            for c in cyc:
                if c['pe_after'] is not None:
                    pe1 = c['pe_after']
            if pe0 is not None and pe1 is not None and fc is not None:
                text = ('Ended by wear: the P/E count grew from %d to %d (+%d), more than the %d cycles the run '
                        'allows; the last cycle\'s line:' % (pe0, pe1, pe1 - pe0, fc))
            elif n is not None and fc is not None:
                text = ('Ended by wear: after cycle %d/%d the P/E growth since the start exceeded %d.' % (n, fc, fc))
            put('wear', text, an.last_cycle_line or marks.get('filler_end'))
        elif 5 in run['left_out'] and 6 in run['left_out']:
            put('no-test', 'No test was selected (-n %d).' % run['settings']['test_num'], marks.get('end'))
        elif 6 not in run['left_out'] and not cyc:
            health = [x for x in run['benign'] if 'healthinfo_get' in x['text'] or 'monitor_tool' in x['text']]
            run['no_aging_why'] = ('the storage filler ran no fill cycle (a fill-cycle setting below 0)'
                                   if 'filler_end' in marks else 'the storage filler returned before its first '
                                   'fill cycle: the health tool could not be read')
            if 'filler_end' in marks:
                put('no-aging', 'The storage filler ran no fill cycle (a fill-cycle setting below 0).',
                    marks['filler_end'])
            else:
                put('no-aging', 'The storage filler returned before its first fill cycle: the health tool could '
                    'not be read. The first line that says so:', health[0] if health else marks.get('end'))
        else:
            put('done', 'All selected tests ran to their end.', marks.get('run_ok') or marks.get('end'))
    else:
        last = an.last
        put('incomplete', 'The log stops before the run ended (no end line): the last line it holds:', last)
    if 'signal' in marks:
        # What broke after the signal (the handler removes the work area under the readers)
        # is the signal's doing, not a failure of the device.
        before = [x for x in run['failures'] if x['line'] < marks['signal'].no]
        first_fail = before[0] if before else None
    if first_fail and run['end_kind'] not in ('failure',):
        run['first_failure'] = first_fail
