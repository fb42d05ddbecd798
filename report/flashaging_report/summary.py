"""Reads a run folder and puts its figures into one dictionary (summary.json)."""

import os
import time

from . import forecast, logparse, model, runfiles

VERSION = 1


class Unreadable(Exception):
    """The folder holds nothing this tool can make sense of."""


def _median(v):
    return model._median(v)


def list_runs(run_dir):
    fac = runfiles.find_factory(run_dir)
    data = runfiles.read_bytes(os.path.join(fac, runfiles.LOG))
    if data is None:
        return []
    runs = logparse.split_runs(logparse.read_records(data))
    out = []
    for i, rs in enumerate(runs, 1):
        a = model.analyse(rs)
        out.append({'run': i, 'first_line': a['first_line'], 'last_line': a['last_line'],
                    'start': a['start'], 'end': a['end'], 'cycles': len(a['cycles']),
                    'end_kind': a['end_kind'], 'end_text': a['end_text']})
    return out


def fmt_time(ts):
    if ts is None:
        return None
    return time.strftime('%Y-%m-%d %H:%M:%S', time.localtime(ts))


def build(run_dir, run_no=None):
    """summary dict of run `run_no` (1-based; default the last) of the folder's log."""
    fac = runfiles.find_factory(run_dir)
    log_path = os.path.join(fac, runfiles.LOG)
    data = runfiles.read_bytes(log_path)
    res_data = runfiles.read_bytes(os.path.join(fac, runfiles.RESULTS))
    rec_data = runfiles.read_bytes(os.path.join(fac, runfiles.RECORD), 64)
    journal = runfiles.read_journal(os.path.join(run_dir, 'journal'))
    if data is None and res_data is None:
        raise Unreadable('no %s and no %s in %s' % (runfiles.LOG, runfiles.RESULTS, run_dir))
    records = logparse.read_records(data or b'')
    if data is not None and data and not logparse.looks_like_log(records):
        raise Unreadable('%s holds no line of the flash aging program (no "[FLASH]" line)' % log_path)
    runs = logparse.split_runs(records) if records else []
    if run_no is None:
        run_no = len(runs)
    if runs and not 1 <= run_no <= len(runs):
        raise IndexError('the log holds %d run%s; --run %d is not one of them'
                         % (len(runs), '' if len(runs) == 1 else 's', run_no))
    run = model.analyse(runs[run_no - 1]) if runs else model.analyse([])
    if not runs:
        run['end_kind'] = 'no-log'
        run['end_text'] = 'The folder has no log; only the results file could be read.'
    last = (run_no == len(runs)) or not runs

    results = runfiles.parse_results(res_data)
    word, record_hex = runfiles.record_word(rec_data)
    verdict, verdict_from = verdict_of(run, word if last else None)

    cycles = run['cycles']
    fills = [c['fill'].get('mib_s') for c in cycles if c['fill']]
    written_mib = sum((c['fill'].get('mib', 0) if c['fill'] else 0) + (c['bench_mib'] or 0) for c in cycles)
    pe_end = None
    for c in cycles:
        if c['pe_after'] is not None:
            pe_end = c['pe_after']
    fc = run['settings'].get('fill_cycles')
    figures = {
        'cycles': len(cycles),
        'cycles_complete': sum(1 for c in cycles if c['outcome'] == 'ok'),
        'gib_written': written_mib / 1024.0,
        'fill_mib_s_median': _median(fills),
        'reads_per_s_median': _median([c['reads_per_s'] for c in cycles]),
        'bench_median': {m: _median([c['bench'].get(m) for c in cycles]) for m in model.BENCH_MODES},
        'waf_max': max([c['waf'] for c in cycles if c['waf'] is not None], default=None),
        'growth': {k: sum(c['health'].get(k, 0) for c in cycles) for k in model.HEALTH_KEYS},
        'battery_wait_s': sum(c['battery_wait_s'] or 0 for c in cycles if (c['battery_wait_s'] or 0) >= 1.0),
        'pe_start': run['pe_start'], 'pe_end': pe_end,
        'pe_limit': (run['pe_start'] + fc) if run['pe_start'] is not None and fc is not None else None,
        'duration_s': (run['end'] - run['start']) if run['start'] is not None else None,
    }
    if run['health_checks']:
        whole = [h for h in run['health_checks'] if h['owner'] == 'filler']
        if whole:
            figures['filler_growth'] = whole[-1]['deltas']
            figures['filler_waf'] = whole[-1]['waf']
    device = (results or {}).get('device', {})
    serial = device.get('serial') or ''
    deadline = watchdog_deadline(run)
    actual_end = None
    if run['complete']:
        actual_end = run['marks']['filler_end']['ts'] if 'filler_end' in run['marks'] else run['end']
    forecasts = forecast.per_cycle(cycles, fc, deadline, actual_end, len(cycles) if actual_end else None)
    return {
        'tool': 'flashaging-report', 'version': VERSION,
        'run_dir': os.path.abspath(run_dir), 'factory_dir': os.path.abspath(fac),
        'files': {'log': os.path.exists(log_path), 'results': res_data is not None,
                  'record': rec_data is not None, 'journal': journal is not None},
        'serial': serial,
        'runs_in_log': len(runs), 'run': run_no if runs else None, 'is_last_run': last,
        'verdict': verdict, 'verdict_from': verdict_from, 'record_word': word, 'record_hex': record_hex,
        'start': fmt_time(run['start']), 'end': fmt_time(run['end']),
        'start_ts': run['start'], 'end_ts': run['end'],
        'end_reason': {'kind': run['end_kind'], 'text': run['end_text'], 'line': run['end_quote'],
                       'line_no': run['end_line']},
        'first_failure': run.get('first_failure'),
        'benign': run['benign'][:100], 'benign_count': len(run['benign']),
        'passed_without_aging': without_aging(run, verdict, figures),
        'forecasts': forecasts, 'forecast': forecasts[-1] if forecasts else None,
        'watchdog_deadline': deadline,
        'settings': run['settings'], 'figures': figures,
        'cycles': cycles, 'tests': run['tests'], 'events': run['events'],
        'health_checks': run['health_checks'], 'failures': run['failures'][:50],
        'gaps': run['gaps'][:200], 'gap_count': len(run['gaps']),
        'log_complete': run['complete'], 'log_ends_mid_line': bool(data) and not data.endswith(b'\n') and last,
        'results_file': results, 'journal': journal,
        'marks': run['marks'], 'watchdog_fired': run['watchdog_fired'], 'signal': run['signal'],
    }


def verdict_of(run, word):
    """The verdict: the pass/fail record's word for the log's last run, else what the log says."""
    m = run['marks']
    if 'signal' in m:
        from_log = 'START'
    elif 'gate' in m or 'skip' in m:
        from_log = 'SKIP'
    elif 'env_fail' in m or 'list_fail' in m or 'run_fail' in m:
        from_log = 'FAIL'
    elif 'run_ok' in m or 'end' in m:
        from_log = 'SUCCESS'
    else:
        from_log = 'START'      # no end line: the run broke off (the record would still say START)
    if word:
        # Set-up writes the five bytes "START" over the earlier run's word; only a verdict
        # word (zero-padded) replaces them, so "STARTSS" is a run that never got that far.
        return ('START' if word.startswith('START') else word), 'pass/fail record'
    if from_log:
        return from_log, 'log'
    return 'UNKNOWN', 'none'


def watchdog_deadline(run):
    """When the watchdog ends the tests: its start line's time plus its budget."""
    budget = run['settings'].get('budget_s')
    if run.get('wdt_start') is None or budget is None:
        return None
    return run['wdt_start'] + max(budget, 0)


def without_aging(run, verdict, figures):
    """Why a passed run aged nothing (no fill cycle completed), or None."""
    if verdict != 'SUCCESS' or figures['cycles_complete']:
        return None
    line = {'line': run['end_line'], 'text': run['end_quote']}
    if run['end_kind'] == 'watchdog' or run['watchdog_fired'] is not None:
        why = ('the watchdog ended the run at the end of its budget (%s s) before any fill cycle completed'
               % run['settings'].get('budget_s', '?'))
    elif run['end_kind'] == 'no-aging':
        why = run['no_aging_why']
    elif 6 in run['left_out']:
        why = 'the storage filler was not selected (-n %s): no fill cycle ran' % run['settings'].get('test_num')
    else:
        why = 'no fill cycle completed'
    return {'why': why, 'line': line['text'], 'line_no': line['line']}
