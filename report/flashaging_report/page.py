"""report.html: one self-contained page per run."""

import html
import time

from . import plots

CSS = """
body{font-family:'DejaVu Sans',Arial,sans-serif;margin:18px 28px;color:#222;max-width:1100px}
h1{font-size:20px;margin:0 0 4px}h2{font-size:16px;margin:26px 0 8px;border-bottom:1px solid #ccc}
.sub{color:#555;font-size:13px}
.verdict{display:flex;gap:18px;align-items:center;padding:12px 16px;border-radius:6px;margin:12px 0}
.verdict .word{font-size:30px;font-weight:bold;letter-spacing:1px}
.SUCCESS{background:#e3f4e1;border:2px solid #2e7d32}.SUCCESS .word{color:#2e7d32}
.FAIL{background:#fde4e4;border:2px solid #c62828}.FAIL .word{color:#c62828}
.SKIP{background:#fff4d6;border:2px solid #b8860b}.SKIP .word{color:#8a6500}
.NOAGING{background:#fff4d6;border:2px solid #b8860b}.NOAGING .word{color:#8a6500}
.START,.UNKNOWN{background:#ffe9d9;border:2px solid #d35400}.START .word,.UNKNOWN .word{color:#d35400}
code,.q{font-family:'DejaVu Sans Mono',monospace;font-size:12px}
.q{background:#f4f4f4;border-left:3px solid #999;padding:4px 8px;display:block;white-space:pre-wrap;word-break:break-all}
.kf{display:grid;grid-template-columns:repeat(auto-fill,minmax(165px,1fr));gap:8px;margin:10px 0}
.kf div{background:#f6f8fa;border:1px solid #dde;border-radius:5px;padding:6px 9px}
.kf b{display:block;font-size:17px}.kf span{font-size:11px;color:#555}
table{border-collapse:collapse;font-size:12px;margin:6px 0}
th,td{border:1px solid #ccd;padding:3px 5px;text-align:right}td{white-space:nowrap}th{background:#eef1f5}
td.l,th.l{text-align:left}
tr.bad td{background:#fde4e4}tr.warn td{background:#fff4d6}
.warnbox{background:#fff4d6;border:1px solid #b8860b;padding:6px 10px;margin:8px 0;font-size:13px}
.fig{margin:6px 0}.fig svg{max-width:100%;height:auto}
.row{display:flex;flex-wrap:wrap;gap:10px}
details{margin:6px 0}summary{cursor:pointer;color:#1a4d8f}
.note{font-size:12px;color:#555}
"""

MODES = ('seq write', 'seq read', 'rand write', 'rand read')


def e(v):
    return html.escape('' if v is None else str(v))


def num(v, fmt='%.1f', none='–'):
    if v is None:
        return none
    try:
        return fmt % v
    except (TypeError, ValueError):
        return e(v)


def dur(s):
    if s is None:
        return '–'
    s = int(round(s))
    if s < 120:
        return '%d s' % s
    if s < 7200:
        return '%d min %02d s' % (s // 60, s % 60)
    return '%d h %02d min' % (s // 3600, (s % 3600) // 60)


def key_figures(sm):
    f = sm['figures']
    bm = f['bench_median']
    items = [
        (dur(f['duration_s']), 'run time (log)'),
        ('%d' % f['cycles'], 'fill cycles'),
        (num(f['gib_written'], '%.1f GiB'), 'written (fill + benchmark)'),
        (num(f['fill_mib_s_median'], '%.0f MiB/s'), 'fill speed, median of cycles'),
        (num(bm.get('seq write'), '%.0f') + ' / ' + num(bm.get('seq read'), '%.0f MiB/s'),
         'benchmark seq write / read'),
        (num(bm.get('rand write'), '%.1f') + ' / ' + num(bm.get('rand read'), '%.1f MiB/s'),
         'benchmark rand write / read'),
        (num(f['reads_per_s_median'], '%.0f /s'), 'verified reads, median'),
        (num(f['waf_max'], '%.2f'), 'largest write amplification'),
        ('%s → %s' % (num(f['pe_start'], '%d'), num(f['pe_end'], '%d')), 'P/E count, start → end'),
        ('+%d / +%d' % (f['growth'].get('badBlockRuntime', 0), f['growth'].get('readReclaim', 0)),
         'bad blocks / read reclaim growth'),
    ]
    if f['battery_wait_s']:
        items.append((dur(f['battery_wait_s']), 'held by a hot battery'))
    return '<div class="kf">%s</div>' % ''.join('<div><b>%s</b><span>%s</span></div>' % (e(a), e(b))
                                               for a, b in items)


def cycle_table(cycles):
    if not cycles:
        return '<p class="note">No fill cycle in this run.</p>'
    head = ('<tr><th>#</th><th title="the program\'s cycle number: P/E growth since the start">cycle no.</th>'
            '<th class="l" title="0: 190 files a pass, mostly small; 1: 44 files, mostly large; 2: 8 files of 32 MiB">file mix</th><th>battery wait s</th><th>fill MiB</th><th>fill s</th>'
            '<th>fill MiB/s</th><th>writer MiB/s min–max</th><th>verified reads/s</th>'
            + ''.join('<th>%s MiB/s</th>' % m for m in MODES)
            + '<th>read reclaim +</th><th>bad blocks +</th><th>TBW +</th><th>P/E +</th><th>WAF</th>'
              '<th>P/E after</th><th class="l">outcome</th></tr>')
    rows = []
    for c in cycles:
        f = c['fill'] or {}
        h = c['health']
        cls = {'fail': 'bad', 'incomplete': 'warn', 'watchdog': 'warn'}.get(c['outcome'], '')
        rows.append('<tr class="%s"><td>%d</td><td>%s</td><td class="l">%s</td><td>%s</td><td>%s</td>'
                    '<td>%s</td><td>%s</td><td>%s</td><td>%s</td>%s<td>%s</td><td>%s</td><td>%s</td>'
                    '<td>%s</td><td>%s</td><td>%s</td><td class="l">%s</td></tr>' % (
                        cls, c['index'], num(c['number'], '%d'),
                        e('%s (%s files)' % (c['mix'], c['mix_text'].split(' ')[0]) if c['mix'] is not None
                          else c['pass_bytes']),
                        num(c['battery_wait_s'], '%.0f'), num(f.get('mib'), '%d'), num(f.get('seconds'), '%.1f'),
                        num(f.get('mib_s'), '%.0f'),
                        (num(f.get('writer_mib_s_min'), '%.1f') + '–' + num(f.get('writer_mib_s_max'), '%.1f'))
                        if f else '–',
                        num(c['reads_per_s'], '%.0f'),
                        ''.join('<td>%s</td>' % num(c['bench'].get(m), '%.1f') for m in MODES),
                        num(h.get('readReclaim'), '%d'), num(h.get('badBlockRuntime'), '%d'),
                        num(h.get('TBW'), '%d'), num(h.get('eraseXLCCntAvg'), '%d'), num(c['waf'], '%.2f'),
                        num(c['pe_after'], '%d'),
                        e({'ok': 'done', 'fail': 'FAILED', 'incomplete': 'cut off (log ends)',
                           'watchdog': 'ended by the watchdog'}.get(c['outcome'], c['outcome']))))
    return '<table>%s%s</table>' % (head, ''.join(rows))


def device_section(res):
    if res is None:
        return '<p class="note">No results file in the folder.</p>'
    labels = [('product_model', 'Product model'), ('board_platform', 'Board platform'),
              ('device_version', 'Storage device version'), ('manufacture', 'Storage manufacturer'),
              ('serial', 'Serial number'), ('boot_device', 'Boot device'),
              ('board_temperature', 'Board temperature'), ('build_description', 'Build'), ('uname', 'Kernel')]
    d = res['device']
    out = ['<table>']
    for k, label in labels:
        if k in d:
            out.append('<tr><th class="l">%s</th><td class="l">%s</td></tr>' % (e(label), e(d[k])))
    if res['temperatures']:
        out.append('<tr><th class="l">Battery temperature</th><td class="l">%s</td></tr>'
                   % e(', '.join(_temp(t) for t in res['temperatures'])))
    out.append('</table>')
    if res['health']:
        out.append('<p><b>Health counters when the results file was written</b></p><table><tr>%s</tr><tr>%s</tr>'
                   '</table>' % (''.join('<th>%s</th>' % e(k) for k in res['health']),
                                 ''.join('<td>%s</td>' % e(v) for v in res['health'].values())))
    if res['ufs_signal']:
        out.append('<details><summary>UFS signal record (%d items)</summary><table>%s</table></details>' % (
            len(res['ufs_signal']),
            ''.join('<tr><th class="l">%s</th><td>%s</td></tr>' % (e(k), e(v)) for k, v in res['ufs_signal'].items())))
    if res['kernel_health']:
        out.append('<details><summary>Kernel health files</summary>%s</details>' % ''.join(
            '<p><code>%s</code></p><span class="q">%s</span>' % (e(k), e(v)) for k, v in res['kernel_health'].items()))
    if res['table']:
        cols = list(res['table'][0].keys())
        out.append('<p><b>Measured results</b></p><table><tr>%s</tr>%s</table>' % (
            ''.join('<th>%s</th>' % e(c) for c in cols),
            ''.join('<tr>%s</tr>' % ''.join('<td>%s</td>' % e(r[c]) for c in cols) for r in res['table'])))
    else:
        out.append('<p class="note">The results table has %s measured line (the two tests report only their '
                   'verdict).</p>' % ('its header and no' if res['header'] else 'no header and no'))
    return ''.join(out)


def _temp(t):
    try:
        return '%.1f °C' % (int(t) / 10.0)
    except ValueError:
        return t


def render(sm, run_list=None):
    v = sm['verdict']
    er = sm['end_reason']
    f = sm['figures']
    dev = (sm['results_file'] or {}).get('device', {})
    title = 'Flash aging run %s' % (sm['serial'] or '')
    parts = ['<!DOCTYPE html><html lang="en"><head><meta charset="utf-8"><title>%s</title>'
             '<style>%s</style></head><body>' % (e(title), CSS)]
    parts.append('<h1>Flash aging run report</h1><div class="sub">Phone <b>%s</b> %s · storage %s %s · '
                 'log from %s to %s · folder <code>%s</code></div>' % (
                     e(sm['serial'] or '(no serial)'), e(dev.get('product_model', '')),
                     e(dev.get('manufacture', '')), e(dev.get('device_version', '')), e(sm['start']), e(sm['end']),
                     e(sm['run_dir'])))
    vcls = v if v in ('SUCCESS', 'FAIL', 'SKIP', 'START') else 'UNKNOWN'
    meaning = {'SUCCESS': 'passed', 'FAIL': 'failed', 'SKIP': 'skipped',
               'START': 'abnormal end (the record still says START)'}.get(v, 'no verdict found')
    pwa = sm.get('passed_without_aging')
    if pwa:
        vcls += ' NOAGING'
        meaning = 'passed without aging'
    parts.append('<div class="verdict %s" id="verdict"><div class="word">%s</div><div><b>%s</b> (from the %s)<br>'
                 '%s%s</div></div>' % (
                     vcls, e(v), e(meaning), e(sm['verdict_from']), e(er['text']),
                     ('<span class="q" id="end-line">%s%s</span>' % (
                         'line %s: ' % er['line_no'] if er['line_no'] else '', e(er['line']))) if er['line'] else ''))
    if pwa:
        parts.append('<div class="warnbox" id="no-aging"><b>Passed without aging:</b> %s. The flash was not aged: '
                     'the verdict is a pass, but no fill cycle completed.</div>' % e(pwa['why']))
    ff = sm.get('first_failure')
    if ff and er['kind'] != 'failure' and v != 'SUCCESS':
        parts.append('<div class="warnbox" id="first-failure">First failure line of the run: <span class="q">line %s: '
                     '%s</span></div>' % (e(ff['line']), e(ff['text'])))
    elif ff and v == 'SUCCESS':
        parts.append('<div class="warnbox" id="went-on">The run passed after failure lines it was told to go on after '
                     '(-test_policy); the first: <span class="q">line %s: %s</span></div>' % (e(ff['line']), e(ff['text'])))
    if sm['runs_in_log'] > 1:
        parts.append('<div class="warnbox">The log holds %d runs (appended one after the other); this page shows '
                     'run %d%s. <code>flashaging-report --run N</code> shows another, <code>--list</code> lists '
                     'them.</div>' % (sm['runs_in_log'], sm['run'], ' (the last)' if sm['is_last_run'] else ''))
    if not sm['is_last_run']:
        parts.append('<div class="warnbox">An earlier run: its verdict comes from its log lines; the pass/fail '
                     'record and the results file belong to the last run.</div>')
    gaps = []
    if sm['gap_count']:
        gaps.append('%d line%s could not be read (garbled or cut short), the first at line %s' % (
            sm['gap_count'], '' if sm['gap_count'] == 1 else 's', sm['gaps'][0]['line']))
    if not sm['log_complete'] and sm['files']['log']:
        gaps.append('the log ends before the run\'s end line (flash aging cost time): the figures stop there')
    if sm['log_ends_mid_line']:
        gaps.append('the last line of the log is cut off')
    if not sm['files']['log']:
        gaps.append('the folder has no log')
    if gaps:
        parts.append('<div class="warnbox" id="gaps"><b>Gaps:</b> %s.</div>' % e('; '.join(gaps)))
    parts.append(key_figures(sm))

    parts.append('<h2>Timeline</h2>')
    svg = plots.timeline(_run_view(sm))
    parts.append('<div class="fig">%s</div>' % svg if svg else '<p class="note">No timed line in the log.</p>')
    parts.append('<p class="note">Set-up, then per fill cycle: battery wait (the battery above 49.0 °C holds the '
                 'cycle), the fill (8 writers, 4 read-back verifiers), then the benchmark and the health judgement.'
                 '</p>')

    cycles = sm['cycles']
    parts.append('<h2>Fill cycles</h2>')
    many = len(cycles) > 30
    if not many:
        parts.append(cycle_table(cycles))
    for fig in (plots.fill(cycles), plots.bench(cycles)):
        if fig:
            parts.append('<div class="fig">%s</div>' % fig)
    row = [x for x in (plots.readers(cycles),) if x]
    hf = plots.health(cycles, f.get('pe_limit'))
    if hf:
        parts.append('<div class="fig">%s</div>' % hf)
    if row:
        parts.append('<div class="row">%s</div>' % ''.join('<div class="fig">%s</div>' % x for x in row))
    if many:
        parts.append('<details><summary>Table of the %d fill cycles</summary>%s</details>'
                     % (len(cycles), cycle_table(cycles)))
    parts.append(forecast_section(sm))
    if sm['health_checks']:
        parts.append('<h2>Other health judgements</h2><table><tr><th class="l">by</th>%s<th>WAF</th></tr>%s</table>' % (
            ''.join('<th>%s +</th>' % k for k in ('readReclaim', 'badBlockRuntime', 'TBW', 'eraseCacheCntAvg',
                                                 'eraseXLCCntAvg')),
            ''.join('<tr><td class="l">%s</td>%s<td>%s</td></tr>' % (
                e('whole storage filler test' if h['owner'] == 'filler' else 'runner, after test %s' % h['case']),
                ''.join('<td>%s</td>' % num(h['deltas'].get(k), '%d') for k in (
                    'readReclaim', 'badBlockRuntime', 'TBW', 'eraseCacheCntAvg', 'eraseXLCCntAvg')),
                num(h['waf'], '%.2f')) for h in sm['health_checks'])))
    parts.append('<h2>Device (results file)</h2>')
    parts.append(device_section(sm['results_file']))
    parts.append('<h2>Run details</h2>')
    st = sm['settings']
    parts.append('<table>%s</table>' % ''.join('<tr><th class="l">%s</th><td class="l">%s</td></tr>' % (e(a), e(b)) for a, b in [
        ('Pass/fail record', '%s (bytes %s)' % (sm['record_word'], sm['record_hex']) if sm['record_word'] is not None
         else 'absent'),
        ('Fill cycles allowed (P/E growth)', st.get('fill_cycles')), ('Reserve MiB', st.get('reserve_mib')),
        ('Watchdog budget s', st.get('budget_s')), ('Test (-n)', st.get('test_num')),
        ('Wall time logged by the program', dur(sm.get('cost_s')) if sm.get('cost_s') else None),
    ] if b is not None))
    if sm['failures']:
        parts.append('<details open id="failures"><summary>Failure lines (%d)</summary>%s</details>' % (
            len(sm['failures']), ''.join('<span class="q">line %s: %s</span>' % (e(x['line']), e(x['text']))
                                         for x in sm['failures'][:20])))
    if sm.get('benign'):
        parts.append('<details id="benign"><summary>Lines retried or benign, not failures (%d)</summary>'
                     '<p class="note">What the program does after each: it tries the step again, or goes on as on a '
                     'pass.</p><table><tr><th>line</th><th class="l">kind</th><th class="l">what the program does '
                     'next</th><th class="l">text</th></tr>%s</table></details>' % (
                         sm['benign_count'], ''.join(
                             '<tr><td>%s</td><td class="l">%s</td><td class="l">%s</td><td class="l"><code>%s</code></td>'
                             '</tr>' % (e(x['line']), e(x['cls']), e(x['why']), e(x['text'])) for x in sm['benign'])))
    if sm['gaps']:
        parts.append('<details><summary>Unreadable lines (%d)</summary>%s</details>' % (
            sm['gap_count'], ''.join('<span class="q">line %s: %s</span>' % (e(x['line']), e(x['text']))
                                     for x in sm['gaps'][:30])))
    if sm['journal']:
        parts.append('<details><summary>Daemon journal (%d calls)</summary><span class="q">%s</span></details>' % (
            len(sm['journal']), e('\n'.join(sm['journal'][-60:]))))
    if run_list and len(run_list) > 1:
        parts.append('<details><summary>Runs in this log</summary><table><tr><th>run</th><th class="l">start</th>'
                     '<th>cycles</th><th class="l">end</th></tr>%s</table></details>' % ''.join(
                         '<tr><td>%d</td><td class="l">%s</td><td>%d</td><td class="l">%s</td></tr>' % (
                             r['run'], e(r['start']), r['cycles'], e(r['end_text'])) for r in run_list))
    parts.append('<p class="note">Made by flashaging-report from the log, the results file, the pass/fail record and '
                 'the daemon journal of the folder.</p></body></html>')
    return '\n'.join(parts)


def _run_view(sm):
    return {'start': sm['start_ts'], 'end': sm['end_ts'], 'marks': sm['marks'], 'tests': sm['tests'],
            'cycles': sm['cycles']}


def clock(ts, ref=None):
    """The log's time of day (the phone's clock); with the date when it is not `ref`'s day."""
    if ts is None:
        return '–'
    t = time.localtime(ts)
    if ref is not None and time.localtime(ref)[:3] != t[:3]:
        return time.strftime('%Y-%m-%d %H:%M:%S', t)
    return time.strftime('%H:%M:%S', t)


def span(lo, hi, fmt):
    if lo is None or hi is None:
        return '–'
    a, b = fmt(lo), fmt(hi)
    return a if a == b else '%s–%s' % (a, b)


def forecast_section(sm):
    fcs = sm.get('forecasts') or []
    out = ['<h2>Forecast of the end</h2>']
    if not fcs:
        out.append('<p class="note">No forecast: no fill cycle completed.</p>')
        return ''.join(out)
    dl = sm.get('watchdog_deadline')
    first = fcs[0]
    out.append('<p class="note">After each fill cycle: the P/E growth so far against the fill-cycle setting (the '
               'run ends by wear once the growth exceeds it), the cycles\' mean growth and time, and so the cycle '
               'and time of day at which the run is expected to end, with a range from the smallest and largest '
               'growth and time of the cycles so far; the watchdog ends it at %s if wear has not. Times are the '
               'log\'s.</p>' % e(clock(dl, first['at']) if dl else 'no known deadline'))
    head = ('<tr><th>after cycle</th><th>at</th><th>P/E growth / setting</th><th>growth per cycle</th>'
            '<th>s per cycle</th><th>expected last cycle</th><th>range</th><th>expected end</th><th>range</th>'
            '<th class="l">ended by</th><th>error s</th><th>error % of time left</th><th>error cycles</th></tr>')
    rows = []
    for f in fcs:
        cls = '' if f.get('in_range', True) else 'warn'
        rows.append('<tr class="%s"><td>%d</td><td>%s</td><td>%d / %d</td><td>%.2f</td><td>%s</td><td>%s</td>'
                    '<td>%s</td><td>%s</td><td>%s</td><td class="l">%s</td><td>%s</td><td>%s</td><td>%s</td></tr>' % (
                        cls, f['after_cycle'], e(clock(f['at'])), f['growth'], f['limit'], f['rate'],
                        num(f['cycle_s'], '%.1f'), num(f['end_cycle'], '%d'),
                        span(f['end_cycle_lo'], f['end_cycle_hi'], lambda x: '%d' % x),
                        e(clock(f['end_ts'], f['at'])),
                        e(span(f['end_ts_lo'], f['end_ts_hi'], lambda x: clock(x, f['at']))), e(f['by']),
                        num(f.get('error_s'), '%+.1f'), num(f.get('error_pct'), '%+.1f'),
                        num(f.get('error_cycles'), '%+d')))
    out.append('<table id="forecast">%s%s</table>' % (head, ''.join(rows)))
    last = fcs[-1]
    if last.get('actual_end_ts') is not None:
        out.append('<p class="note">The run ended after cycle %s at %s (the storage filler\'s end).</p>' % (
            e(last['actual_end_cycle']), e(clock(last['actual_end_ts']))))
    return ''.join(out)
