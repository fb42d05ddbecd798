"""flashaging-report watch as an engineer uses it: a recorded run's log fed line by line on a
pipe, a run folder whose log grows and then stops, and the screen in a real terminal
(tmux) while the simulator runs a phone. Every moment is reached by what the watch printed
or what the log holds, with a bound on the wait, never by a fixed sleep."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from datetime import datetime

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)
sys.path.insert(0, TOP)
TOOL = os.path.join(TOP, 'flashaging-report')
RECORDED = os.path.join(HERE, 'data', 'default-run.log')   # a default phone's run, as the simulator left it
SIM = os.environ.get('FLASHAGING_SIM_BIN', '')
PROFILES = os.environ.get('FLASHAGING_PROFILES', os.path.join(os.path.dirname(TOP), 'sim', 'profiles'))
OUT = os.environ.get('REPORT_TEST_OUT', os.path.join(tempfile.gettempdir(), 'flashaging-report-test'))

from tests.test_parser import body, p, run_lines  # noqa: E402

# What the plain mode prints for the recorded run: one line per phase, then the verdict.
RECORDED_LINES = """\
[01:34:50] set-up
[01:34:50] cycle 1: fill, file mix 0 (190 files a pass, 4 KiB to 32 MiB, mostly small)
[01:35:00] cycle 1: benchmark; fill 2.26 GiB by 8 writers at 251 MiB/s
[01:35:00] cycle 1: health judgement; 13916 verified reads/s (4 readers); benchmark seq write 256.5, seq read 499.2, \
rand write 21.0, rand read 34.7 MiB/s
[01:35:16] cycle 1 done in 25.3 s; P/E +2 of 5 allowed (5 -> 7, ends above 10); forecast: ends after cycle 3 at \
01:36:06, by wear
[01:35:16] cycle 2: fill, file mix 2 (8 files of 32 MiB a pass)
[01:35:25] cycle 2: benchmark; fill 2.12 GiB by 8 writers at 250 MiB/s
[01:35:25] cycle 2: health judgement; 4864 verified reads/s (4 readers); benchmark seq write 257.3, seq read 500.7, \
rand write 30.6, rand read 28.8 MiB/s
[01:35:40] cycle 2 done in 24.3 s; P/E +4 of 5 allowed (5 -> 9, ends above 10); forecast: ends after cycle 3 at \
01:36:05 (01:36:04-01:36:05), by wear
[01:35:40] cycle 3: fill, file mix 1 (44 files a pass, 4 KiB to 32 MiB, mostly large)
[01:35:48] cycle 3: benchmark; fill 2.08 GiB by 8 writers at 250 MiB/s
[01:35:48] cycle 3: health judgement; 13877 verified reads/s (4 readers); benchmark seq write 245.3, seq read 503.2, \
rand write 43.1, rand read 27.2 MiB/s
[01:36:03] cycle 3 done in 23.4 s; P/E +7 of 5 allowed (5 -> 12, ends above 10); forecast: ends after cycle 3 at \
01:36:03, by wear
[01:36:03] summary
SUCCESS: Ended by wear: the P/E count grew from 5 to 12 (+7), more than the 5 cycles the run allows; the last cycle's \
line.
""".splitlines()

PACE = 0.15     # the recorded run's line timing, this much faster (73 s of log in 11 s)
R_TS = re.compile(r'\[(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})\]')


def recorded():
    with open(RECORDED, encoding='utf-8') as f:
        return f.read().splitlines(True)


def stamp(line):
    m = R_TS.search(line)
    return datetime.strptime(m.group(1), '%Y-%m-%d %H:%M:%S.%f').timestamp() if m else None


class Output(threading.Thread):
    """Reads a process's output line by line; `wait_for` waits (bounded) for a line."""

    def __init__(self, stream):
        super().__init__(daemon=True)
        self.stream, self.lines, self.cond = stream, [], threading.Condition()
        self.start()

    def run(self):
        for line in self.stream:
            with self.cond:
                self.lines.append(line.rstrip('\n'))
                self.cond.notify_all()

    def wait_for(self, pred, timeout=15.0):
        with self.cond:
            return self.cond.wait_for(lambda: any(pred(l) for l in self.lines), timeout)


def watch(test, *args, **kw):
    w = subprocess.Popen([TOOL, 'watch'] + list(args), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                         text=True, **kw)

    def end():
        if w.poll() is None:
            w.kill()
        w.wait()
        for s in (w.stdin, w.stdout, w.stderr):
            if s:
                s.close()
    test.addCleanup(end)
    return w


class PlainOnAPipe(unittest.TestCase):
    def test_stdin_line_by_line_at_a_runs_pace_gives_each_phase_as_it_comes(self):
        w = watch(self, '-', stdin=subprocess.PIPE)
        out = Output(w.stdout)
        lines = recorded()
        t0, s0 = stamp(lines[0]), time.monotonic()
        for line in lines:
            ts = stamp(line)
            if ts is not None:
                delay = s0 + (ts - t0) * PACE - time.monotonic()
                if delay > 0:
                    time.sleep(delay)      # the run's own pace between its lines
            w.stdin.write(line)
            w.stdin.flush()
            m = re.search(r'fill_cycle (\d)/5 cost', line)
            if m:
                # A cycle's end is on the watch's output before the producer writes on.
                k = {'0': 1, '2': 2, '4': 3}[m.group(1)]
                self.assertTrue(out.wait_for(lambda l: l.startswith('[') and ' cycle %d done in ' % k in l),
                                'cycle %d not shown while the run went on: %s' % (k, out.lines))
        w.stdin.close()
        self.assertEqual(w.wait(timeout=15), 0, w.stderr.read())
        out.join(5)
        self.assertEqual(out.lines, RECORDED_LINES)

    def test_a_log_that_stops_without_an_end_exits_3_soon_after_its_producer(self):
        w = watch(self, '-', stdin=subprocess.PIPE)
        out = Output(w.stdout)
        lines = recorded()[:60]               # cycle 2 has begun
        w.stdin.write(''.join(lines))
        w.stdin.flush()
        self.assertTrue(out.wait_for(lambda l: l.endswith('cycle 2: fill, file mix 2 (8 files of 32 MiB a pass)')))
        ended = time.monotonic()
        w.stdin.close()
        self.assertEqual(w.wait(timeout=10), 3)
        self.assertLess(time.monotonic() - ended, 5.0)
        out.join(5)
        self.assertEqual(out.lines[-1], "ABNORMAL END: the log stopped before the run's end (no end line); last line 60")

    def test_exit_status_follows_the_verdict(self):
        fail = run_lines(cycles=1, end=False) + [
            p(50, 2) + body('storage_filler', 'filler[9].output is 1', 'ERROR'),
            p(50, 2) + body('storage_filler_run', 'storage_filler cycle 2 fail 1', 'ERROR'),
            p(51, 2) + body('main', 'Run flashtest testlist fail', 'FATAL'),
            p(52, 2) + body('flash_agingcost', 'flash aging cost time :52.0(S) ')]
        skip = [p(0, 2) + body('initialize_args', 'aging version is 2.0'),
                body('initialize_flashtest_env', "PE > 30 or get healthinfo fail, can't perform flash agingtest",
                     'FATAL') + '\n', body('main', 'skip flashtest!', 'FATAL') + '\n',
                p(1, 2) + body('flash_agingcost', 'flash aging cost time :0.5(S) ')]
        sig = run_lines(cycles=1, end=False) + [p(50, 2) + body('flash_sigroutine', 'SIG 15 catched', 'ERROR')]
        for name, text, code, last in (
                ('fail', fail, 1, 'FAIL: A test failed; the first failure line.'),
                ('skip', skip, 4, 'SKIP: Skipped at set-up: the device is worn (P/E count above 30).'),
                ('signal', sig, 3, "ABNORMAL END: abnormal end: the program caught SIGTERM; the log stopped before "
                                   "the run's end (no end line); last line %d" % len(''.join(sig).splitlines()))):
            with self.subTest(name):
                r = subprocess.run([TOOL, 'watch', '-'], input=''.join(text), capture_output=True, text=True,
                                   timeout=30)
                self.assertEqual(r.returncode, code, r.stdout + r.stderr)
                self.assertEqual(r.stdout.splitlines()[-1], last)
        f = [l for l in subprocess.run([TOOL, 'watch', '-'], input=''.join(fail), capture_output=True, text=True,
                                       timeout=30).stdout.splitlines() if 'FAILURE' in l]
        self.assertEqual(f, ['[10:00:50] FAILURE line %d: %s' % (len(''.join(fail).splitlines()) - 3,
                                                                  fail[-4].rstrip('\n'))])
        for args, err in ((['watch'], 'flashaging-report: watch needs a run folder or - (standard input)\n'),
                          (['watch', '/nonexistent/run'], 'flashaging-report: /nonexistent/run is not a folder\n'),
                          (['watch', '--idle', 'x', '-'], "flashaging-report: --idle takes a number, not 'x'\n")):
            r = subprocess.run([TOOL] + args, capture_output=True, text=True, timeout=30)
            self.assertEqual(r.returncode, 2)
            self.assertTrue(r.stderr.startswith(err), r.stderr)


class RunFolder(unittest.TestCase):
    def folder(self, lines, record=None):
        d = tempfile.mkdtemp(prefix='watch-')
        self.addCleanup(shutil.rmtree, d, True)
        os.mkdir(os.path.join(d, 'factory'))
        with open(os.path.join(d, 'factory', 'flash_aging.log'), 'w') as f:
            f.write(''.join(lines))
        if record:
            with open(os.path.join(d, 'factory', 'flash_aging_result.txt'), 'wb') as f:
                f.write(record)
        return d

    def test_the_log_stops_when_the_producing_process_ends(self):
        producer = subprocess.Popen(['sleep', '60'])
        self.addCleanup(producer.wait)
        self.addCleanup(producer.kill)
        d = self.folder(recorded()[:30])
        w = watch(self, '--while-pid', str(producer.pid), d)
        out = Output(w.stdout)
        self.assertTrue(out.wait_for(lambda l: ' cycle 1: benchmark; ' in l))
        with open(os.path.join(d, 'factory', 'flash_aging.log'), 'a') as f:
            f.write(''.join(recorded()[30:50]))
        self.assertTrue(out.wait_for(lambda l: l.endswith('] cycle 2: fill, file mix 2 (8 files of 32 MiB a pass)')))
        producer.kill()
        producer.wait()
        ended = time.monotonic()
        self.assertEqual(w.wait(timeout=10), 3)
        self.assertLess(time.monotonic() - ended, 5.0)

    def test_idle_log_ends_the_watch_and_a_finished_run_gives_the_records_verdict(self):
        d = self.folder(recorded()[:40])
        t0 = time.monotonic()
        r = subprocess.run([TOOL, 'watch', '--idle', '1', d], capture_output=True, text=True, timeout=30)
        self.assertEqual(r.returncode, 3, r.stderr)
        self.assertLess(time.monotonic() - t0, 10)
        # A finished run: its verdict at once (the pass/fail record's word wins over the log's).
        d = self.folder(recorded(), record=b'SUCCESS\0\0\0')
        r = subprocess.run([TOOL, 'watch', d], capture_output=True, text=True, timeout=30)
        self.assertEqual((r.returncode, r.stdout.splitlines()), (0, RECORDED_LINES))


class TerminalCase(unittest.TestCase):
    """The screen in a real terminal: tmux runs it (a server of the test's own), capture-pane
    reads it."""

    def setUp(self):
        if not shutil.which('tmux'):
            self.skipTest('no tmux (scripts/deps.sh installs it)')
        self.socket = 'flashaging-watch-%d-%s' % (os.getpid(), self._testMethodName[:40])
        self.addCleanup(self.tmux, 'kill-server')

    def tmux(self, *args):
        return subprocess.run(['tmux', '-L', self.socket] + list(args), capture_output=True, text=True, timeout=30)

    def start(self, command):
        r = self.tmux('new-session', '-d', '-s', 'w', '-x', '132', '-y', '45',
                      command + '; echo "EXIT $?"; sleep 600')
        self.assertEqual(r.returncode, 0, r.stderr)

    def screen(self, colours=False):
        return self.tmux('capture-pane', '-p', '-t', 'w', *(['-e'] if colours else [])).stdout

    def wait_screen(self, pred, timeout):
        until = time.monotonic() + timeout
        while time.monotonic() < until:
            s = self.screen()
            if pred(s):
                return s
            time.sleep(0.2)
        self.fail('not on the screen within %d s:\n%s' % (timeout, self.screen()))

    @staticmethod
    def row(screen, name):
        m = re.search(r'│ %s\s+(.*?)\s*│' % re.escape(name), screen)
        return m.group(1) if m else None


class Terminal(TerminalCase):
    def test_failure_line_shows_in_red_as_soon_as_it_is_logged_and_the_verdict_ends_it(self):
        d = tempfile.mkdtemp(prefix='watch-tty-')
        self.addCleanup(shutil.rmtree, d, True)
        log = os.path.join(d, 'flash_aging.log')
        lines = run_lines(cycles=1, end=False)
        with open(log, 'w') as f:
            f.write(''.join(lines))
        self.start('%s watch %s' % (TOOL, d))
        s = self.wait_screen(lambda s: 'cycle 1 done in 40.0 s' in s, 20)
        self.assertEqual(self.row(s, 'Failure'), 'none')
        bad = p(60, 2) + body('storage_filler', 'filler[9].output is 1', 'ERROR')
        with open(log, 'a') as f:
            f.write(p(50, 2) + body('storage_filler_run', 'g_group_size is 268435456') + bad)
        s = self.wait_screen(lambda s: 'filler[9]' in s, 10)
        self.assertEqual(self.row(s, 'Failure'), 'line %d: %s' % (len(''.join(lines).splitlines()) + 2, bad.strip()))
        painted = [l for l in self.screen(colours=True).splitlines() if 'filler[9]' in l][0]
        self.assertRegex(painted, r'\x1b\[[0-9;]*(31|91)[0-9;]*m(\x1b\[[0-9;]*m)*line \d+: \[')
        with open(log, 'a') as f:
            f.write(p(61, 2) + body('storage_filler_run', 'storage_filler cycle 2 fail 1', 'ERROR')
                    + p(62, 2) + body('main', 'Run flashtest testlist fail', 'FATAL')
                    + p(63, 2) + body('flash_agingcost', 'flash aging cost time :63.0(S) '))
        s = self.wait_screen(lambda s: 'EXIT ' in s, 10)
        self.assertIn('│ FAIL: A test failed; the first failure line.', s)
        self.assertIn('EXIT 1', s)



class SimulatedRunInATerminal(TerminalCase):
    def test_simulated_run_shows_phase_counters_forecast_and_verdict(self):
        if not SIM:
            self.skipTest('FLASHAGING_SIM_BIN names no simulator')
        out = os.path.join(OUT, 'watch-tty-default')
        self.start('%s run --profile %s --out %s' % (SIM, os.path.join(PROFILES, 'default'), out))
        log = os.path.join(out, 'factory', 'flash_aging.log')
        s = self.wait_screen(lambda s: re.search(r'│ Phase\s+cycle 1: fill for', s), 120)
        self.assertEqual(self.row(s, 'Phone'), 'SIM0123456789 · SIMPHONE-1 22801 · SK Hynix H9HQ16AECMMDAR')
        self.assertEqual(self.row(s, 'Forecast'), 'forecast after the first complete cycle')
        s1 = self.wait_screen(lambda s: '(made after cycle 1)' in s, 120)
        s2 = self.wait_screen(lambda s: '(made after cycle 2)' in s, 120)
        for s, k in ((s1, 1), (s2, 2)):
            # The counters are what the log said after cycle k.
            with open(log) as f:
                numbers = [int(x) for x in re.findall(r'fill_cycle (\d+)/5 cost', f.read())]
            growth = int(re.search(r'\+(\d+) of 5 allowed', self.row(s, 'P/E growth')).group(1))
            self.assertGreaterEqual(growth, numbers[k - 1] + 1)
            self.assertRegex(self.row(s, 'Forecast'), r'^ends after cycle \d+( \(\d+-\d+\))? at \d\d:\d\d:\d\d'
                                                      r'( \(\S+\))?, by wear \(made after cycle %d\)$' % k)
        w1 = float(re.match(r'([\d.]+) GiB', self.row(s1, 'Written')).group(1))
        w2 = float(re.match(r'([\d.]+) GiB', self.row(s2, 'Written')).group(1))
        self.assertGreater(w2, w1 + 2)
        self.assertNotEqual(self.row(s1, 'P/E growth'), self.row(s2, 'P/E growth'))
        s = self.wait_screen(lambda s: 'EXIT ' in s, 180)
        self.assertIn('│ SUCCESS: Ended by wear: the P/E count grew from 5 to ', s)
        self.assertIn('  report   %s/report.html' % out, s)
        self.assertIn('EXIT 0', s)
        # The simulator's own summary follows the view, as without a terminal.
        self.assertRegex(s, r'╰─+╯\nflashaging-sim: the executable ended \(exit status 0\) after [\d.]+ s\n')


if __name__ == '__main__':
    unittest.main()
