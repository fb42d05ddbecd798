"""The other files of a run folder: the results file's sections and table, the pass/fail
record and the daemon journal."""

import os

DEVICE_KEYS = [
    ('Product model', 'product_model'), ('Board platform', 'board_platform'),
    ('Device_version', 'device_version'), ('Manufacture', 'manufacture'),
    ('Board temperature', 'board_temperature'), ('Serialno', 'serial'),
    ('Bootdevice', 'boot_device'), ('Build description', 'build_description'), ('uname', 'uname'),
]
HEALTH_KEYS = ('readReclaim', 'badBlockRuntime', 'TBW', 'eraseCacheCntAvg', 'eraseXLCCntAvg')
TABLE_HEADER = 'version,description,test_id,result_id,units,minimum,maximum,value,stdev,num_samples,test_ran,duration_sec,status'
TEMP_NODE = '/sys/class/power_supply/battery/temp'

LOG = 'flash_aging.log'
RESULTS = 'flash_aging_results.csv'
RECORD = 'flash_aging_result.txt'


def find_factory(run_dir):
    """The folder holding the program's files: RUN_DIR/factory (a simulator's run folder) or
    RUN_DIR itself (a phone's /cache/factory pulled off the phone)."""
    sub = os.path.join(run_dir, 'factory')
    if os.path.isfile(os.path.join(sub, LOG)) or os.path.isfile(os.path.join(sub, RESULTS)):
        return sub
    return run_dir


def read_bytes(path, limit=None):
    try:
        with open(path, 'rb') as f:
            return f.read() if limit is None else f.read(limit)
    except OSError:
        return None


def parse_results(data):
    """Sections and table of flash_aging_results.csv. Never raises."""
    out = {'device': {}, 'kernel_health': {}, 'temperatures': [], 'health': {}, 'ufs_signal': {},
           'header': False, 'table': [], 'unread': []}
    if data is None:
        return None
    text = data.decode('utf-8', errors='replace') if isinstance(data, bytes) else data
    lines = text.split('\n')
    block = None
    kfile = None
    for line in lines:
        s = line.strip()
        if line == 'Test Info:':
            block = 'info'
            continue
        if line == 'Health Info:':
            block = 'health'
            continue
        if line == 'UFS Signal Record:':
            block = 'ufs'
            continue
        if line == TABLE_HEADER:
            block = 'table'
            out['header'] = True
            continue
        if line.startswith(TEMP_NODE + ':['):
            v = line[len(TEMP_NODE) + 2:].rstrip(']')
            out['temperatures'].append(v)
            block = 'temp'
            continue
        if line.startswith('/proc/') and line.endswith(':'):
            kfile = line[:-1]
            out['kernel_health'][kfile] = ''
            block = 'kernel'
            continue
        if block == 'info':
            done = False
            for label, key in DEVICE_KEYS:
                if s.startswith(label + ':'):
                    out['device'][key] = s[len(label) + 1:]
                    done = True
                    break
            if done:
                continue
            if not s:
                continue
        if block == 'kernel' and kfile:
            if not s:
                continue
            out['kernel_health'][kfile] += (('\n' if out['kernel_health'][kfile] else '') + line)
            continue
        if block == 'health':
            k, _, v = s.partition(':')
            if k in HEALTH_KEYS:
                try:
                    out['health'][k] = int(v)
                except ValueError:
                    out['unread'].append(line)
                continue
            if not s:
                continue
        if block == 'ufs':
            if not s:
                continue
            k, _, v = s.partition(': ')
            out['ufs_signal'][k] = v
            continue
        if block == 'table':
            if not s:
                continue
            cols = line.split(',')
            if len(cols) >= 13:
                out['table'].append(dict(zip(TABLE_HEADER.split(','), cols)))
            else:
                out['unread'].append(line)
            continue
        if s:
            out['unread'].append(line)
    return out


def record_word(data):
    """The pass/fail record's word up to its first zero byte; the bytes as they are."""
    if data is None:
        return None, None
    word = data.split(b'\0', 1)[0].decode('ascii', errors='replace')
    return word, data.hex()


def read_journal(path):
    data = read_bytes(path, 1 << 20)
    if data is None:
        return None
    return [l for l in data.decode('utf-8', errors='replace').split('\n') if l]
