"""Batch view: many run folders (one per phone) into a kept SQLite file and one batch.html
with a row per phone, the distribution of each figure and the phones far from the median."""

import datetime
import html
import os
import sqlite3
import sys

from . import summary

# (column, title, unit, which side is bad: 'low', 'high' or 'both')
FIGURES = [
    ('fill_mib_s', 'Fill speed, median of cycles', 'MiB/s', 'low'),
    ('seq_write', 'Benchmark seq write, median', 'MiB/s', 'low'),
    ('seq_read', 'Benchmark seq read, median', 'MiB/s', 'low'),
    ('rand_write', 'Benchmark rand write, median', 'MiB/s', 'low'),
    ('rand_read', 'Benchmark rand read, median', 'MiB/s', 'low'),
    ('reads_per_s', 'Verified reads, median', 'reads/s', 'low'),
    ('waf_max', 'Largest write amplification', 'WAF', 'high'),
    ('pe_per_gib', 'P/E growth per GiB written', 'P/E per GiB', 'high'),
    ('bad_block_growth', 'Bad block growth', 'blocks', 'high'),
    ('read_reclaim_growth', 'Read reclaim growth', 'count', 'high'),
]
COLUMNS = [
    ('serial', 'TEXT PRIMARY KEY'), ('run_dir', 'TEXT'), ('added', 'TEXT'), ('verdict', 'TEXT'),
    ('end_kind', 'TEXT'), ('end_text', 'TEXT'), ('end_line', 'TEXT'), ('start', 'TEXT'), ('cycles', 'INTEGER'),
    ('gib_written', 'REAL'), ('fill_mib_s', 'REAL'), ('seq_write', 'REAL'), ('seq_read', 'REAL'),
    ('rand_write', 'REAL'), ('rand_read', 'REAL'), ('reads_per_s', 'REAL'), ('waf_max', 'REAL'),
    ('pe_start', 'INTEGER'), ('pe_end', 'INTEGER'), ('pe_per_gib', 'REAL'), ('bad_block_growth', 'INTEGER'),
    ('read_reclaim_growth', 'INTEGER'), ('model', 'TEXT'), ('device_version', 'TEXT'), ('manufacture', 'TEXT'),
    ('gaps', 'INTEGER'), ('no_aging', 'TEXT'),
]
VERDICT_ORDER = ('SUCCESS', 'passed without aging', 'FAIL', 'SKIP', 'START', 'UNKNOWN')
THRESHOLD = 3.5      # robust z-score (0.6745 x distance / MAD) above which a phone stands out
MIN_REL = 0.10       # and at least this far from the median, relative to it


def _err(msg):
    sys.stderr.write('flashaging-report: %s\n' % msg)


def open_db(path):
    db = sqlite3.connect(path)
    db.execute('CREATE TABLE IF NOT EXISTS phones (%s)' % ', '.join('%s %s' % c for c in COLUMNS))
    db.execute('CREATE TABLE IF NOT EXISTS cycles (serial TEXT, idx INTEGER, number INTEGER, mix INTEGER, '
               'fill_mib REAL, fill_mib_s REAL, writer_min REAL, writer_max REAL, reads_per_s REAL, '
               'seq_write REAL, seq_read REAL, rand_write REAL, rand_read REAL, waf REAL, pe_after INTEGER, '
               'battery_wait_s REAL, outcome TEXT, PRIMARY KEY (serial, idx))')
    # A file kept from before a column was added gets it (empty for its rows).
    have = {row[1] for row in db.execute('PRAGMA table_info(phones)')}
    for col, kind in COLUMNS:
        if col not in have:
            db.execute('ALTER TABLE phones ADD COLUMN %s %s' % (col, kind.replace(' PRIMARY KEY', '')))
    return db


def row_of(sm, run_dir):
    f = sm['figures']
    bm = f['bench_median']
    dev = (sm['results_file'] or {}).get('device', {})
    serial = sm['serial'] or os.path.basename(os.path.abspath(run_dir))
    pe_gib = None
    if f['pe_start'] is not None and f['pe_end'] is not None and f['gib_written']:
        pe_gib = (f['pe_end'] - f['pe_start']) / f['gib_written']
    er = sm['end_reason']
    return {
        'serial': serial, 'run_dir': os.path.abspath(run_dir),
        'added': datetime.datetime.now().isoformat(timespec='seconds'), 'verdict': sm['verdict'],
        'end_kind': er['kind'], 'end_text': er['text'], 'end_line': er['line'], 'start': sm['start'],
        'cycles': f['cycles'], 'gib_written': f['gib_written'], 'fill_mib_s': f['fill_mib_s_median'],
        'seq_write': bm.get('seq write'), 'seq_read': bm.get('seq read'), 'rand_write': bm.get('rand write'),
        'rand_read': bm.get('rand read'), 'reads_per_s': f['reads_per_s_median'], 'waf_max': f['waf_max'],
        'pe_start': f['pe_start'], 'pe_end': f['pe_end'], 'pe_per_gib': pe_gib,
        'bad_block_growth': f['growth'].get('badBlockRuntime') if f['cycles'] else None,
        'read_reclaim_growth': f['growth'].get('readReclaim') if f['cycles'] else None,
        'model': dev.get('product_model'), 'device_version': dev.get('device_version'),
        'manufacture': dev.get('manufacture'), 'gaps': sm['gap_count'],
        'no_aging': (sm.get('passed_without_aging') or {}).get('why'),
    }


def add(db, sm, run_dir):
    r = row_of(sm, run_dir)
    cols = [c for c, _ in COLUMNS]
    db.execute('INSERT OR REPLACE INTO phones (%s) VALUES (%s)' % (', '.join(cols), ', '.join('?' * len(cols))),
               [r[c] for c in cols])
    db.execute('DELETE FROM cycles WHERE serial = ?', (r['serial'],))
    db.executemany('INSERT OR REPLACE INTO cycles VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)', [
        (r['serial'], c['index'], c['number'], c['mix'], (c['fill'] or {}).get('mib'), (c['fill'] or {}).get('mib_s'),
         (c['fill'] or {}).get('writer_mib_s_min'), (c['fill'] or {}).get('writer_mib_s_max'), c['reads_per_s'],
         c['bench'].get('seq write'), c['bench'].get('seq read'), c['bench'].get('rand write'),
         c['bench'].get('rand read'), c['waf'], c['pe_after'], c['battery_wait_s'], c['outcome'])
        for c in sm['cycles']])
    return r['serial']


def median(v):
    v = sorted(v)
    n = len(v)
    if not n:
        return None
    return v[n // 2] if n % 2 else (v[n // 2 - 1] + v[n // 2]) / 2.0


def outliers(rows):
    """{serial: [(column, value, median, robust z)]} for the phones far from the batch median."""
    out = {}
    stats = {}
    for col, title, unit, side in FIGURES:
        vals = [r[col] for r in rows if r[col] is not None]
        if len(vals) < 4:
            continue
        m = median(vals)
        mad = median([abs(v - m) for v in vals])
        if not mad:
            mad = 1.2533 * sum(abs(v - m) for v in vals) / len(vals) / 1.4826   # mean absolute deviation
        stats[col] = (m, mad)
        if not mad:
            continue
        for r in rows:
            v = r[col]
            if v is None:
                continue
            z = 0.6745 * (v - m) / mad
            if abs(z) < THRESHOLD or abs(v - m) < MIN_REL * abs(m):
                continue
            if side == 'low' and z > 0 or side == 'high' and z < 0:
                continue
            out.setdefault(r['serial'], []).append((col, v, m, z))
    return out, stats


def e(v):
    return html.escape('' if v is None else str(v))


def n(v, fmt):
    if v is None:
        return '–'
    try:
        return fmt % v
    except (TypeError, ValueError):
        return e(v)


def render(rows, flagged, stats, db_path):
    from . import plots, page
    titles = {c: (t, u) for c, t, u, _ in FIGURES}
    verdicts = {}
    for r in rows:
        v = 'passed without aging' if r['no_aging'] else r['verdict']
        verdicts[v] = verdicts.get(v, 0) + 1
    parts = ['<!DOCTYPE html><html lang="en"><head><meta charset="utf-8"><title>Flash aging batch</title>'
             '<style>%s td.flag{background:#fde4e4;font-weight:bold;color:#a00}</style></head><body>' % page.CSS]
    parts.append('<h1>Flash aging batch: %d phone%s</h1><div class="sub">%s · database <code>%s</code></div>' % (
        len(rows), '' if len(rows) == 1 else 's',
        e(' · '.join('%s %d' % (k, v) for k, v in sorted(verdicts.items()))), e(os.path.abspath(db_path))))
    parts.append('<table id="verdicts"><tr>%s</tr><tr>%s</tr></table>' % (
        ''.join('<th>%s</th>' % e(k) for k in VERDICT_ORDER),
        ''.join('<td>%d</td>' % verdicts.get(k, 0) for k in VERDICT_ORDER)))
    no_aging = [r for r in rows if r['no_aging']]
    if no_aging:
        parts.append('<div class="warnbox" id="no-aging"><b>Passed without aging (%d):</b> counted apart from the '
                     'passes: the flash was not aged.<ul>%s</ul></div>' % (len(no_aging), ''.join(
                         '<li><b>%s</b>: %s</li>' % (e(r['serial']), e(r['no_aging'])) for r in no_aging)))
    parts.append('<h2>Phones that stand out</h2>')
    if flagged:
        items = []
        for serial in sorted(flagged):
            why = '; '.join('%s %s %s (batch median %s, %.1f MADs %s)' % (
                titles[c][0], n(v, '%.2f'), titles[c][1], n(m, '%.2f'), abs(z), 'above' if z > 0 else 'below')
                for c, v, m, z in flagged[serial])
            items.append('<li id="flag-%s"><b>%s</b>: %s</li>' % (e(serial), e(serial), e(why)))
        parts.append('<ul class="flags">%s</ul>' % ''.join(items))
    else:
        parts.append('<p class="note">None: every phone is within %.1f median absolute deviations of the batch '
                     'median on every figure (needs 4 phones or more).</p>' % THRESHOLD)
    parts.append('<p class="note">A phone stands out when a figure lies more than %.1f median absolute deviations '
                 '(robust z = 0.6745 × distance / MAD) and more than %d %% from the batch median, on its bad side '
                 '(slow speeds, high wear).</p>' % (THRESHOLD, MIN_REL * 100))
    parts.append('<h2>Distributions</h2><div class="row">')
    for col, title, unit, _ in FIGURES:
        vals = [(r['serial'], r[col]) for r in rows]
        if not any(v is not None for _, v in vals):
            continue
        odd = {s for s, fl in flagged.items() if any(c == col for c, _, _, _ in fl)}
        parts.append('<div class="fig">%s</div>' % plots.distribution(vals, title, unit, odd))
    parts.append('</div>')
    parts.append('<h2>Phones</h2>')
    for r in rows:
        r['shown_verdict'] = 'SUCCESS, not aged' if r['no_aging'] else r['verdict']
    cols = [('serial', 'serial', '%s'), ('shown_verdict', 'verdict', '%s'), ('cycles', 'cycles', '%d'),
            ('gib_written', 'GiB written', '%.1f'), ('fill_mib_s', 'fill MiB/s', '%.0f'),
            ('seq_write', 'seq write', '%.0f'), ('seq_read', 'seq read', '%.0f'), ('rand_write', 'rand write', '%.1f'),
            ('rand_read', 'rand read', '%.1f'), ('reads_per_s', 'reads/s', '%.0f'), ('waf_max', 'WAF max', '%.2f'),
            ('pe_per_gib', 'P/E per GiB', '%.2f'), ('bad_block_growth', 'bad blocks +', '%d'),
            ('read_reclaim_growth', 'read reclaim +', '%d'), ('end_kind', 'ended by', '%s')]
    head = ''.join('<th%s>%s</th>' % (' class="l"' if c in ('serial', 'shown_verdict', 'end_kind') else '', e(t))
                   for c, t, _ in cols)
    body = []
    for r in rows:
        fl = {c for c, _, _, _ in flagged.get(r['serial'], [])}
        cells = []
        for c, _, fmt in cols:
            cls = 'flag' if c in fl else ('l' if c in ('serial', 'shown_verdict', 'end_kind') else '')
            cells.append('<td class="%s">%s</td>' % (cls, e(n(r[c], fmt))))
        trc = 'bad' if r['verdict'] in ('FAIL', 'START') else 'warn' if r['no_aging'] else ''
        body.append('<tr class="%s">%s</tr>' % (trc, ''.join(cells)))
    parts.append('<table id="phones"><tr>%s</tr>%s</table>' % (head, ''.join(body)))
    parts.append('<p class="note">Speeds are medians over each phone\'s fill cycles. The SQLite file keeps a row per '
                 'phone (table phones) and per cycle (table cycles); a later batch adds to it, and a phone run '
                 'again replaces its row.</p></body></html>')
    return '\n'.join(parts)


def main(args):
    db_path = None
    out = '.'
    dirs = []
    i = 0
    while i < len(args):
        a = args[i]
        if a in ('--db', '--out') and i + 1 < len(args):
            if a == '--db':
                db_path = args[i + 1]
            else:
                out = args[i + 1]
            i += 2
            continue
        if a.startswith('-'):
            _err('unknown option %s' % a)
            return 2
        dirs.append(a)
        i += 1
    if not dirs and not db_path:
        _err('batch needs run folders (or --db FILE to redraw a kept batch)')
        return 2
    os.makedirs(out, exist_ok=True)
    db_path = db_path or os.path.join(out, 'batch.sqlite')
    db = open_db(db_path)
    added = skipped = 0
    for d in dirs:
        if not os.path.isdir(d):
            _err('%s: not a folder, left out' % d)
            skipped += 1
            continue
        try:
            sm = summary.build(d)
        except (summary.Unreadable, IndexError) as ex:
            _err('%s: left out: %s' % (d, ex))
            skipped += 1
            continue
        add(db, sm, d)
        added += 1
    db.commit()
    cur = db.execute('SELECT %s FROM phones ORDER BY serial' % ', '.join(c for c, _ in COLUMNS))
    rows = [dict(zip([c for c, _ in COLUMNS], t)) for t in cur.fetchall()]
    db.close()
    flagged, stats = outliers(rows)
    page_path = os.path.join(out, 'batch.html')
    tmp = page_path + '.tmp'
    with open(tmp, 'w', encoding='utf-8') as f:
        f.write(render(rows, flagged, stats, db_path))
    os.replace(tmp, page_path)
    unaged = sum(1 for r in rows if r['no_aging'])
    print('%s (%d phone%s added, %d left out, %d in the database; %d flagged%s)' % (
        os.path.abspath(page_path), added, '' if added == 1 else 's', skipped, len(rows), len(flagged),
        '; %d passed without aging' % unaged if unaged else ''))
    for s in sorted(flagged):
        print('  %s: %s' % (s, ', '.join(c for c, _, _, _ in flagged[s])))
    return 0 if added or not dirs else 2
