"""The report of simulated runs (default, corrupt, sigterm, hot, full-disk) checked against
what the simulator knows, the batch view, and both pages in a real headless browser.

The runs are made once for the whole program: the folders the end-to-end scenarios leave in
the build's e2e-out are taken when they are complete, else the shipped profile is run."""

import json
import math
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)
TOOL = os.path.join(TOP, 'flashaging-report')
SIM = os.environ.get('FLASHAGING_SIM_BIN', '')
PROFILES = os.environ.get('FLASHAGING_PROFILES', os.path.join(os.path.dirname(TOP), 'sim', 'profiles'))
E2E_OUT = os.environ.get('FLASHAGING_TEST_OUT', '')
OUT = os.environ.get('REPORT_TEST_OUT', os.path.join(tempfile.gettempdir(), 'flashaging-report-test'))

# scenario -> the end-to-end scenario's folder, the shipped profile
SCENARIOS = {
    'default': ('Filler.DefaultPhoneFillsCyclesAndEndsOnWear', 'default'),
    'corrupt': ('Filler.CorruptedPatternFileFailsTheRunThroughAReader', 'corrupt'),
    'hot': ('Filler.HotBatteryHoldsTheCycleAndTheWatchdogEndIsAPass', 'hot'),
    'full-disk': ('Filler.FullPartitionEndsEachFillCleanly', 'full-disk'),
    'sigterm': ('AbnormalEnd.SigtermDuringTheFillerKeepsStartAndDumpsTheBuffers', 'sigterm'),
    'no-health-tool': (None, 'default', 'health_tool = no'),
}
RUNS = {}
R_READ_LINE = re.compile(r'read_disturb_file:\d+ read_times is \d+, average 1000 times cost ')


def read(path):
    with open(path, encoding='utf-8', errors='replace') as f:
        return f.read()


def write(path, text):
    with open(path, 'w', encoding='utf-8') as f:
        f.write(text)


def complete(d):
    try:
        sim_log = read(os.path.join(d, 'sim.log'))
    except OSError:
        return False
    return 'summary: ' in sim_log and os.path.isfile(os.path.join(d, 'factory', 'flash_aging.log'))


def run_dir(name):
    if name in RUNS:
        return RUNS[name]
    e2e, profile = SCENARIOS[name][:2]
    sets = ['--set', SCENARIOS[name][2]] if len(SCENARIOS[name]) > 2 else []
    d = os.path.join(E2E_OUT, e2e) if E2E_OUT and e2e else ''
    if not (d and complete(d)):
        d = os.path.join(OUT, 'sim-' + name)
        r = subprocess.run([SIM, 'run', '--profile', os.path.join(PROFILES, profile), '--out', d] + sets,
                           capture_output=True, text=True, timeout=1800)
        assert r.returncode == 0, r.stdout + r.stderr
        # The simulator names the report as the last line of its summary.
        assert r.stdout.splitlines()[-1] == '  report   %s/report.html' % d, r.stdout
    RUNS[name] = d
    return d


REPORTS = {}


def report(name):
    """Runs the tool afresh into a folder of its own (once per program); returns the summary
    and the page."""
    if name not in REPORTS:
        REPORTS[name] = make_report(name)
    return REPORTS[name]


def make_report(name):
    out = os.path.join(OUT, 'report-' + name)
    shutil.rmtree(out, ignore_errors=True)
    r = subprocess.run([TOOL, '--out', out, run_dir(name)], capture_output=True, text=True, timeout=300)
    assert r.returncode == 0, r.stderr
    assert r.stdout == os.path.join(out, 'report.html') + '\n', r.stdout
    with open(os.path.join(out, 'summary.json')) as f:
        sm = json.load(f)
    with open(os.path.join(out, 'report.html'), encoding='utf-8') as f:
        page = f.read()
    return sm, page, out


def profile_of(d):
    """Single-valued keys of the run's profile (profile.txt with its includes; last wins)."""
    keys = {}

    def load(path, base):
        try:
            text = read(path)
        except OSError:
            return
        for line in text.split('\n'):
            s = line.strip()
            if not s or s.startswith('#') or '=' not in s:
                continue
            k, v = (x.strip() for x in s.split('=', 1))
            if k == 'include':
                inc = v if v.startswith('/') else os.path.join(base, v)
                load(inc, os.path.dirname(inc))
            else:
                keys[k] = v
    load(os.path.join(d, 'profile.txt'), PROFILES)
    return keys


def log_lines(d):
    return read(os.path.join(d, 'factory', 'flash_aging.log')).split('\n')


class SimulatedRuns(unittest.TestCase):
    def check_common(self, name, sm, page):
        d = run_dir(name)
        # The quoted line is a whole line of the log.
        if sm['end_reason']['line']:
            self.assertIn(sm['end_reason']['line'], log_lines(d))
        self.assertEqual(sm['record_word'], read(os.path.join(d, 'factory', 'flash_aging_result.txt')).split('\0')[0])
        # Self-contained: nothing fetched.
        for needle in ('<script', '<link', 'src="http', "url(http", '<img'):
            self.assertNotIn(needle, page)

    def test_default_run_three_cycles_against_the_device_model(self):
        sm, page, _ = report('default')
        self.check_common('default', sm, page)
        prof = profile_of(run_dir('default'))
        self.assertEqual(sm['verdict'], 'SUCCESS')
        self.assertEqual(sm['end_reason']['kind'], 'wear')
        self.assertEqual(len(sm['cycles']), 3)
        self.assertEqual(sm['serial'], prof['prop.ro.serialno'])
        self.assertEqual(sm['figures']['pe_start'], int(prof['pe_start']))
        waf, pe_per_gib = float(prof['waf']), float(prof['pe_per_gib'])
        mib = 0.0
        for c in sm['cycles']:
            self.assertEqual(c['outcome'], 'ok')
            self.assertEqual(c['fill']['writers'], 8)
            self.assertEqual(sorted(c['bench']), ['rand read', 'rand write', 'seq read', 'seq write'])
            self.assertAlmostEqual(c['waf'], waf, delta=0.05)
            # A reader reports only past 1000 verified reads; a cycle none reported has no rate.
            rates = [1000.0 / r['cost_1000'] for r in c['readers'] if r['cost_1000']]
            if rates:
                self.assertAlmostEqual(c['reads_per_s'], sum(rates))
                self.assertGreater(c['reads_per_s'], 0)
            else:
                self.assertIsNone(c['reads_per_s'])
            self.assertLessEqual(c['fill']['writer_mib_s_min'], c['fill']['writer_mib_s_max'])
            # The fill stops at the reserve: free - 2 x pass size <= reserve.
            self.assertGreater(c['fill']['mib'], 1500)
            mib += c['fill']['mib'] + c['bench_mib']
        # Every reader's line of the log is in one cycle.
        reported = [l for l in log_lines(run_dir('default')) if R_READ_LINE.search(l)]
        self.assertEqual(len(reported), sum(len(c['readers']) for c in sm['cycles']))
        # The device model: P/E = start + floor(GiB written x pe_per_gib); what the file system
        # sends is the data plus its metadata and journal (a few per cent more).
        growth = sm['figures']['pe_end'] - sm['figures']['pe_start']
        self.assertGreaterEqual(growth, math.floor(mib / 1024 * pe_per_gib))
        self.assertLessEqual(growth, math.floor(mib * 1.08 / 1024 * pe_per_gib) + 1)
        self.assertGreater(growth, sm['settings']['fill_cycles'])
        # The results file's last reading is the P/E count the report ends with.
        self.assertIn(sm['results_file']['health']['eraseXLCCntAvg'] - sm['figures']['pe_end'], (0, 1))
        self.assertIn('Ended by wear', page)
        self.assertEqual(page.count('<svg'), 5)   # timeline, fill, benchmark, health, readers
        # A pass is no failure: no failure box; the benchmark's retried reads (a read at the end of
        # the shared file that moved nothing, result 0) are listed apart, never as failures.
        self.assertEqual(sm['failures'], [])
        self.assertIsNone(sm['first_failure'])
        self.assertNotIn('First failure line', page)
        self.assertIsNone(sm['passed_without_aging'])
        retried = [l for l in log_lines(run_dir('default')) if re.match(r'w/r fail 0, .* wr_size is 0, ', l)]
        self.assertEqual([x['text'] for x in sm['benign'] if x['cls'] == 'retried'], retried)
        if retried:
            self.assertIn('id="benign"', page)
        # The forecast after each cycle, and how far it was from the end.
        self.assertEqual([f['after_cycle'] for f in sm['forecasts']], [1, 2, 3])
        self.assertEqual(sm['forecasts'][-1]['end_cycle'], 3)
        for f in sm['forecasts']:
            self.assertEqual((f['by'], f['actual_end_cycle']), ('wear', 3))
            self.assertAlmostEqual(f['error_s'], f['end_ts'] - f['actual_end_ts'])
        self.assertEqual(len(re.findall(r'<table id="forecast">.*?</table>', page, re.S)), 1)

    def test_hot_battery_wait_follows_the_temperature_schedule(self):
        sm, page, _ = report('hot')
        self.check_common('hot', sm, page)
        prof = profile_of(run_dir('hot'))
        sched = [(float(t), int(v)) for v, t in re.findall(r'(\d+)@([\d.]+)(?:,|$)', prof['battery_temp'])]
        timed = [t for t, v in sched if v <= 490]
        c = sm['cycles'][0]
        since_start = c['start'] - sm['start_ts']
        if timed:
            sleeps = math.ceil((min(timed) - since_start) / 10.0)
        else:
            # Cooled on an event (the line after the tenth sleep): the sleep after it may
            # already see the cool battery, or the one after that.
            sleeps = round(c['battery_wait_s'] / 10.0)
            self.assertIn(sleeps, (10, 11))
        self.assertGreaterEqual(sleeps, 1)
        self.assertAlmostEqual(c['battery_wait_s'], 10.0 * sleeps, delta=2.0)
        self.assertEqual(len(c['battery_lines']), sleeps // 10)
        self.assertEqual(sm['verdict'], 'SUCCESS')
        self.assertIn(sm['end_reason']['kind'], ('wear', 'watchdog'))
        self.assertIn('battery wait', page)

    def test_corrupt_run_quotes_the_reader_that_failed(self):
        sm, page, _ = report('corrupt')
        self.check_common('corrupt', sm, page)
        self.assertEqual(sm['verdict'], 'FAIL')
        self.assertEqual(sm['end_reason']['kind'], 'failure')
        self.assertRegex(sm['end_reason']['line'], r'\[FLASH\]ERROR:storage_filler:\d+ filler\[(8|9|10|11)\]\.output is 1$')
        self.assertEqual(sm['cycles'][-1]['outcome'], 'fail')

    def test_sigterm_run_is_an_abnormal_end(self):
        sm, page, _ = report('sigterm')
        self.check_common('sigterm', sm, page)
        self.assertEqual(sm['verdict'], 'START')
        self.assertEqual(sm['end_reason']['kind'], 'signal')
        self.assertEqual(sm['signal'], {'number': 15, 'name': 'SIGTERM'})
        self.assertRegex(sm['end_reason']['line'], r'\[FLASH\]ERROR:flash_sigroutine:\d+ SIG 15 catched$')
        self.assertIn(sm['cycles'][-1]['outcome'], ('incomplete', 'ok'))
        self.assertIsNone(sm.get('first_failure'))

    def test_health_tool_missing_from_the_start_is_a_pass_without_aging(self):
        sm, page, _ = report('no-health-tool')
        self.check_common('no-health-tool', sm, page)
        self.assertEqual((sm['verdict'], sm['end_reason']['kind']), ('SUCCESS', 'no-aging'))
        self.assertEqual(sm['passed_without_aging']['why'], 'the storage filler returned before its first fill '
                                                             'cycle: the health tool could not be read')
        self.assertRegex(sm['end_reason']['line'], r'\[FLASH\]ERROR:healthinfo_get:\d+ fail to chmod '
                                                   r'/system/bin/monitor_tool$')
        self.assertEqual((sm['cycles'], sm['failures'], sm['forecasts']), ([], [], []))
        self.assertIn('<div class="verdict SUCCESS NOAGING" id="verdict">', page)
        self.assertIn('<b>Passed without aging:</b> the storage filler returned before its first fill cycle', page)

    def test_full_disk_run_skips_the_benchmark(self):
        sm, page, _ = report('full-disk')
        self.check_common('full-disk', sm, page)
        self.assertEqual(sm['verdict'], 'SUCCESS')
        self.assertTrue(sm['cycles'][0]['bench_skipped'].startswith('left space is less than 536870912'))
        self.assertEqual(sm['cycles'][0]['bench'], {})


class SimulatorSummary(unittest.TestCase):
    """`flashaging-sim run` writes the report and names it last; a failing report is one line
    and changes neither the exit status nor the run's files."""

    def sim(self, out, env_tool=None):
        env = dict(os.environ)
        env.pop('FLASHAGING_REPORT', None)
        if env_tool is not None:
            env['FLASHAGING_REPORT'] = env_tool
        return subprocess.run([SIM, 'run', '--profile', os.path.join(PROFILES, 'worn'), '--out', out],
                              capture_output=True, text=True, timeout=600, env=env)

    def test_report_is_the_summary_last_line(self):
        out = os.path.join(OUT, 'sim-worn')
        r = self.sim(out)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout.splitlines()[-1], '  report   %s/report.html' % out)
        with open(os.path.join(out, 'summary.json')) as f:
            sm = json.load(f)
        self.assertEqual((sm['verdict'], sm['end_reason']['kind']), ('SKIP', 'gate'))
        self.assertRegex(sm['end_reason']['line'], r"^\[FLASH\]FATAL:initialize_flashtest_env:\d+ PE > 30 or get "
                                                   r"healthinfo fail, can't perform flash agingtest$")

    def test_failing_report_changes_nothing_else(self):
        out = os.path.join(OUT, 'sim-worn-noreport')
        r = self.sim(out, '/bin/false')
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout.splitlines()[-1], '  report   (not written: exit status 1)')
        self.assertFalse(os.path.exists(os.path.join(out, 'report.html')))
        self.assertEqual(read(os.path.join(out, 'factory', 'flash_aging_result.txt')).split('\0')[0], 'SKIP')

    def test_failing_report_is_named_by_its_last_line_however_long_its_output(self):
        # A tool that says much and ends at once: its last line is still the one named.
        tool = os.path.join(OUT, 'talkative-report')
        os.makedirs(OUT, exist_ok=True)
        write(tool, '#!/bin/sh\nhead -c 300000 /dev/zero | tr "\\0" "x"\necho\necho "cannot read the log"\nexit 1\n')
        os.chmod(tool, 0o755)
        out = os.path.join(OUT, 'sim-worn-talkative')
        r = self.sim(out, tool)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout.splitlines()[-1], '  report   (not written: cannot read the log)')


def make_phone(src, dest, serial, speed=1.0, extra_growth=0, waf=None):
    """A copy of a run folder as another phone: its serial, and its figures changed."""
    shutil.copytree(src, dest, ignore=shutil.ignore_patterns('capture', 'report.html', 'summary.json'))
    fac = os.path.join(dest, 'factory')
    res = os.path.join(fac, 'flash_aging_results.csv')
    write(res, re.sub(r'Serialno:.*', 'Serialno:' + serial, read(res)))
    log = os.path.join(fac, 'flash_aging.log')
    text = read(log)
    text = re.sub(r'(fill \d+MB,  speed is [\d.]+ MB/s, cost is )([\d.]+)s',
                  lambda m: '%s%.2fs' % (m.group(1), float(m.group(2)) / speed), text)
    text = re.sub(r'speed is ([\d.]+) ?MB/s', lambda m: m.group(0).replace(m.group(1), '%.2f' % (float(m.group(1)) * speed)), text)
    text = re.sub(r'delta (readReclaim|badBlockRuntime) is (\d+)',
                  lambda m: 'delta %s is %d' % (m.group(1), int(m.group(2)) + extra_growth), text)
    if waf:
        text = re.sub(r'WAF is [\d.]+', 'WAF is %f' % waf, text)
    write(log, text)


class Batch(unittest.TestCase):
    made = False

    @classmethod
    def setUpClass(cls):
        if Batch.made:
            return
        Batch.made = True
        cls.dir = os.path.join(OUT, 'batch')
        shutil.rmtree(cls.dir, ignore_errors=True)
        os.makedirs(cls.dir)
        src = run_dir('default')
        phones = []
        for i, speed in enumerate((1.0, 1.03, 0.97, 1.01, 0.99)):
            phones.append(('SIMN%04d' % i, speed, 0, None))
        phones += [('SIMSLOW9', 0.5, 0, None), ('SIMWORN9', 1.0, 9, 3.6)]
        cls.dirs = []
        for serial, speed, grow, waf in phones:
            d = os.path.join(cls.dir, serial)
            make_phone(src, d, serial, speed, grow, waf)
            cls.dirs.append(d)
        cls.db = os.path.join(cls.dir, 'kept.sqlite')
        cls.res = subprocess.run([TOOL, 'batch', '--db', cls.db, '--out', cls.dir] + cls.dirs[:-1],
                                 capture_output=True, text=True, timeout=600)
        # A later batch adds to the kept file.
        cls.res2 = subprocess.run([TOOL, 'batch', '--db', cls.db, '--out', cls.dir, cls.dirs[-1]],
                                  capture_output=True, text=True, timeout=600)

    def test_slow_and_worn_phones_are_flagged_with_their_figure(self):
        self.assertEqual(self.res.returncode, 0, self.res.stderr)
        self.assertEqual(self.res2.returncode, 0, self.res2.stderr)
        lines = self.res2.stdout.splitlines()
        self.assertEqual(lines[0], '%s/batch.html (1 phone added, 0 left out, 7 in the database; 2 flagged)'
                         % os.path.abspath(self.dir))
        flags = dict(l.strip().split(': ', 1) for l in lines[1:])
        self.assertEqual(sorted(flags), ['SIMSLOW9', 'SIMWORN9'])
        self.assertIn('fill_mib_s', flags['SIMSLOW9'].split(', '))
        self.assertIn('seq_write', flags['SIMSLOW9'].split(', '))
        self.assertIn('waf_max', flags['SIMWORN9'].split(', '))
        self.assertIn('bad_block_growth', flags['SIMWORN9'].split(', '))

    def test_the_sqlite_file_is_kept_for_other_tools(self):
        import sqlite3
        db = sqlite3.connect(self.db)
        rows = db.execute('SELECT serial, verdict, cycles FROM phones ORDER BY serial').fetchall()
        self.assertEqual(len(rows), 7)
        self.assertTrue(all(v == 'SUCCESS' and c == 3 for _, v, c in rows))
        n = db.execute("SELECT COUNT(*) FROM cycles WHERE serial = 'SIMSLOW9'").fetchone()[0]
        self.assertEqual(n, 3)
        db.close()


class BatchWithoutAging(unittest.TestCase):
    def test_passes_without_aging_are_counted_apart(self):
        d = os.path.join(OUT, 'batch-no-aging')
        shutil.rmtree(d, ignore_errors=True)
        os.makedirs(d)
        dirs = []
        for serial, src in (('SIMAGED01', 'default'), ('SIMAGED02', 'default'), ('SIMNOAGE1', 'no-health-tool')):
            dirs.append(os.path.join(d, serial))
            make_phone(run_dir(src), dirs[-1], serial)
        r = subprocess.run([TOOL, 'batch', '--out', d] + dirs, capture_output=True, text=True, timeout=600)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout.splitlines()[0], '%s/batch.html (3 phones added, 0 left out, 3 in the database; '
                         '0 flagged; 1 passed without aging)' % os.path.abspath(d))
        page = read(os.path.join(d, 'batch.html'))
        self.assertIn('<table id="verdicts"><tr><th>SUCCESS</th><th>passed without aging</th><th>FAIL</th><th>SKIP'
                      '</th><th>START</th><th>UNKNOWN</th></tr><tr><td>2</td><td>1</td><td>0</td><td>0</td><td>0</td>'
                      '<td>0</td></tr></table>', page)
        self.assertIn('<li><b>SIMNOAGE1</b>: the storage filler returned before its first fill cycle: the health '
                      'tool could not be read</li>', page)
        import sqlite3
        db = sqlite3.connect(os.path.join(d, 'batch.sqlite'))
        rows = db.execute('SELECT serial, verdict, no_aging IS NOT NULL FROM phones ORDER BY serial').fetchall()
        db.close()
        self.assertEqual(rows, [('SIMAGED01', 'SUCCESS', 0), ('SIMAGED02', 'SUCCESS', 0), ('SIMNOAGE1', 'SUCCESS', 1)])


CHROMIUM_FLAGS = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
                  '--disable-background-networking', '--disable-component-update', '--disable-sync',
                  '--hide-scrollbars', '--window-size=1200,2400']


def chromium(args, user_dir):
    exe = shutil.which('chromium') or '/usr/bin/chromium'
    return subprocess.run([exe] + CHROMIUM_FLAGS + ['--user-data-dir=' + user_dir] + args,
                          capture_output=True, text=True, timeout=180)


class Browser(unittest.TestCase):
    def view(self, page):
        with tempfile.TemporaryDirectory() as ud:
            dom = chromium(['--dump-dom', 'file://' + page], os.path.join(ud, 'a'))
            self.assertEqual(dom.returncode, 0, dom.stderr[-2000:])
            png = page[:-5] + '.png'
            shot = chromium(['--screenshot=' + png, 'file://' + page], os.path.join(ud, 'b'))
            self.assertEqual(shot.returncode, 0, shot.stderr[-2000:])
        import matplotlib
        matplotlib.use('Agg')
        import matplotlib.image
        img = matplotlib.image.imread(png)
        return dom.stdout, img

    def test_report_page_draws_its_plots_and_shows_the_verdict(self):
        sm, _, out = report('default')
        dom, img = self.view(os.path.join(out, 'report.html'))
        svgs = re.findall(r'<svg.*?</svg>', dom, re.S)
        self.assertEqual(len(svgs), 5)
        for s in svgs:
            self.assertGreater(s.count('<path'), 5)   # lines, bars and axes are drawn
        self.assertRegex(dom, r'<div class="verdict SUCCESS" id="verdict"><div class="word">SUCCESS</div>')
        self.assertIn('Ended by wear', dom)
        self.assertIn('<b>%d</b><span>fill cycles</span>' % 3, dom)
        self.assertIn('<b>%.0f MiB/s</b><span>fill speed, median of cycles</span>'
                      % sm['figures']['fill_mib_s_median'], dom)
        # The screenshot is a page, not a blank: a fair share of it is ink, and the verdict's
        # green banner is there.
        h, w = img.shape[:2]
        ink = (img[:, :, :3].sum(axis=2) < 2.4).mean()
        self.assertGreater(ink, 0.03)
        top = img[: h // 8]
        green = ((top[:, :, 0] < 0.95) & (top[:, :, 1] > 0.9) & (top[:, :, 2] < 0.92)).sum()
        self.assertGreater(green, 1000)

    def test_batch_page_lists_the_phones_and_flags_the_odd_ones(self):
        Batch.setUpClass()
        dom, img = self.view(os.path.join(Batch.dir, 'batch.html'))
        self.assertEqual(dom.count('<tr class='), 7)
        self.assertIn('id="flag-SIMSLOW9"', dom)
        self.assertIn('id="flag-SIMWORN9"', dom)
        self.assertGreaterEqual(len(re.findall(r'<svg', dom)), 10)
        self.assertIn('<td class="flag">', dom)
        self.assertGreater((img[:, :, :3].sum(axis=2) < 2.4).mean(), 0.01)


if __name__ == '__main__':
    unittest.main()
