"""The live screen of `watch` on a terminal, drawn with rich (Debian's python3-rich)."""

from rich.console import Group
from rich.panel import Panel
from rich.progress_bar import ProgressBar
from rich.table import Table
from rich.text import Text

from . import live as lv
from . import model

MODE_SHORT = {'seq write': 'seq w', 'seq read': 'seq r', 'rand write': 'rand w', 'rand read': 'rand r'}


def _dur(s):
    if s is None:
        return '?'
    s = int(max(0, s))
    if s < 3600:
        return '%d:%02d' % (s // 60, s % 60)
    return '%d:%02d:%02d' % (s // 3600, (s % 3600) // 60, s % 60)


def _bar(done, total, width=24):
    if not total or done is None:
        return Text('')
    return ProgressBar(total=float(total), completed=float(max(0, min(done, total))), width=width)


def phase_text(live, res, now):
    """The phase with what is known of it right now."""
    key = live.phase or ('setup',)
    name = key[0]
    k = key[1] if len(key) > 1 else None
    c = lv.cycle_of(res, k) if k is not None else None
    if name == 'h8':
        t = [x for x in res['tests'] if x['name'] == 'enter-H8'][-1]
        block = int((now - t['start']) // lv.H8_PERIOD_S) if now and t['start'] else 0
        return 'enter-H8: block ~%d of %d (one every 3 s; the test logs no block)' % (
            max(0, min(block, lv.H8_BLOCKS)), lv.H8_BLOCKS)
    if name in ('fill', 'wait') and c:
        since = (now - c['start']) if now and c['start'] else None
        text = 'cycle %d: %s for %s' % (k, 'fill' if name == 'fill' else 'battery wait', _dur(since))
        if c['mix'] is not None:
            text += ', file mix %d' % c['mix']
        if c['writers']:
            text += '; %d of 8 writers done' % len(c['writers'])
        done = [x['fill']['mib_s'] for x in res['cycles'] if x['outcome'] == 'ok' and x['fill'].get('mib_s')]
        if since and done and name == 'fill':
            text += '; ~%s so far at the last cycle\'s pace' % lv.mib_text(since * done[-1])
        return text
    if name == 'bench' and c:
        mode = model.BENCH_MODES[min(len(c['bench']), 3)]
        text = 'cycle %d: benchmark, %s running' % (k, mode)
        if c['bench']:
            text += ' (%s)' % lv.bench_text(c)
        return text + '; ' + lv.fill_text(c)
    if name == 'health' and c:
        return 'cycle %d: health judgement; %s' % (k, lv.bench_text(c))
    if name == 'done' and c:
        return 'cycle %d done in %.1f s; the next cycle starts' % (k, c['seconds'] or 0)
    return {'setup': 'set-up', 'wdt': 'the watchdog ended the cycle (a pass)', 'failed': 'cycle %s failed' % k,
            'judge': 'health judgement of the test', 'summary': 'summary: the tests are over',
            'abnormal': 'abnormal end: caught %s' % (res['signal'] or {}).get('name', 'a signal'),
            'skip': 'skipped at set-up', 'end': 'the run has ended'}.get(name, name)


def cycles_table(res):
    t = Table(box=None, pad_edge=False, header_style='bold', show_edge=False)
    for col in ('cycle', 'mix', 'fill', 'MiB/s', 'reads/s') + tuple(MODE_SHORT[m] for m in model.BENCH_MODES) + (
            'P/E +', 's', 'outcome'):
        t.add_column(col, justify='right')
    for c in res['cycles'][-8:]:
        f = c['fill'] or {}
        style = {'fail': 'red', 'watchdog': 'yellow'}.get(c['outcome'], '')
        t.add_row(str(c['index']), '' if c['mix'] is None else str(c['mix']),
                  lv.mib_text(f['mib']) if f else '', '%.0f' % f['mib_s'] if f.get('mib_s') else '',
                  '%.0f' % c['reads_per_s'] if c['reads_per_s'] else '',
                  *['%.1f' % c['bench'][m] if m in c['bench'] else '' for m in model.BENCH_MODES],
                  str(c['health'].get('eraseXLCCntAvg', '')), '%.1f' % c['seconds'] if c['seconds'] else '',
                  {'ok': 'done', 'incomplete': 'running', 'fail': 'FAILED', 'watchdog': 'watchdog'}.get(
                      c['outcome'], c['outcome'] or ''), style=style)
    return t


def render(live, source, device, verdict=None):
    res = live.result()
    now = live.now()
    grid = Table.grid(padding=(0, 2))
    grid.add_column(style='bold', no_wrap=True)
    grid.add_column()
    dev = device or {}
    phone = ' · '.join(x for x in (dev.get('serial'), dev.get('product_model'),
                                   ' '.join(y for y in (dev.get('manufacture'), dev.get('device_version')) if y)) if x)
    if live.capacity:
        phone += (' · ' if phone else '') + '%d GiB' % (live.capacity >> 30)
    grid.add_row('Phone', phone or '(not in the log yet)')
    grid.add_row('Phase', Text(phase_text(live, res, now), style='bold cyan'))
    cyc = res['cycles']
    mib = sum((c['fill'].get('mib', 0) if c['fill'] else 0) + (c['bench_mib'] or 0) for c in cyc)
    grid.add_row('Written', '%s (fill and benchmark, as logged)' % lv.mib_text(mib))
    f = live.forecast(res)
    fc = res['settings'].get('fill_cycles')
    g = f['growth'] if f else 0
    grid.add_row('P/E growth', Group(Text(lv.growth_text(live, res, f)[len('P/E '):]), _bar(g, (fc or 0) + 1)))
    budget = res['settings'].get('budget_s')
    start = res.get('wdt_start')
    if budget is not None and start is not None:
        used = (res['end'] if live.ended() or now is None else now) - start
        grid.add_row('Time', Group(Text('%s of the watchdog\'s %s (deadline %s)' % (
            _dur(used), _dur(budget), lv.clock(start + max(budget, 0)))), _bar(used, max(budget, 1))))
    else:
        grid.add_row('Time', 'the watchdog starts with the tests')
    ft = lv.forecast_text(f)
    if ft.startswith('forecast: '):
        ft = '%s (made after cycle %d)' % (ft[len('forecast: '):], f['after_cycle'])
    grid.add_row('Forecast', ft)
    ff = live.first_failure
    if ff:
        grid.add_row('Failure', Text('line %d: %s' % (ff['line'], ff['text']), style='bold red'))
    else:
        grid.add_row('Failure', Text('none', style='green'))
    nb = len(res['benign'])
    if nb:
        grid.add_row('Not failures', Text('%d line%s retried or benign (e.g. %s)' % (
            nb, '' if nb == 1 else 's', res['benign'][0]['text'][-70:]), style='dim'))
    parts = [grid]
    if cyc:
        parts += [Text(''), cycles_table(res)]
    if verdict:
        text, code = verdict
        parts += [Text(''), Text(text, style='bold ' + {0: 'green', 1: 'red', 4: 'yellow'}.get(code, 'magenta'))]
    return Panel(Group(*parts), title='flashaging watch · %s' % source, title_align='left')
