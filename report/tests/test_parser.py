"""The parser and the command on small hand-made logs: interleaved threads, plain lines,
appended runs, truncated and garbled logs, and folders it cannot read."""

import json
import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)
sys.path.insert(0, TOP)
TOOL = os.path.join(TOP, 'flashaging-report')

from flashaging_report import forecast, logparse, model, summary  # noqa: E402


def p(t, tid):
    return '[2026-01-02 10:%02d:%06.3f][%d]' % (t // 60, t % 60, tid)


def body(func, msg, level='INFO', line=1):
    return '[FLASH]%s:%s:%d %s\n' % (level, func, line, msg)


def cycle_lines(t, number, fill_cycles=5, speeds=(30.0,) * 8, mib=250, cost=9.0, bench=True, deltas=(1, 0, 1300, 2, 2),
                waf=2.0, group=149696512, with_end=True):
    out = [p(t, 2) + body('storage_filler_run', 'g_group_size is %d' % group)]
    te = t + 0.5 + cost
    for i, s in enumerate(speeds):
        out.append(p(te, 20 + i) + body('fill_fn', 'runs 14, ret 0, fill %dMB,  speed is %.2f MB/s, cost is %.2fs'
                                       % (mib, s, cost)))
    for i in range(4):
        out.append(p(te, 30 + i) + body('read_disturb_file', 'read_times is 3000, average 1000 times cost 2.00s'))
    if bench:
        for mode, v in (('seq write', 200.0), ('seq read', 400.0), ('rand write', 4.0), ('rand read', 13.0)):
            out.append('size is 0x20000000, file num is 1024, time cost 2.5\n')
            out.append('%s: ==== speed is %.2fMB/s ====\n' % (mode, v))
    for k, d in zip(model.HEALTH_KEYS, deltas):
        out.append('delta %s is %d\n' % (k, d))
    out.append('WAF is %f\n' % waf)
    if with_end:
        out.append(p(t + 40, 2) + body('storage_filler_run', 'fill_cycle %d/%d cost 40.00s' % (number, fill_cycles)))
    return out


def run_lines(t0=0, cycles=2, end=True, pe=5):
    out = [p(t0, 2) + body('initialize_args', 'aging version is 2.0'),
           p(t0, 2) + body('get_args_from_config_xml', 'config fill_cycle to 5'),
           p(t0, 2) + body('pe_cycle_check', 'PE cycle is %d' % pe) + '\n',
           p(t0, 2) + body('initialize_flashtest_env', 'Init Success!'),
           p(t0, 2) + body('main', 'Start Flash Aging Test!'),
           p(t0, 2) + body('flash_wdt_thread_start', '[WDT] test_time:3600, spike_time:1, test_smp:3, testtime:3603')]
    for c in range(cycles):
        out += cycle_lines(t0 + 1 + 45 * c, 2 * c)
    if end:
        out += ['delta readReclaim is 2\n', 'delta badBlockRuntime is 0\n', 'delta TBW is 2600\n',
                'delta eraseCacheCntAvg is 4\n', 'delta eraseXLCCntAvg is 4\n', 'WAF is 2.000000\n',
                p(t0 + 100, 2) + body('storage_filler_run', 'storage_filler total cost 99.00s'),
                p(t0 + 100, 2) + body('main', 'Run flashtest success, Go to the next way...'),
                p(t0 + 101, 2) + body('flash_agingcost', 'flash aging cost time :101.000000(S) ')]
    return out


def analyse(text, run=-1):
    runs = logparse.split_runs(logparse.read_records(text.encode()))
    return model.analyse(runs[run]), len(runs)


class Folder:
    def __init__(self, log=None, record=None, results=None):
        self.tmp = tempfile.TemporaryDirectory()
        self.dir = self.tmp.name
        os.mkdir(os.path.join(self.dir, 'factory'))
        for name, data in (('flash_aging.log', log), ('flash_aging_result.txt', record),
                           ('flash_aging_results.csv', results)):
            if data is not None:
                with open(os.path.join(self.dir, 'factory', name), 'wb') as f:
                    f.write(data if isinstance(data, bytes) else data.encode())

    def tool(self, *args):
        r = subprocess.run([TOOL] + list(args) + [self.dir], capture_output=True, text=True, timeout=120)
        return r

    def summary(self):
        with open(os.path.join(self.dir, 'summary.json')) as f:
            return json.load(f)


class Interleaving(unittest.TestCase):
    def test_two_prefixes_then_two_bodies_give_two_whole_records(self):
        text = (p(10, 26) + p(10.001, 33) + body('fill_fn', 'runs 15, ret 0, fill 291MB,  speed is 30.91 MB/s, cost is 9.41s')
                + body('read_disturb_file', 'read_times is 3122, average 1000 times cost 1.78s'))
        recs = logparse.read_records(text)
        self.assertEqual([r.func for r in recs], ['fill_fn', 'read_disturb_file'])
        self.assertEqual([r.tid for r in recs], [26, 33])
        self.assertAlmostEqual(recs[1].ts - recs[0].ts, 0.001, places=3)

    def test_interleaved_cycle_keeps_all_writers_and_readers(self):
        lines = run_lines(cycles=1)
        # Pull each reader's prefix onto the line before it, as two threads writing at once do.
        mixed = []
        for l in lines:
            if 'read_disturb_file' in l and mixed and mixed[-1].startswith('['):
                pre, rest = l[:l.index('[FLASH]')], l[l.index('[FLASH]'):]
                mixed[-1] = pre + mixed[-1]
                mixed.append(rest)
            else:
                mixed.append(l)
        a, _ = analyse(''.join(mixed))
        c = a['cycles'][0]
        self.assertEqual(len(c['writers']), 8)
        self.assertEqual(len(c['readers']), 4)
        self.assertAlmostEqual(c['reads_per_s'], 4 * 500.0)
        self.assertEqual(a['gaps'], [])

    def test_plain_benchmark_and_health_lines_belong_to_their_cycle(self):
        a, _ = analyse(''.join(run_lines(cycles=2)))
        c1, c2 = a['cycles']
        self.assertEqual(c1['bench'], {'seq write': 200.0, 'seq read': 400.0, 'rand write': 4.0, 'rand read': 13.0})
        self.assertEqual(c1['health']['eraseXLCCntAvg'], 2)
        self.assertEqual((c1['pe_after'], c2['pe_after']), (7, 9))
        self.assertEqual(c2['number'], 2)
        self.assertAlmostEqual(c1['fill']['mib_s'], 2000 / 9.0)
        self.assertEqual((c1['fill']['writer_mib_s_min'], c1['fill']['writer_mib_s_max']), (30.0, 30.0))
        # The whole test's judgement is not taken for a cycle's.
        self.assertEqual([h['owner'] for h in a['health_checks']], ['filler'])
        self.assertEqual(a['end_kind'], 'wear')


class Runs(unittest.TestCase):
    def test_appended_runs_are_told_apart_and_the_last_is_shown(self):
        text = ''.join(run_lines(0, cycles=1) + run_lines(600, cycles=3))
        a, n = analyse(text)
        self.assertEqual(n, 2)
        self.assertEqual(len(a['cycles']), 3)
        first, _ = analyse(text, 0)
        self.assertEqual(len(first['cycles']), 1)

    def test_list_and_run_options(self):
        f = Folder(log=''.join(run_lines(0, cycles=1, end=False) + run_lines(600, cycles=2)), record=b'SUCCESS\0\0\0')
        r = f.tool('--list')
        self.assertEqual(r.returncode, 0, r.stderr)
        out = r.stdout.splitlines()
        self.assertEqual(len(out), 2)
        self.assertTrue(out[0].startswith('run 1: lines 1-'), out)
        self.assertIn('1 cycle: The log stops before the run ended', out[0])
        self.assertIn('2 cycles: Ended by wear', out[1])
        r = f.tool('--run', '1')
        self.assertEqual(r.returncode, 0, r.stderr)
        s = f.summary()
        self.assertEqual((s['run'], s['runs_in_log'], len(s['cycles'])), (1, 2, 1))
        # An earlier run's verdict comes from its own lines, not from the record of the last.
        self.assertEqual(s['verdict_from'], 'log')
        self.assertEqual(s['end_reason']['kind'], 'incomplete')
        r = f.tool('--run', '3')
        self.assertEqual(r.returncode, 2)
        self.assertEqual(r.stderr, 'flashaging-report: the log holds 2 runs; --run 3 is not one of them\n')
        r = f.tool()
        self.assertEqual(r.returncode, 0, r.stderr)
        s = f.summary()
        self.assertEqual((s['run'], s['verdict'], s['verdict_from']), (2, 'SUCCESS', 'pass/fail record'))


class Truncation(unittest.TestCase):
    def test_log_cut_in_the_middle_of_a_cycle(self):
        lines = run_lines(cycles=2, end=False)
        text = ''.join(lines)
        cut = text[:text.rindex('rand read')] + 'rand re'
        # START over an earlier run's SUCCESS: the record's last bytes are that word's.
        f = Folder(log=cut, record=b'STARTSS\0\0\0')
        r = f.tool()
        self.assertEqual(r.returncode, 0, r.stderr)
        s = f.summary()
        self.assertEqual((s['verdict'], s['record_word']), ('START', 'STARTSS'))
        self.assertEqual(s['end_reason']['kind'], 'incomplete')
        self.assertEqual([c['outcome'] for c in s['cycles']], ['ok', 'incomplete'])
        self.assertNotIn('rand read', s['cycles'][1]['bench'])
        self.assertTrue(s['log_ends_mid_line'])
        page = open(os.path.join(f.dir, 'report.html'), encoding='utf-8').read()
        self.assertIn('id="gaps"', page)
        self.assertIn('the log ends before the run', page)

    def test_garbled_lines_are_gaps_and_the_rest_is_read(self):
        lines = run_lines(cycles=2)
        lines.insert(12, '\x00\x07\x1b\xff\xfe garbage \x00\x00\x00\n')
        lines.insert(20, '[FLASH]INFO:fill_fn:1 runs 3[2026-01-02 10:00:30.000][5]\n')
        a, _ = analyse(''.join(lines))
        self.assertEqual(len(a['gaps']), 2)
        self.assertEqual(len(a['cycles']), 2)
        self.assertEqual(a['end_kind'], 'wear')

    def test_never_crashes_on_any_bytes(self):
        import random
        rnd = random.Random(11)
        base = ''.join(run_lines(cycles=2)).encode()
        for i in range(150):
            data = bytearray(base)
            for _ in range(rnd.randint(1, 40)):
                pos = rnd.randrange(len(data))
                op = rnd.randrange(3)
                if op == 0:
                    data[pos] = rnd.randrange(256)
                elif op == 1:
                    del data[pos:pos + rnd.randint(1, 200)]
                else:
                    data[pos:pos] = bytes(rnd.randrange(256) for _ in range(rnd.randint(1, 30)))
            recs = logparse.read_records(bytes(data))
            for rs in logparse.split_runs(recs):
                model.analyse(rs)
        f = Folder(log=bytes(data))
        r = f.tool()
        self.assertIn(r.returncode, (0, 2), r.stderr)
        self.assertNotIn('Traceback', r.stderr)


class Unreadable(unittest.TestCase):
    def test_a_log_without_any_line_of_the_program_exits_2_with_one_line(self):
        f = Folder(log='hello\nthis is not it\n')
        r = f.tool()
        self.assertEqual(r.returncode, 2)
        self.assertEqual(r.stderr, 'flashaging-report: cannot make sense of the log: %s/factory/flash_aging.log '
                                   'holds no line of the flash aging program (no "[FLASH]" line)\n' % f.dir)
        self.assertFalse(os.path.exists(os.path.join(f.dir, 'report.html')))

    def test_an_empty_folder_and_a_missing_one(self):
        f = Folder()
        r = f.tool()
        self.assertEqual(r.returncode, 2)
        self.assertEqual(r.stderr.count('\n'), 1, r.stderr)
        r = subprocess.run([TOOL, os.path.join(f.dir, 'nope')], capture_output=True, text=True)
        self.assertEqual((r.returncode, r.stderr), (2, 'flashaging-report: %s/nope is not a folder\n' % f.dir))

    def test_a_phone_folder_without_factory_subfolder(self):
        with tempfile.TemporaryDirectory() as d:
            with open(os.path.join(d, 'flash_aging.log'), 'w') as fh:
                fh.write(''.join(run_lines(cycles=1)))
            r = subprocess.run([TOOL, d], capture_output=True, text=True)
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertEqual(r.stdout, os.path.join(d, 'report.html') + '\n')


class EndReasons(unittest.TestCase):
    def test_watchdog_end_is_not_a_failure_line(self):
        lines = run_lines(cycles=0, end=False)
        lines += cycle_lines(1, 0, bench=False, with_end=False)[:9]
        lines += [p(31, 11) + body('flash_wdt_thread', '[WDT] say test over!'),
                  p(32, 2) + body('storage_filler', 'filler[0].output is 17185', 'ERROR'),
                  p(32, 2) + body('storage_filler_run', 'storage_filler cycle 0 exit, wdt timeout', 'ERROR'),
                  p(40, 2) + body('main', 'Run flashtest success, Go to the next way...'),
                  p(41, 2) + body('flash_agingcost', 'flash aging cost time :41.0(S) ')]
        a, _ = analyse(''.join(lines))
        self.assertEqual(a['end_kind'], 'watchdog')
        self.assertTrue(a['end_quote'].endswith('storage_filler cycle 0 exit, wdt timeout'))
        self.assertEqual(a['failures'], [])

    def test_enter_h8_and_battery_wait_on_the_timeline(self):
        lines = run_lines(cycles=0, end=False)
        lines += [p(1, 2) + body('enter_h8_test', 'enter_h8_test begin'),
                  p(301, 2) + body('enter_h8_test', 'enter_h8_test end')]
        cyc = cycle_lines(302, 0)
        cyc.insert(1, p(402, 2) + body('storage_filler', 'BATTERY_TEMP higher than 490, sleep 100s') + '\n')
        # The writers end 110 s later than they would have: the battery held the cycle.
        for tid in range(20, 34):
            cyc = [l.replace(p(311.5, tid), p(421.5, tid)) for l in cyc]
        cyc = [l.replace(p(342, 2), p(452, 2)) for l in cyc]
        a, _ = analyse(''.join(lines + cyc))
        h8 = a['tests'][0]
        self.assertEqual((h8['name'], h8['end'] - h8['start']), ('enter-H8', 300.0))
        c = a['cycles'][0]
        self.assertEqual(c['battery_lines'], [p(402, 2) + '[FLASH]INFO:storage_filler:1 BATTERY_TEMP higher than 490, '
                                                          'sleep 100s'])
        self.assertAlmostEqual(c['battery_wait_s'], 110.5, places=3)   # writers began at 421.5 - 9 s
        from flashaging_report import plots
        svg = plots.timeline(dict(a, marks=a['marks']))
        for row in ('set-up', 'enter-H8', 'battery wait', 'fill', 'benchmark + health'):
            self.assertIn('>%s<' % row, svg)

    def test_gates_and_set_up(self):
        base = [p(0, 2) + body('initialize_args', 'aging version is 2.0'),
                p(0, 2) + body('pe_cycle_check', 'PE cycle is 31')]
        gate = base + [body('initialize_flashtest_env', "PE > 30 or get healthinfo fail, can't perform flash agingtest",
                            'FATAL') + '\n', body('main', 'skip flashtest!', 'FATAL') + '\n',
                       p(1, 2) + body('flash_agingcost', 'flash aging cost time :0.5(S) ')]
        a, _ = analyse(''.join(gate))
        self.assertEqual((a['end_kind'], a['gate']), ('gate', 'wear'))
        self.assertEqual(a['end_quote'],
                         "[FLASH]FATAL:initialize_flashtest_env:1 PE > 30 or get healthinfo fail, can't perform flash agingtest")


class Classification(unittest.TestCase):
    """Each error-looking line by what the program does after it."""

    def classes(self, extra, cycles=1):
        lines = run_lines(cycles=cycles, end=False)
        lines[-1:-1] = extra       # before the last cycle's end line
        a, _ = analyse(''.join(lines))
        return ([(x['cls'], x['text'].split('] ')[-1].split(' ', 1)[-1]) for x in a['benign']],
                [x['text'] for x in a['failures']], a)

    def test_benchmark_transfers_by_errno_and_result(self):
        benign, failures, a = self.classes([
            'w/r fail 0, offset is 536346624, wr_size is 0, op_size is 524288\n',
            'w/r fail 0, offset is 4096, wr_size is -1, op_size is 4096\n',
            'write fail 28\n', 'benchmark_prepare fail -1\n', 'lseek failed 22\n'])
        self.assertEqual([c for c, _ in benign], ['retried', 'benign', 'benign', 'benign', 'benign'])
        self.assertEqual(failures, [])
        self.assertNotIn('first_failure', a)
        _, failures, _ = self.classes(['w/r fail 5, offset is 0, wr_size is -1, op_size is 4096\n',
                                       'thread 3 fail 5\n', 'benchmark_end fail 5\n'])
        self.assertEqual(failures, ['w/r fail 5, offset is 0, wr_size is -1, op_size is 4096',
                                    'thread 3 fail 5', 'benchmark_end fail 5'])

    def test_reader_retries_once_per_thread_and_writers_meet_a_full_disk(self):
        rd = lambda tid, err: p(5, tid) + body('read_disturb_file', 'read file /d/7_4096_3 failed %d' % err)
        benign, failures, _ = self.classes([
            rd(31, 2), rd(32, 9), rd(31, 2), rd(33, 5),
            p(6, 21) + body('random_finish_group_file', 'open /d/1_4096_9 failed 28'),
            p(6, 22) + body('random_finish_group_file', 'write fail -1, errno is 28, free space is 1, op_size is 4096',
                            'ERROR'),
            p(6, 23) + body('random_finish_group_file', 'open /d/1_4096_9 failed 13'),
            p(7, 24) + body('fill_fn', 'barrier wait failed', 'ERROR')])
        self.assertEqual([c for c, _ in benign], ['retried', 'retried', 'benign', 'benign', 'benign'])
        self.assertEqual([f.split('] ')[-1].split(':1 ')[-1] for f in failures],
                         ['read file /d/7_4096_3 failed 2', 'read file /d/7_4096_3 failed 5', 'open /d/1_4096_9 failed 13'])

    def test_final_judgement_after_the_watchdog_and_skipped_driver_errors_are_not_failures(self):
        lines = run_lines(cycles=0, end=False) + [
            p(31, 11) + body('flash_wdt_thread', '[WDT] say test over!'),
            p(32, 2) + body('storage_filler_run', 'storage_filler cycle 0 exit, wdt timeout', 'ERROR'),
            p(33, 2) + body('storage_filler_run', 'healthinfo_judge fail', 'ERROR'),
            p(34, 2) + body('run_flash_tests', 'Test 0 index failed.', 'ERROR'),
            p(34, 2) + body('run_flash_tests', 'But skip driver errors', 'ERROR'),
            p(40, 2) + body('main', 'Run flashtest success, Go to the next way...'),
            p(41, 2) + body('flash_agingcost', 'flash aging cost time :41.0(S) ')]
        a, _ = analyse(''.join(lines))
        self.assertEqual(a['failures'], [])
        self.assertEqual([x['cls'] for x in a['benign']], ['benign'] * 4)
        lines[6:8] = []   # without the watchdog's end the judgement fails the test
        a, _ = analyse(''.join(lines))
        self.assertEqual([x['text'].split(':1 ')[-1] for x in a['failures']], ['healthinfo_judge fail'])

    def test_health_tool_missing_from_the_start_passes_without_aging(self):
        lines = [p(0, 2) + body('initialize_args', 'aging version is 2.0'),
                 p(0, 2) + body('healthinfo_get', 'fail to chmod /system/bin/monitor_tool', 'ERROR') + '\n',
                 'healthinfo_get fail\n',
                 p(0, 2) + body('initialize_flashtest_env', 'Init Success!'),
                 p(0, 2) + body('main', 'Start Flash Aging Test!'),
                 p(0, 2) + body('initialize_flash_tests', 'test_num = 6, result = 5'),
                 p(0, 2) + body('flash_wdt_thread_start', '[WDT] test_time:3600, spike_time:1, test_smp:3, testtime:3603'),
                 p(0, 2) + body('run_flash_tests', 'case 0 healthinfo:', 'ERROR') + '\n',
                 p(1, 2) + body('main', 'Run flashtest success, Go to the next way...'),
                 p(1, 2) + body('flash_agingcost', 'flash aging cost time :1.0(S) ')]
        f = Folder(log=''.join(lines), record=b'SUCCESS\0\0\0')
        self.assertEqual(f.tool().returncode, 0)
        s = f.summary()
        self.assertEqual(s['end_reason']['kind'], 'no-aging')
        self.assertEqual(s['passed_without_aging']['why'], 'the storage filler returned before its first fill cycle: '
                                                            'the health tool could not be read')
        self.assertTrue(s['end_reason']['line'].endswith('fail to chmod /system/bin/monitor_tool'))
        self.assertEqual(s['failures'], [])
        page = open(os.path.join(f.dir, 'report.html'), encoding='utf-8').read()
        self.assertIn('<div class="verdict SUCCESS NOAGING" id="verdict">', page)
        self.assertIn('id="no-aging"', page)
        self.assertNotIn('id="first-failure"', page)


def cyc(index, number, xlc, start, end, outcome='ok'):
    return {'index': index, 'number': number, 'health': {'eraseXLCCntAvg': xlc}, 'start': start, 'end': end,
            'outcome': outcome, 'seconds': end - start}


class Forecast(unittest.TestCase):
    def test_steady_wear_ends_when_the_growth_passes_the_setting(self):
        cycles = [cyc(1, 0, 2, 0, 100), cyc(2, 2, 2, 100, 200)]
        f = forecast.make(cycles, 9, upto=1)
        # 8 more P/E needed at 2 a cycle (or up to 3, the counter being whole): 3 to 4 more cycles.
        self.assertEqual((f['after_cycle'], f['growth'], f['end_cycle'], f['by']), (1, 2, 5, 'wear'))
        self.assertEqual((f['end_cycle_lo'], f['end_cycle_hi'], f['end_ts']), (4, 5, 500))
        f = forecast.make(cycles, 9)
        self.assertEqual((f['growth'], f['end_cycle'], f['end_ts']), (4, 5, 500))
        fs = forecast.per_cycle(cycles + [cyc(3, 4, 2, 200, 310), cyc(4, 6, 2, 310, 400), cyc(5, 8, 2, 400, 500)],
                                9, None, actual_end=505, actual_cycle=5)
        self.assertEqual([x['end_cycle'] for x in fs], [5, 5, 5, 5, 5])
        self.assertEqual([round(x['error_s'], 1) for x in fs], [-5.0, -5.0, 11.7, -5.0, -5.0])
        self.assertAlmostEqual(fs[0]['error_pct'], -500.0 / 405)

    def test_the_watchdog_deadline_comes_first(self):
        cycles = [cyc(1, 0, 2, 0, 100)]
        f = forecast.make(cycles, 9, deadline=250)
        self.assertEqual((f['by'], f['end_ts'], f['end_cycle']), ('watchdog', 250, 3))
        f = forecast.make(cycles, 9, deadline=450)
        self.assertEqual((f['by'], f['end_ts_lo'], f['end_ts_hi']), ('watchdog or wear', 400, 450))

    def test_a_jump_in_wear_shows_in_the_range_and_the_next_number(self):
        # The P/E count grew by 3 more between cycle 2's judgement and cycle 3's start.
        cycles = [cyc(1, 0, 2, 0, 100), cyc(2, 2, 2, 100, 200), cyc(3, 7, 2, 200, 300)]
        f = forecast.make(cycles, 9, upto=2)
        self.assertEqual((f['growth'], f['end_cycle']), (4, 5))
        f = forecast.make(cycles, 9)
        self.assertEqual((f['growth'], f['end_cycle'], f['end_cycle_lo'], f['end_cycle_hi']), (9, 4, 4, 4))
        self.assertEqual(forecast.make(cycles, 6)['end_cycle'], 3)     # already past: ends now

    def test_no_growth_and_no_deadline_is_no_end_in_sight(self):
        f = forecast.make([cyc(1, 0, 0, 0, 100)], 5)
        self.assertEqual((f['by'], f['end_ts'], f['end_cycle']), ('nothing in sight', None, None))
        self.assertIsNone(forecast.make([cyc(1, 0, 2, 0, 100, outcome='incomplete')], 5))


if __name__ == '__main__':
    unittest.main()
