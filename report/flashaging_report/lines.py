"""What each kind of error-looking line means, told by what the program does after it.

A line is one of:
  'failure'  the program counts it against the run: the test or the run fails (unless the
             run was told to go on after errors, -test_policy);
  'retried'  the program tries the same step again (a reader's read after 10 s, a benchmark
             transfer that moved nothing);
  'benign'   the program goes on as on a pass (the disk is full and the pass ends, the
             benchmark skips a mode it could not prepare, a writer gives up at the barrier,
             the watchdog ends the test).
Lines of no such kind (progress, figures) are not classified.
"""

import re

FAILURE, RETRIED, BENIGN = 'failure', 'retried', 'benign'

ENOENT, EBADF, ENOSPC = 2, 9, 28
WDT_TIMEOUT_CODE = 0x4321


class Context:
    """What earlier lines of the run tell about the next ones."""

    def __init__(self):
        self.watchdog_end = False     # the filler reported "exit, wdt timeout"
        self.retried_readers = set()  # reader thread ids that used their one retry this cycle

    def new_cycle(self):
        self.retried_readers = set()


def _i(s):
    try:
        return int(s)
    except (TypeError, ValueError):
        return None


# ---- decisions that depend on the numbers in the line ----------------------------------

def _worker_output(m, r, ctx):
    if _i(m.group(1)) == WDT_TIMEOUT_CODE:
        return BENIGN, 'a worker the watchdog ended (0x4321): the cycle ends as a pass'
    return FAILURE, 'the first worker with a non-zero result: the cycle fails with it'


def _final_judgement(m, r, ctx):
    if ctx.watchdog_end:
        return BENIGN, 'the watchdog had ended the test: its pass stands (0x4321 | 1 is 0x4321)'
    return FAILURE, 'the judgement of the whole test failed: the storage filler fails'


def _writer_open(m, r, ctx):
    if _i(m.group(1)) == ENOSPC:
        return BENIGN, 'the disk is full (ENOSPC): the pass ends and the writer meets the others'
    return FAILURE, 'the writer stops with result 1: the cycle fails'


def _writer_write(m, r, ctx):
    if _i(m.group(1)) == ENOSPC:
        return BENIGN, 'the disk is full (ENOSPC): the pass ends and the writer meets the others'
    return FAILURE, 'the writer stops with result 1: the cycle fails'


def _reader_read(m, r, ctx):
    err = _i(m.group(1))
    key = r.tid
    if err in (ENOENT, EBADF) and key not in ctx.retried_readers:
        ctx.retried_readers.add(key)
        return RETRIED, 'the reader waits 10 s and opens the same file again (once per cycle)'
    return FAILURE, 'the reader stops with result 1: the cycle fails'


def _bench_transfer(m, r, ctx):
    err, done = _i(m.group(1)), _i(m.group(2))
    if err:
        return FAILURE, 'the worker keeps error %d as its result: the benchmark mode fails' % err
    if done == 0:
        return RETRIED, 'nothing moved (end of the shared file): the same transfer again, result 0'
    return BENIGN, 'the worker stops with result 0: the mode passes on the others\' transfers'


def _const(cls, why):
    return lambda m, r, ctx: (cls, why)


# (function tag or None for a plain line, pattern on the message, decision)
RULES = [
    ('storage_filler', re.compile(r'^filler\[\d+\]\.output is (-?\d+)$'), _worker_output),
    ('storage_filler_run', re.compile(r'^storage_filler cycle -?\d+ exit, wdt timeout$'),
     _const(BENIGN, 'the watchdog\'s time is up: the storage filler ends as a pass')),
    ('storage_filler_run', re.compile(r'^storage_filler cycle -?\d+ fail'),
     _const(FAILURE, 'the fill failed: the test ends (unless it goes on after errors)')),
    ('storage_filler_run', re.compile(r'^benchmark_check cycle -?\d+ fail'),
     _const(FAILURE, 'a benchmark worker failed: the test ends (unless it goes on after errors)')),
    ('storage_filler_run', re.compile(r'^healthinfo_judge cycle -?\d+ fail'),
     _const(FAILURE, 'the health counters grew past their limits: the test ends')),
    ('storage_filler_run', re.compile(r'^healthinfo_judge fail$'), _final_judgement),
    (('storage_filler_run', 'storage_filler'), re.compile(r'^malloc failed'),
     _const(BENIGN, 'the cycle skips its fill and goes on to the benchmark, not a failure')),
    (('storage_filler_run', 'storage_filler'), re.compile(r'^(create (w_th|r_th) -?\d+|join thread -?\d+) failed'),
     _const(FAILURE, 'the cycle fails with the error number')),
    ('fill_fn', re.compile(r'^barrier wait failed'),
     _const(BENIGN, 'the writer gives up at the barrier with result 0 and stops the fill')),
    ('sbmt_barrier_wait', re.compile(r'^Wait the barrier cond failed with'),
     _const(BENIGN, 'the 10 s give-up at the barrier: that writer ends with result 0')),
    ('get_free_space', re.compile(r'^fail to get stat for FS'),
     _const(BENIGN, 'free space is taken as unlimited: the fill goes on')),
    ('random_finish_group_file', re.compile(r'^open .* failed (-?\d+)$'), _writer_open),
    ('random_finish_group_file', re.compile(r'^write fail -?\d+, errno is (-?\d+)'), _writer_write),
    ('random_finish_group_file', re.compile(r'^malloc size -?\d+ failed'),
     _const(FAILURE, 'the writer stops with result 1: the cycle fails')),
    ('read_disturb_file', re.compile(r'^read file .* failed (-?\d+)$'), _reader_read),
    ('read_disturb_file', re.compile(r'^(open .* failed|fail to get disturb file name|malloc size -?\d+ failed)'),
     _const(FAILURE, 'the reader stops with result 1: the cycle fails')),
    ('run_flash_tests', re.compile(r'^case -?\d+ : healthinfo_judge failed'),
     _const(FAILURE, 'the runner\'s health judgement failed: the run fails')),
    ('run_flash_tests', re.compile(r'get error state'), _const(FAILURE, 'a test reported failure: the run fails')),
    ('run_flash_tests', re.compile(r'^Test -?\d+ index failed'),
     _const(FAILURE, 'the storage driver reported errors: the run fails unless they are skipped')),
    ('run_flash_tests', re.compile(r'^Not skip driver errors'),
     _const(FAILURE, 'driver errors are not skipped: the run fails')),
    ('run_flash_tests', re.compile(r'^But skip driver errors'),
     _const(BENIGN, 'driver errors are skipped (-skip_err_state): the run goes on')),
    ('flash_get_alltest_result', re.compile(r', FAIL$'), _const(FAILURE, 'a result record failed')),
    (('enter_h8_test',), re.compile(r'^(create|join) thread failed'),
     _const(FAILURE, 'the enter-H8 test fails')),
    ('enter_h8_write', re.compile(r'^(failed to write|create file .* fail|alloc buffer fail)'),
     _const(BENIGN, 'logged only: the enter-H8 test still passes')),
    # The benchmark's plain lines.
    (None, re.compile(r'^w/r fail (-?\d+), offset is \d+, wr_size is (-?\d+), op_size is -?\d+$'), _bench_transfer),
    (None, re.compile(r'^(thread -?\d+ fail -?\d+|benchmark_end fail -?\d+)$'),
     _const(FAILURE, 'a worker\'s error ends the benchmark: the cycle fails')),
    (None, re.compile(r'^(open .* fail -?\d+|malloc size -?\d+ fail|write fail -?\d+|benchmark_prepare fail -?\d+)$'),
     _const(BENIGN, 'the benchmark could not prepare its file: it stops and counts as a pass')),
    (None, re.compile(r'^(create BENCH_THREAD -?\d+ fail -?\d+|join thread -?\d+ fail|lseek failed -?\d+)$'),
     _const(BENIGN, 'logged only: the mode passes on the other workers')),
    (None, re.compile(r'^left space is less than -?\d+, do not do benchmark$'),
     _const(BENIGN, 'less than 512 MiB free: the benchmark is skipped as a pass')),
    (None, re.compile(r'^healthinfo_get fail$'),
     _const(BENIGN, 'the health tool could not be read: the reading counts as zeros (the wear gate lets the run '
                    'go on; the storage filler returns before its first cycle)')),
    ('healthinfo_get', re.compile(r'^(fail to chmod|Erro to popen)'),
     _const(BENIGN, 'the health tool could not be started: the reading fails (see "healthinfo_get fail")')),
]


def classify(r, ctx):
    """(class, what the program does next) for record `r`, or None for an ordinary line."""
    if r.kind == 'plain':
        for func, pat, decide in RULES:
            if func is None:
                m = pat.match(r.msg)
                if m:
                    return decide(m, r, ctx)
        return None
    if r.kind != 'body':
        return None
    for func, pat, decide in RULES:
        if func is None:
            continue
        if (r.func not in func) if isinstance(func, tuple) else (r.func != func):
            continue
        m = pat.search(r.msg)
        if m:
            res = decide(m, r, ctx)
            if r.func == 'storage_filler_run' and 'exit, wdt timeout' in r.msg:
                ctx.watchdog_end = True
            return res
    return None
