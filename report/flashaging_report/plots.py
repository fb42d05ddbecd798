"""The report's figures, drawn with matplotlib and kept inline as SVG text."""

import io
import os

os.environ.setdefault('MPLCONFIGDIR', os.path.join(os.environ.get('TMPDIR', '/tmp'), 'flashaging-report-mpl'))

import matplotlib  # noqa: E402
matplotlib.use('Agg')
import matplotlib.pyplot as plt  # noqa: E402

matplotlib.rcParams.update({
    'svg.fonttype': 'none',          # text stays text: searchable and small
    'svg.hashsalt': 'flashaging',    # the same figure gives the same SVG
    'font.size': 9,
    'axes.titlesize': 10,
    'axes.grid': True,
    'grid.alpha': 0.3,
    'axes.spines.top': False,
    'axes.spines.right': False,
    'figure.dpi': 96,
})

COLORS = {'fill': '#1f77b4', 'wait': '#ff7f0e', 'bench': '#2ca02c', 'setup': '#7f7f7f', 'h8': '#9467bd',
          'fail': '#d62728', 'health': '#8c564b'}


MANY = 60   # above this many cycles, bars become lines


def markers(n):
    return 'o' if n <= MANY else None


def to_svg(fig):
    buf = io.StringIO()
    fig.savefig(buf, format='svg', metadata={'Date': None})
    plt.close(fig)
    text = buf.getvalue()
    # Drop the XML declaration and doctype: the SVG goes inline into the page.
    i = text.find('<svg')
    return text[i:] if i >= 0 else text


def _xs(cycles):
    return [c['index'] for c in cycles]


def _cycle_axis(ax, cycles):
    n = len(cycles)
    ax.set_xlabel('fill cycle (in the order they ran)')
    if n <= 30:
        ax.set_xticks(_xs(cycles))
    ax.set_xlim(0.4, n + 0.6)


def timeline(run):
    """One bar per phase along the run's wall time (minutes from the first line)."""
    t0 = run.get('start')
    if t0 is None:
        return None
    rows = []   # (row label, start, width, color)
    setup_end = run['marks'].get('tests_start', {}).get('ts') or run['marks'].get('gate', {}).get('ts')
    if setup_end is not None:
        rows.append(('set-up', t0, max(setup_end - t0, 0.2), COLORS['setup']))
    for t in run['tests']:
        if t['name'] == 'enter-H8' and t['start'] is not None:
            end = t['end'] if t['end'] is not None else run['end']
            rows.append(('enter-H8', t['start'], max(end - t['start'], 0.2), COLORS['h8']))
    for c in run['cycles']:
        if c['start'] is None:
            continue
        wait = c['battery_wait_s'] or 0.0
        fill_start = c['start'] + wait
        if wait >= 1.0:
            rows.append(('battery wait', c['start'], wait, COLORS['wait']))
        fe = c['fill_end']
        if fe is not None:
            rows.append(('fill', fill_start, max(fe - fill_start, 0.2),
                         COLORS['fail'] if c['outcome'] == 'fail' else COLORS['fill']))
            end = c['end'] if c['end'] is not None else (c['start'] + c['seconds'] if c['seconds'] else None)
            if end is None and c['outcome'] == 'incomplete':
                end = run['end']
            if end is not None and end > fe:
                rows.append(('benchmark + health', fe, end - fe, COLORS['bench']))
        elif c['end'] is not None or run['end'] is not None:
            end = c['end'] if c['end'] is not None else run['end']
            rows.append(('fill', fill_start, max(end - fill_start, 0.2), COLORS['fail']))
    labels = ['set-up', 'enter-H8', 'battery wait', 'fill', 'benchmark + health']
    labels = [l for l in labels if any(r[0] == l for r in rows)]
    span = max((run['end'] or t0) - t0, 1.0)
    minutes = span > 600
    scale = 60.0 if minutes else 1.0
    fig, ax = plt.subplots(layout='constrained', figsize=(9.5, 0.45 * max(len(labels), 1) + 1.2))
    by_row = {}
    for label, s, w, col in rows:
        spans, cols = by_row.setdefault(label, ([], []))
        spans.append(((s - t0) / scale, w / scale))
        cols.append(col)
    for label, (spans, cols) in by_row.items():
        y = labels.index(label)
        ax.broken_barh(spans, (y - 0.35, 0.7), facecolors=cols, linewidth=0)
    marks = [('watchdog', run['marks'].get('wdt'), COLORS['fail']),
             ('signal', run['marks'].get('signal'), COLORS['fail'])]
    for name, mk, col in marks:
        if mk and mk.get('ts') is not None:
            x = (mk['ts'] - t0) / scale
            ax.axvline(x, color=col, linestyle='--', linewidth=1)
            ax.annotate(name, (x, len(labels) - 0.5), color=col, fontsize=8, ha='left')
    for c in run['cycles']:
        if c['start'] is not None and len(run['cycles']) <= 40:
            ax.annotate(str(c['index']), ((c['start'] - t0) / scale, -0.75), fontsize=7, color='#555')
    ax.set_yticks(range(len(labels)))
    ax.set_yticklabels(labels)
    ax.set_ylim(-1, max(len(labels), 1))
    ax.invert_yaxis()
    ax.set_xlabel('minutes since the run started' if minutes else 'seconds since the run started')
    ax.set_title('Timeline of the run (numbers: fill cycles)')
    ax.grid(True, axis='x')
    ax.grid(False, axis='y')
    return to_svg(fig)


def fill(cycles):
    cs = [c for c in cycles if c['fill']]
    if not cs:
        return None
    x = _xs(cs)
    fig, (a1, a2) = plt.subplots(1, 2, layout='constrained', figsize=(9.5, 3.0))
    fm = [c['fill']['mib'] for c in cs]
    bm = [c['bench_mib'] for c in cs]
    if len(cs) <= MANY:
        a1.bar(x, fm, color=COLORS['fill'], label='fill')
        a1.bar(x, bm, bottom=fm, color=COLORS['bench'], label='benchmark')
    else:
        a1.stackplot(x, fm, bm, colors=[COLORS['fill'], COLORS['bench']], labels=['fill', 'benchmark'])
    a1.set_ylabel('MiB written')
    a1.set_title('MiB written per cycle')
    a1.legend(fontsize=8, loc='lower right')
    _cycle_axis(a1, cs)
    tot = [c['fill']['mib_s'] for c in cs]
    lo = [c['fill']['writer_mib_s_min'] for c in cs]
    hi = [c['fill']['writer_mib_s_max'] for c in cs]
    a2.plot(x, tot, marker=markers(len(cs)), color=COLORS['fill'], label='all 8 writers')
    a2.set_ylabel('MiB/s, all writers')
    a2.set_ylim(0, max([t for t in tot if t is not None] + [1.0]) * 1.15)
    b = a2.twinx()
    if len(cs) <= MANY:
        b.vlines(x, lo, hi, color='#aec7e8', linewidth=9, label='slowest to fastest writer')
    else:
        b.fill_between(x, lo, hi, color='#aec7e8', alpha=0.6, label='slowest to fastest writer')
    b.set_ylabel('MiB/s, one writer')
    b.set_ylim(bottom=0)
    b.spines['right'].set_visible(True)
    b.grid(False)
    a2.set_zorder(b.get_zorder() + 1)
    a2.patch.set_visible(False)
    a2.set_title('Fill speed: all writers, and the spread between writers')
    h1, l1 = a2.get_legend_handles_labels()
    h2, l2 = b.get_legend_handles_labels()
    a2.legend(h1 + h2, l1 + l2, fontsize=8, loc='lower left')
    _cycle_axis(a2, cs)
    return to_svg(fig)


def readers(cycles):
    cs = [c for c in cycles if c['readers']]
    if not cs:
        return None
    fig, ax = plt.subplots(layout='constrained', figsize=(4.6, 2.8))
    x = _xs(cs)
    if len(cs) <= MANY:
        ax.bar(x, [c['reads_per_s'] or 0 for c in cs], color=COLORS['h8'])
    else:
        ax.plot(x, [c['reads_per_s'] or 0 for c in cs], color=COLORS['h8'])
    ax.set_ylabel('verified reads per second')
    ax.set_title('Read-back: verified reads/s, 4 readers')
    _cycle_axis(ax, cs)
    return to_svg(fig)


def bench(cycles):
    cs = [c for c in cycles if c['bench']]
    if not cs:
        return None
    fig, (a1, a2) = plt.subplots(1, 2, layout='constrained', figsize=(9.5, 2.8))
    for ax, modes in ((a1, ('seq write', 'seq read')), (a2, ('rand write', 'rand read'))):
        for m, style in zip(modes, ('-o', '-s')):
            pts = [(c['index'], c['bench'].get(m)) for c in cs if c['bench'].get(m) is not None]
            if pts:
                ax.plot([p[0] for p in pts], [p[1] for p in pts], style if len(cs) <= MANY else '-', label=m)
        ax.set_ylabel('MiB/s')
        ax.set_ylim(bottom=0)
        ax.legend(fontsize=8, loc='lower left')
        _cycle_axis(ax, cs)
    a1.set_title('Benchmark: sequential (512 KiB transfers)')
    a2.set_title('Benchmark: random (4 KiB transfers)')
    return to_svg(fig)


def health(cycles, pe_limit=None):
    cs = [c for c in cycles if c['health']]
    if not cs:
        return None
    fig, (a1, a2, a3) = plt.subplots(1, 3, layout='constrained', figsize=(9.5, 2.8))
    x = _xs(cs)
    w = 0.2
    keys = [('readReclaim', -1.5), ('badBlockRuntime', -0.5), ('eraseCacheCntAvg', 0.5), ('eraseXLCCntAvg', 1.5)]
    for k, off in keys:
        if len(cs) <= MANY:
            a1.bar([i + off * w for i in x], [c['health'].get(k, 0) for c in cs], width=w, label=k)
        else:
            a1.plot(x, [c['health'].get(k, 0) for c in cs], linewidth=1, label=k)
    a1.axhline(29, color=COLORS['fail'], linestyle='--', linewidth=1)
    a1.annotate('limit 29 (read reclaim, bad blocks)', (0.5, 29), fontsize=7, color=COLORS['fail'],
                va='bottom')
    a1.set_title('Health counters: growth per cycle')
    a1.legend(fontsize=7, loc='center left')
    top = max([c['health'].get(k, 0) for c in cs for k, _ in keys] + [0])
    a1.set_ylim(0, max(top, 29) * 1.25 + 1)
    _cycle_axis(a1, cs)
    wv = [(c['index'], c['waf']) for c in cs if c['waf'] is not None]
    a2.plot([p[0] for p in wv], [p[1] for p in wv], marker=markers(len(cs)), color=COLORS['health'])
    a2.axhline(5.0, color=COLORS['fail'], linestyle='--', linewidth=1)
    a2.annotate('limit 5.0', (0.5, 5.0), fontsize=7, color=COLORS['fail'], va='bottom')
    a2.set_ylim(0, max([p[1] for p in wv] + [5.0]) * 1.2)
    a2.set_title('Write amplification')
    _cycle_axis(a2, cs)
    pv = [(c['index'], c['pe_after']) for c in cs if c['pe_after'] is not None]
    if pv:
        a3.plot([p[0] for p in pv], [p[1] for p in pv], marker=markers(len(cs)), color=COLORS['fill'])
    if pe_limit is not None:
        a3.axhline(pe_limit, color=COLORS['fail'], linestyle='--', linewidth=1)
        a3.annotate('run ends above %d' % pe_limit, (0.5, pe_limit), fontsize=7, color=COLORS['fail'],
                    va='bottom')
    a3.set_title('P/E count after each cycle')
    _cycle_axis(a3, cs)
    return to_svg(fig)


def distribution(values, title, unit, flagged=()):
    """Batch: one strip per figure, each phone a dot; flagged phones in red with their serial."""
    vals = [(s, v) for s, v in values if v is not None]
    fig, ax = plt.subplots(layout='constrained', figsize=(4.6, 1.9))
    if vals:
        import random
        rnd = random.Random(7)
        ys = [rnd.uniform(-0.3, 0.3) for _ in vals]
        normal = [(v, y) for (s, v), y in zip(vals, ys) if s not in flagged]
        odd = [(v, y, s) for (s, v), y in zip(vals, ys) if s in flagged]
        ax.scatter([p[0] for p in normal], [p[1] for p in normal], s=12, color=COLORS['fill'], alpha=0.7)
        ax.scatter([p[0] for p in odd], [p[1] for p in odd], s=30, color=COLORS['fail'])
        for v, y, s in odd[:8]:
            ax.annotate(s, (v, y), fontsize=7, color=COLORS['fail'], xytext=(3, 3), textcoords='offset points')
        med = sorted(v for _, v in vals)[len(vals) // 2]
        ax.axvline(med, color='#555', linewidth=1, linestyle=':')
    ax.set_yticks([])
    ax.set_ylim(-0.6, 0.6)
    ax.set_title(title)
    ax.set_xlabel(unit)
    return to_svg(fig)
