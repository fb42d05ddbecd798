"""Command line: flashaging-report RUN_DIR | flashaging-report batch DIR..."""

import json
import os
import sys
import traceback

USAGE = """usage: flashaging-report [--run N] [--out DIR] RUN_DIR
       flashaging-report --list RUN_DIR
       flashaging-report batch [--db FILE] [--out DIR] RUN_DIR...
       flashaging-report watch [--plain] [--idle SECONDS] [--while-pid PID] RUN_DIR|-

RUN_DIR is a run folder as flashaging-sim leaves it (factory/, journal) or a phone's
/cache/factory pulled off the phone. The report goes into RUN_DIR (report.html and
summary.json) unless --out names another folder. The report shows the log's last run;
--run N shows run N (1 = the first one in the log), --list lists the runs.

batch: adds each RUN_DIR (one per phone, known by the serial number of its results file)
to an SQLite file (default DIR/batch.sqlite, kept: later batches add to it) and writes
batch.html into --out (default: the current folder).
Exit status: 0 done, 1 the report could not be written, 2 usage or a log it cannot read.

watch: follows a run in progress, in RUN_DIR (its log growing) or on standard input (-),
until its end: on a terminal one screen kept up to date (phase, counters, P/E growth, time
against the watchdog, the forecast end, the first failure), otherwise one plain line per
change of phase (--plain on a terminal too). Exit status: 0 SUCCESS, 1 FAIL, 4 SKIP, 3 an
abnormal end or a log that stops without an end (end of standard input, the process of
--while-pid gone, SIGTERM, or --idle SECONDS, default 3600, without a new line), 2 usage."""


def _err(msg):
    sys.stderr.write('flashaging-report: %s\n' % msg)


def _write(path, text):
    tmp = path + '.tmp'
    with open(tmp, 'w', encoding='utf-8') as f:
        f.write(text)
    os.replace(tmp, path)


def main_run(args):
    run_no = None
    out = None
    listing = False
    dirs = []
    i = 0
    while i < len(args):
        a = args[i]
        if a == '--run' and i + 1 < len(args):
            try:
                run_no = int(args[i + 1])
            except ValueError:
                _err('--run takes a number, not %r' % args[i + 1])
                return 2
            i += 2
            continue
        if a == '--out' and i + 1 < len(args):
            out = args[i + 1]
            i += 2
            continue
        if a == '--list':
            listing = True
            i += 1
            continue
        if a.startswith('-'):
            _err('unknown option %s' % a)
            sys.stderr.write(USAGE + '\n')
            return 2
        dirs.append(a)
        i += 1
    if len(dirs) != 1:
        sys.stderr.write(USAGE + '\n')
        return 2
    run_dir = dirs[0]
    if not os.path.isdir(run_dir):
        _err('%s is not a folder' % run_dir)
        return 2
    from . import summary, page
    if listing:
        runs = summary.list_runs(run_dir)
        if not runs:
            _err('%s: no log with a run of the flash aging program' % run_dir)
            return 2
        for r in runs:
            print('run %d: lines %s-%s, %s to %s, %d cycle%s: %s' % (
                r['run'], r['first_line'], r['last_line'], summary.fmt_time(r['start']),
                summary.fmt_time(r['end']), r['cycles'], '' if r['cycles'] == 1 else 's', r['end_text']))
        return 0
    try:
        sm = summary.build(run_dir, run_no)
    except summary.Unreadable as ex:
        _err('cannot make sense of the log: %s' % ex)
        return 2
    except IndexError as ex:
        _err(str(ex))
        return 2
    run_list = summary.list_runs(run_dir) if sm['runs_in_log'] > 1 else None
    for r in run_list or []:
        r['start'] = summary.fmt_time(r['start'])
    html_text = page.render(sm, run_list)
    out = out or run_dir
    try:
        os.makedirs(out, exist_ok=True)
        _write(os.path.join(out, 'report.html'), html_text)
        _write(os.path.join(out, 'summary.json'), json.dumps(sm, sort_keys=True, default=str) + '\n')
    except OSError as ex:
        _err('cannot write the report into %s: %s' % (out, ex))
        return 1
    print(os.path.join(os.path.abspath(out), 'report.html'))
    return 0


def main(argv=None):
    args = list(sys.argv[1:] if argv is None else argv)
    if not args or args[0] in ('-h', '--help'):
        print(USAGE)
        return 0 if args else 2
    try:
        if args[0] == 'batch':
            from . import batch
            return batch.main(args[1:])
        if args[0] == 'watch':
            from . import watch
            return watch.main(args[1:])
        return main_run(args)
    except KeyboardInterrupt:
        return 130
    except Exception:  # the report must never take its caller down with a trace
        _err('internal error, no report written:')
        traceback.print_exc(limit=3)
        return 1
