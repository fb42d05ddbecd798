"""Reads flash_aging.log as the program leaves it.

A logged line is a prefix "[YYYY-MM-DD hh:mm:ss.mmm][tid]" and a body "[FLASH]LEVEL:func:line msg"
written by two separate calls, so the prefixes and bodies of two threads may interleave:
"[t1][a][t2][b][FLASH]... (b)\n[FLASH]... (a)\n".  Some bodies have no prefix at all, and
the benchmark and health deltas are plain lines.  The reader splits the text into records:
each body takes the oldest prefix still waiting (FIFO), plain lines keep the time of the
record before them.  Anything that fits none of the shapes is kept as a garbled record so
the report can mark the gap.
"""

import re
from datetime import datetime

PREFIX_RE = re.compile(r'\[(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})\]\[(-?\d+)\]')
BODY_RE = re.compile(r'\[FLASH\](INFO|WARN|ERROR|FATAL):([^:\s]*):(-?\d+) ?(.*)$')
# A body that another thread's prefix interrupted: "[FLASH]INFO:f:12 text" can only be
# split between two writes at its start, so anything else is taken as it is.


class Record:
    __slots__ = ('no', 'ts', 'tid', 'level', 'func', 'src', 'msg', 'kind', 'raw')

    def __init__(self, no, ts, tid, level, func, src, msg, kind, raw):
        self.no = no          # line number in the log file (1-based)
        self.ts = ts          # seconds since the epoch (float) or None
        self.tid = tid        # thread id or None
        self.level = level    # INFO/WARN/ERROR/FATAL, or None for plain lines
        self.func = func
        self.src = src
        self.msg = msg        # message text (plain lines: the line)
        self.kind = kind      # 'body', 'plain', 'garbled'
        self.raw = raw        # the physical line as read

    def __repr__(self):
        return 'Record(%d,%s,%r)' % (self.no, self.kind, self.msg)


_ts_cache = {}


def parse_ts(text):
    """'2024-03-05 14:07:09.042' -> seconds (local time taken as naive, consistent within a log)."""
    base, ms = text[:19], text[20:23]
    v = _ts_cache.get(base)
    if v is None:
        try:
            v = datetime.strptime(base, '%Y-%m-%d %H:%M:%S').timestamp()
        except (ValueError, OverflowError, OSError):
            return None
        if len(_ts_cache) > 100000:
            _ts_cache.clear()
        _ts_cache[base] = v
    return v + int(ms) / 1000.0


def _printable_ratio(s):
    if not s or s.isprintable():
        return 1.0
    good = sum(1 for c in s if c.isprintable() or c == '\t')
    return good / len(s)


class RecordReader:
    """Splits log text into records as it arrives: complete lines may be fed in any number of
    pieces (a followed log), and the prefixes still waiting for their bodies carry over."""

    def __init__(self):
        self.no = 0           # lines read so far
        self.pending = []     # prefixes (ts, tid) waiting for their bodies
        self.last_ts = None

    def feed(self, text):
        """Records of the lines in `text` (split at line ends; a last piece without one is a line
        too). Never raises on any input."""
        if isinstance(text, bytes):
            text = text.decode('utf-8', errors='replace')
        out = []
        for line in text.split('\n'):
            self.no += 1
            self._line(self.no, line, out)
        return out

    def feed_lines(self, lines):
        out = []
        for line in lines:
            self.no += 1
            self._line(self.no, line.rstrip('\n'), out)
        return out

    def _line(self, no, line, records):
        pending = self.pending
        if '\r' in line:
            line = line.replace('\r', '')
        if not line:
            return
        rest = line
        # Leading prefixes, one or more (two threads that both wrote their prefix first).
        while True:
            m = PREFIX_RE.match(rest)
            if not m:
                break
            ts = parse_ts(m.group(1))
            try:
                tid = int(m.group(2))
            except ValueError:
                tid = None
            pending.append((ts, tid))
            if len(pending) > 64:
                del pending[0]
            rest = rest[m.end():]
        if not rest:
            return
        last_ts = self.last_ts
        m = BODY_RE.match(rest)
        if m and (PREFIX_RE.search(rest) or _printable_ratio(rest) < 0.9):
            # a body with another line's prefix inside it, or binary noise
            records.append(Record(no, last_ts, None, None, None, 0, rest.rstrip(), 'garbled', line))
            return
        if m:
            ts = tid = None
            if pending:
                ts, tid = pending.pop(0)
            if ts is not None:
                self.last_ts = ts
            try:
                src = int(m.group(3))
            except ValueError:
                src = 0
            records.append(Record(no, ts if ts is not None else last_ts, tid, m.group(1),
                                  m.group(2), src, m.group(4).rstrip(), 'body', line))
            return
        # A prefix in the middle of a line means a line was cut short (a crash, a lost
        # write): what came before it is a broken piece.
        if PREFIX_RE.search(rest) or '[FLASH]' in rest[1:] or _printable_ratio(rest) < 0.9 \
                or rest.startswith('[FLASH]'):
            records.append(Record(no, last_ts, None, None, None, 0, rest.rstrip(), 'garbled', line))
            return
        records.append(Record(no, last_ts, None, None, None, 0, rest.rstrip(), 'plain', line))


def read_records(data):
    """Splits the log's bytes into records. Never raises on any input."""
    return RecordReader().feed(data)


# ---- runs ----------------------------------------------------------------------------

# Lines that only the set-up of a new process writes (the log is opened for appending, so
# every run of the program adds its lines after those of the one before).
SETUP_FUNCS = {'init_log_file', 'init_result', 'initialize_args'}
SETUP_MSGS = ('aging version is 2.0', 'Start init flash Aging Test env!')
END_MSG = 'flash aging cost time'


def _starts_run(r):
    if r.kind != 'body':
        return False
    if r.func in SETUP_FUNCS:
        return True
    if r.func == 'main' and r.msg.startswith('Start init flash Aging Test env!'):
        return True
    return False


def split_runs(records):
    """Groups records into runs. A run begins at the first set-up line after the previous
    run has gone past its set-up (or ended)."""
    runs = []
    cur = []
    past_setup = False
    for r in records:
        if _starts_run(r) and cur and past_setup:
            runs.append(cur)
            cur = []
            past_setup = False
        cur.append(r)
        if r.kind == 'body' and not (r.func in SETUP_FUNCS or r.func == 'main' and
                                     r.msg.startswith('Start init flash Aging Test env!')):
            past_setup = True
    if cur:
        runs.append(cur)
    # A log whose first run begins with stray lines (the tail of a run cut off by a rotation)
    # keeps them in the first run.
    return runs


def looks_like_log(records):
    """Whether the text is this program's log at all: some [FLASH] bodies must be there."""
    bodies = sum(1 for r in records if r.kind == 'body')
    return bodies > 0
