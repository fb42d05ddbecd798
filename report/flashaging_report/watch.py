"""flashaging-report watch DIR|- : follows a run in progress.

DIR is a run folder whose log grows (the simulator's, or a phone's /cache/factory being
pulled again and again); - reads the log from standard input (adb shell tail -f ... |).
On a terminal one screen is kept up to date (every second, and at every new line); on
anything else one plain line per change of phase. The watch ends with the run: its end
line (then the verdict, exit 0 SUCCESS, 1 FAIL, 4 SKIP), or the producer's end without one
(end of standard input, --while-pid's process gone, SIGTERM, or --idle seconds without a
new line: exit 3).
"""

import os
import select
import signal
import sys
import time

from . import live as lv
from . import runfiles

POLL_S = 0.25
REFRESH_S = 1.0
DEFAULT_IDLE_S = 3600.0

USAGE = """usage: flashaging-report watch [--plain] [--idle SECONDS] [--while-pid PID] DIR|-"""


def _err(msg):
    sys.stderr.write('flashaging-report: %s\n' % msg)


class Stop(Exception):
    pass


class DirSource:
    """The log of a run folder (DIR/factory/ or DIR itself), read as it grows. A log that is
    replaced (a new pull) or cut shorter is read again from its start."""

    def __init__(self, run_dir):
        sub = os.path.join(run_dir, 'factory')
        self.dir = sub if os.path.isdir(sub) else run_dir
        self.path = os.path.join(self.dir, runfiles.LOG)
        self.f = None
        self.ident = None
        self.pos = 0
        self.tail = b''
        self.restarted = False

    def label(self):
        return self.path

    def record_word(self):
        word, _ = runfiles.record_word(runfiles.read_bytes(os.path.join(self.dir, runfiles.RECORD), 64))
        return word

    def device(self):
        res = runfiles.parse_results(runfiles.read_bytes(os.path.join(self.dir, runfiles.RESULTS)))
        return (res or {}).get('device')

    def read(self, wait):
        """(complete lines, host time they were seen, end of input?)"""
        try:
            st = os.stat(self.path)
        except OSError:
            time.sleep(wait)
            return [], None, False
        ident = (st.st_dev, st.st_ino)
        if self.f is None or ident != self.ident or st.st_size < self.pos:
            if self.f is not None:
                self.f.close()
                self.restarted = True
            self.f = open(self.path, 'rb')
            self.ident, self.pos, self.tail = ident, 0, b''
        data = self.f.read()
        if not data:
            time.sleep(wait)
            return [], None, False
        self.pos += len(data)
        # The lines were written by the file's last change at the latest.
        return self._lines(data), min(st.st_mtime, time.time()), False

    def _lines(self, data):
        data = self.tail + data
        cut = data.rfind(b'\n') + 1
        self.tail = data[cut:]
        return data[:cut].decode('utf-8', errors='replace').split('\n')[:-1]

    def rest(self):
        """A last line without its line end, at the end of input."""
        return [self.tail.decode('utf-8', errors='replace')] if self.tail else []


class StdinSource(DirSource):
    def __init__(self):
        self.fd = sys.stdin.fileno()
        self.tail = b''
        self.restarted = False

    def label(self):
        return 'standard input'

    def record_word(self):
        return None

    def device(self):
        return None

    def read(self, wait):
        r, _, _ = select.select([self.fd], [], [], wait)
        if not r:
            return [], None, False
        data = os.read(self.fd, 1 << 16)
        if not data:
            return [], None, True
        return self._lines(data), time.time(), False


def pid_alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        return True
    try:
        with open('/proc/%d/stat' % pid) as f:
            return f.read().rsplit(')', 1)[1].split()[0] != 'Z'
    except (OSError, IndexError):
        return True


class PlainUI:
    def __init__(self, out):
        self.out = out

    texts = True

    def events(self, live, events):
        for ev in events:
            if ev[0] == 'phase' and ev[1] == ('end',):
                continue
            if ev[0] == 'run' and live.runs == 1:
                continue
            self.say(ev[-1])

    def tick(self, live, now):
        pass

    def say(self, text):
        self.out.write(text + '\n')
        self.out.flush()

    def finish(self, live, verdict):
        self.say(verdict[0])


class ScreenUI:
    def __init__(self, source):
        from rich.console import Console
        from rich.live import Live
        self.source = source
        self.console = Console()
        self.live_view = Live(console=self.console, auto_refresh=False, redirect_stdout=False,
                              redirect_stderr=False)
        self.last = 0.0
        self.device = None
        self.live_view.start()

    texts = False

    def events(self, live, events):
        self.tick(live, time.time(), force=True)

    def tick(self, live, now, force=False):
        if not force and now - self.last < REFRESH_S:
            return
        from . import screen
        if self.device is None or now - self.last > 10:
            self.device = self.source.device()
        self.last = now
        self.live_view.update(screen.render(live, self.source.label(), self.device), refresh=True)

    def finish(self, live, verdict):
        from . import screen
        self.device = self.source.device() or self.device
        self.live_view.update(screen.render(live, self.source.label(), self.device, verdict), refresh=True)
        self.live_view.stop()

    def abort(self):
        self.live_view.stop()


def parse(args):
    opts = {'plain': False, 'idle': DEFAULT_IDLE_S, 'pid': None, 'src': None}
    i = 0
    while i < len(args):
        a = args[i]
        if a == '--plain':
            opts['plain'] = True
        elif a in ('--idle', '--while-pid') and i + 1 < len(args):
            try:
                v = float(args[i + 1]) if a == '--idle' else int(args[i + 1])
            except ValueError:
                raise Stop('%s takes a number, not %r' % (a, args[i + 1]))
            opts['idle' if a == '--idle' else 'pid'] = v
            i += 1
        elif a.startswith('-') and a != '-':
            raise Stop('unknown option %s' % a)
        elif opts['src'] is None:
            opts['src'] = a
        else:
            raise Stop('watch takes one DIR or -')
        i += 1
    if opts['src'] is None:
        raise Stop('watch needs a run folder or - (standard input)')
    return opts


def main(args):
    try:
        o = parse(args)
    except Stop as ex:
        _err(str(ex))
        sys.stderr.write(USAGE + '\n')
        return 2
    if o['src'] == '-':
        source = StdinSource()
    elif os.path.isdir(o['src']):
        source = DirSource(o['src'])
    else:
        _err('%s is not a folder' % o['src'])
        return 2
    stopping = []
    signal.signal(signal.SIGTERM, lambda *_: stopping.append('SIGTERM'))
    screen_mode = not o['plain'] and sys.stdout.isatty()
    ui = ScreenUI(source) if screen_mode else PlainUI(sys.stdout)
    live = lv.LiveRun()
    first = True
    last_line_at = time.time()
    eof = False
    try:
        while True:
            lines, seen, eof = source.read(POLL_S)
            if source.restarted:
                source.restarted = False
                live = lv.LiveRun()
            now = time.time()
            if lines:
                last_line_at = now
                events = live.feed(lines, seen, ui.texts)
                if first:
                    # What the log held before: only its last run's phases.
                    runs = [i for i, ev in enumerate(events) if ev[0] == 'run']
                    events = events[runs[-1]:] if runs else events
                    first = False
                ui.events(live, events)
                if live.ended():
                    break
            if eof or stopping or (o['pid'] is not None and not pid_alive(o['pid'])) or \
                    (o['idle'] > 0 and now - last_line_at > o['idle']):
                # The producer has ended: what is still in the file, then the end.
                while not eof:
                    more, seen, eof = source.read(0)
                    if not more:
                        break
                    ui.events(live, live.feed(more, seen, ui.texts))
                if eof or not live.ended():
                    ui.events(live, live.feed(source.rest(), None, ui.texts))
                break
            ui.tick(live, now)
    except KeyboardInterrupt:
        if screen_mode:
            ui.abort()
        return 130
    verdict = lv.final_line(live, source.record_word())
    ui.finish(live, verdict)
    return verdict[1]
