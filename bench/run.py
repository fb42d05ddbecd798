#!/usr/bin/python3
"""Side-by-side performance runs of flashaging against fio, in one simulated phone.

Usage (as root, from anywhere):
    bench/run.py [--reps N] [--build-dir DIR] [--no-build] [--readme] [--out DIR] [--json FILE]

It installs fio from Debian's packages if it is missing (scripts/deps.sh fio), builds the
executable and the simulator (unless --no-build), starts one phone with bench/profile and
runs this same file inside it (--inner). Inside, each repetition runs the executable twice
(a fill of about 4 GiB and its benchmark; a longer fill, ended by the watchdog, in which the
readers have time to read) and fio on the same /data file system, and prints one line of
raw figures. Outside, the lines are reduced to a table: the median of the repetitions with
min and max, ours against fio. --readme writes the table with the machine it was taken on
into bench/README.md, which also says how each figure is taken.

Only the standard library: the same interpreter runs on the host and in the phone, where the
host's /usr is bound.
"""

import argparse
import ctypes
import datetime
import json
import os
import re
import select
import shutil
import struct
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)
MiB = 1 << 20
GiB = 1 << 30

# ---- inside the phone ---------------------------------------------------------------------

PROC = "/tmp/bench-proc"            # a real procfs of the phone's pid namespace (its /proc is fake)
EXE = "/system/bin/flashaging"
LOG = "/cache/factory/flash_aging.log"
WORK = "/data/format_unclear"
PATTERN_DIR = WORK + "/file_pattern"
KEEP = "/data/bench_keep"            # hard links to the files the readers read
FIO_DIR = "/data/bench_fio"
MODES = ["seq write", "seq read", "rand write", "rand read"]

IN_ACCESS = 0x1
IN_DELETE_SELF = 0x400
IN_IGNORED = 0x8000

libc = ctypes.CDLL("libc.so.6", use_errno=True)


def note(msg):
    print("bench: " + msg, file=sys.stderr, flush=True)


def mount_proc():
    os.makedirs(PROC, exist_ok=True)
    if os.path.exists(PROC + "/self/stat"):
        return
    if libc.mount(b"proc", PROC.encode(), b"proc", 0, None) != 0:
        e = ctypes.get_errno()
        raise SystemExit("bench: cannot mount a procfs on %s: %s" % (PROC, os.strerror(e)))


def read_text(path):
    with open(path, "rb") as f:
        return f.read().decode("ascii", "replace")


class Sampler(threading.Thread):
    """Samples the executable from the phone's procfs every `period` seconds: process CPU
    (ticks), VmHWM, and per thread its on-CPU time (schedstat, ns) and read calls (syscr)."""

    def __init__(self, pid, period=0.01):
        super().__init__(daemon=True)
        self.pid = pid
        self.period = period
        self.samples = []
        self.stop = False

    def run(self):
        base = "%s/%d" % (PROC, self.pid)
        while not self.stop:
            t = time.monotonic()
            try:
                stat = read_text(base + "/stat")
                status = read_text(base + "/status")
                tids = os.listdir(base + "/task")
            except OSError:
                break
            rest = stat[stat.rindex(")") + 2:].split()
            if rest[0] == "Z":
                break
            ticks = int(rest[11]) + int(rest[12])
            hwm = 0
            m = re.search(r"^VmHWM:\s+(\d+) kB", status, re.M)
            if m:
                hwm = int(m.group(1))
            threads = {}
            for tid in tids:
                try:
                    sched = int(read_text("%s/task/%s/schedstat" % (base, tid)).split()[0])
                    io = read_text("%s/task/%s/io" % (base, tid))
                    syscr = int(re.search(r"^syscr: (\d+)", io, re.M).group(1))
                except (OSError, AttributeError, ValueError, IndexError):
                    continue
                threads[int(tid)] = (sched, syscr)
            self.samples.append((t, ticks, hwm, threads))
            time.sleep(max(0.0, self.period - (time.monotonic() - t)))


class ReadWatch(threading.Thread):
    """Watches the pattern folder for reads (inotify IN_ACCESS) and keeps a hard link to every
    file read, so fio can read the very files the readers read after the folder is gone."""

    def __init__(self):
        super().__init__(daemon=True)
        self.counts = {}
        self.stop = False
        self.fd = libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if self.fd < 0:
            raise SystemExit("bench: no inotify: " + os.strerror(ctypes.get_errno()))

    def run(self):
        wd = -1
        poller = select.poll()
        poller.register(self.fd, select.POLLIN)
        while not self.stop:
            if wd < 0:
                wd = libc.inotify_add_watch(self.fd, PATTERN_DIR.encode(), IN_ACCESS | IN_DELETE_SELF)
                if wd < 0:
                    time.sleep(0.005)
                    continue
            if not poller.poll(50):
                continue
            try:
                buf = os.read(self.fd, 65536)
            except BlockingIOError:
                continue
            pos = 0
            while pos + 16 <= len(buf):
                _, mask, _, length = struct.unpack_from("iIII", buf, pos)
                name = buf[pos + 16:pos + 16 + length].split(b"\0", 1)[0].decode()
                pos += 16 + length
                if mask & IN_IGNORED:
                    wd = -1
                if name and mask & IN_ACCESS:
                    if name not in self.counts:
                        self.counts[name] = 0
                        try:
                            os.link(PATTERN_DIR + "/" + name, KEEP + "/" + name)
                        except OSError as e:
                            note("cannot keep %s: %s" % (name, e))
                    self.counts[name] += 1
        os.close(self.fd)


def spawn_wait(argv, stdout=None):
    """Starts argv with no input and its output in stdout (a path; default /dev/null);
    returns its pid, for wait_usage."""
    actions = [(os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0)]
    out = stdout or "/dev/null"
    actions.append((os.POSIX_SPAWN_OPEN, 1, out, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644))
    actions.append((os.POSIX_SPAWN_DUP2, 1, 2))
    pid = os.posix_spawn(argv[0], argv, os.environ, file_actions=actions)
    return pid


def wait_usage(pid):
    """Waits for pid: its exit status, user + system seconds and peak RSS (KiB) of it and the
    children it waited for."""
    _, status, ru = os.wait4(pid, 0)
    return os.waitstatus_to_exitcode(status), ru.ru_utime + ru.ru_stime, ru.ru_maxrss


# Log lines are a prefix and a body written by two calls, so lines of threads that speak at
# the same moment may interleave between the two: prefixes and bodies are found separately.
RE_PREFIX = re.compile(r"\[(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})\]\[(\d+)\]")
RE_FILL = re.compile(r"\[FLASH\]INFO:fill_fn:\d+ runs (-?\d+), ret (-?\d+), fill (\d+)MB,  "
                     r"speed is (\S+) MB/s, cost is ([\d.]+)s\n")
RE_READ = re.compile(r"\[FLASH\]INFO:read_disturb_file:\d+ read_times is (\d+), "
                     r"average 1000 times cost ([\d.]+)s\n")
RE_BENCH = re.compile(r"(seq write|seq read|rand write|rand read): ==== speed is ([\d.]+)MB/s ====\n")


def stamp(text):
    return datetime.datetime.strptime(text, "%Y-%m-%d %H:%M:%S.%f").timestamp()


# The argument elements of the two runs (the daemon's side hands them over, one a line).
# Fill run: the writers stop at the reserve after about 4 GiB, then the benchmark runs and
# the wear model ends the test. Readers run: the readers choose their files with random
# pauses of up to a second each (about 3 s in all), which is as long as a 4 GiB fill takes at
# the host disk's speed; so their rate is taken in a fill that the watchdog ends after 8 s.
FILL_ARGS = ["-n 6", "-f 1", "-s 3600", "-reserved_space 61620", "-full_filling_times 1"]
READ_ARGS = ["-n 6", "-f 1", "-s 8", "-reserved_space 52000", "-full_filling_times 1"]
WDT_TIMEOUT_CODE = 0x4321


def run_product(elements, watch_reads):
    """One run of the executable: one fill (8 writers, 4 readers), then its benchmark unless
    the watchdog ends the test first."""
    with open("/sim/daemon/args", "w") as f:
        f.write("".join(e + "\n" for e in elements))
    shutil.rmtree(WORK, ignore_errors=True)
    shutil.rmtree(KEEP, ignore_errors=True)
    os.makedirs(KEEP)
    os.sync()
    log_from = os.path.getsize(LOG) if os.path.exists(LOG) else 0

    watch = ReadWatch() if watch_reads else None
    if watch:
        watch.start()
    pid = spawn_wait([EXE])
    sampler = Sampler(pid)
    sampler.start()
    status, cpu_all, maxrss_all = wait_usage(pid)
    sampler.stop = True
    sampler.join()
    if watch:
        watch.stop = True
        watch.join()
    with open(LOG, "rb") as f:
        f.seek(log_from)
        log = f.read().decode("utf-8", "replace")
    if status != 0:
        raise SystemExit("bench: flashaging exited with %d" % status)

    # The threads: main, watchdog, then the fill's 8 writers and 4 readers, then the
    # benchmark's workers (created in this order, so in this order of thread id).
    s = sampler.samples
    seen = sorted({tid for smp in s for tid in smp[3]} - {pid})
    fill_tids = seen[1:13]
    if len(fill_tids) != 12 or fill_tids[-1] - fill_tids[0] != 11:
        raise SystemExit("bench: cannot tell the fill's threads apart: %s" % seen)
    wtids, rtids = fill_tids[:8], fill_tids[8:]

    # The fill from the writers' own lines: total MiB over the wall span of the fill. A
    # writer's line ends its run (prefix time) and gives its duration; the writers start
    # together, so the one that ended last ran longest: pair ends and durations in order.
    bodies = [(int(m.group(1)), int(m.group(2)), int(m.group(3)), float(m.group(5)))
              for m in RE_FILL.finditer(log)]
    ends = sorted(stamp(m.group(1)) for m in RE_PREFIX.finditer(log) if int(m.group(2)) in wtids)
    if len(bodies) != 8 or len(ends) != 8 or any(b[1] not in (0, WDT_TIMEOUT_CODE) for b in bodies):
        raise SystemExit("bench: expected 8 writer lines with ret 0, got:\n" +
                         "\n".join(m.group(0) for m in RE_FILL.finditer(log)))
    fill_mib = sum(b[2] for b in bodies)
    costs = sorted(b[3] for b in bodies)
    span = ends[-1] - min(e - c for e, c in zip(ends, costs))
    bench = {m.group(1): float(m.group(2)) for m in RE_BENCH.finditer(log)}
    if sorted(bench) != sorted(MODES) and bodies[0][1] == 0:
        raise SystemExit("bench: the benchmark did not log four speeds:\n" + log[-3000:])
    log_readers = [(int(m.group(1)), float(m.group(2))) for m in RE_READ.finditer(log)]

    first = next(i for i, smp in enumerate(s) if any(t in smp[3] for t in fill_tids))
    last = max(i for i, smp in enumerate(s) if any(t in smp[3] for t in fill_tids))
    if first == 0 or last + 1 >= len(s):
        raise SystemExit("bench: the samples do not cover the fill")
    tck = os.sysconf("SC_CLK_TCK")
    cpu_fill = (s[last + 1][1] - s[first - 1][1]) / tck
    hwm_kib = s[last][2]
    cpu_writers = 0.0
    for tid in wtids:
        cpu_writers += max(smp[3][tid][0] for smp in s if tid in smp[3]) / 1e9
    readers = []
    for tid in rtids:
        pts = [(smp[0], smp[3][tid][1]) for smp in s if tid in smp[3]]
        act = [p for p in pts if p[1] > 0]
        reads, rate = 0, 0.0
        if len(act) >= 2 and act[-1][0] - act[0][0] > 0.2:
            reads = act[-1][1]
            rate = (act[-1][1] - act[0][1]) / (act[-1][0] - act[0][0])
        readers.append({"tid": tid, "reads": reads, "rate": rate,
                        "window": (act[-1][0] - act[0][0]) if len(act) >= 2 else 0.0})
    return {
        "fill_mib": fill_mib, "fill_span": span, "fill_mib_s": fill_mib / span,
        "cpu_fill": cpu_fill, "cpu_writers": cpu_writers, "cpu_run": cpu_all,
        "hwm_fill_kib": hwm_kib, "maxrss_run_kib": maxrss_all,
        "bench": bench, "readers": readers, "read_files": watch.counts if watch else {},
        "log_readers": [{"reads": n, "rate": 1000.0 / c if c > 0 else None} for n, c in log_readers],
        "samples": len(s), "sample_span": s[-1][0] - s[0][0],
    }


def fio(args, jobfile=None):
    out = "/tmp/bench-fio.json"
    argv = ["/usr/bin/fio", "--output-format=json", "--output=" + out] + args
    if jobfile is not None:
        with open("/tmp/bench-fio.job", "w") as f:
            f.write(jobfile)
        argv.append("/tmp/bench-fio.job")
    pid = spawn_wait(argv, stdout="/tmp/bench-fio.txt")
    status, cpu, maxrss = wait_usage(pid)
    if status != 0:
        raise SystemExit("bench: fio failed (%d): %s\n%s" % (status, " ".join(argv),
                                                            read_text("/tmp/bench-fio.txt")[-2000:]))
    text = read_text(out)
    # fio may print notes before the JSON document.
    doc = json.loads(text[text.index("{"):])
    return doc, cpu, maxrss


def fresh_dir(path):
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path)


# The sizes of the writers' write calls in one pass of the first file mix, as shares of the
# calls: 117 files of 4-32 KiB, 65 of 192 KiB-1 MiB written whole, 8 files of 8-32 MiB
# written in 30 calls of 4 MiB (212 calls).
PRODUCT_BSSPLIT = "4k/13:16k/24:32k/19:192k/14:256k/9:512k/5:1m/2:4m/14"


def fio_fill(total_mib, bs="--bs=4m"):
    """fio writing the same bytes: 8 jobs, 4 MiB blocks, direct I/O, new files."""
    per_job = -(-total_mib // 8 // 4) * 4
    fresh_dir(FIO_DIR)
    doc, cpu, maxrss = fio(["--name=fill", "--directory=" + FIO_DIR, "--rw=write", bs, "--direct=1",
                            "--ioengine=psync", "--numjobs=8", "--size=%dm" % per_job, "--fallocate=none",
                            "--group_reporting"])
    w = doc["jobs"][0]["write"]
    shutil.rmtree(FIO_DIR, ignore_errors=True)
    os.sync()
    mib = w["io_bytes"] / MiB
    secs = w["runtime"] / 1000.0
    return {"mib": mib, "secs": secs, "mib_s": mib / secs, "cpu": cpu, "maxrss_kib": maxrss}


def reader_sets(counts):
    """The files read, grouped by kind (pattern and size): one set of (up to) five per kind."""
    sets = {}
    for name in sorted(counts, key=lambda n: int(n.split("_")[2])):
        pat, size, _ = name.split("_")
        sets.setdefault((int(pat), int(size)), []).append(name)
    return sets


def reader_jobs(prod, runtime):
    """fio reader jobs that mirror the four readers: each reads 32 KiB (or the whole file, if
    smaller) from offset 0 of the five files of its kind in turn, with direct I/O. Readers
    that chose the same kind read the same files; how many readers read each kind is told by
    the reads that inotify saw per kind and the read calls of each reader."""
    sets = reader_sets(prod["read_files"])
    kinds = sorted(sets)
    if not kinds:
        return "", []
    per_kind = [sum(prod["read_files"][n] for n in sets[k]) for k in kinds]
    per_reader = [r["reads"] for r in prod["readers"]]
    best = None
    # Each reader on one kind; pick the assignment whose read totals per kind fit best.
    for code in range(len(kinds) ** len(per_reader)):
        assign, c = [], code
        for _ in per_reader:
            assign.append(c % len(kinds))
            c //= len(kinds)
        if len(set(assign)) != len(kinds):
            continue
        tot = [0] * len(kinds)
        for r, k in zip(per_reader, assign):
            tot[k] += r
        err = sum((a - b) ** 2 for a, b in zip(tot, per_kind))
        if best is None or err < best[0]:
            best = (err, assign)
    if best is None:  # more kinds than readers cannot happen; read them all anyway
        best = (0, [i % len(kinds) for i in range(4)])
    text, desc = "", []
    for i, k in enumerate(kinds[x] for x in best[1]):
        files = sets[k][:5]
        bs = min(k[1], 32768)
        text += ("[read%d]\nnew_group\nrw=read\nbs=%d\nsize=%d\nfilename=%s\ntime_based\nruntime=%dms\n\n"
                 % (i, bs, bs * len(files), ":".join(KEEP + "/" + f for f in files), int(runtime * 1000)))
        desc.append("%d files of %d bytes" % (len(files), k[1]))
    return text, desc


def reads_per_s(doc):
    return sum(j["read"]["total_ios"] / (j["read"]["runtime"] / 1000.0)
               for j in doc["jobs"] if j["jobname"].startswith("read") and j["read"]["runtime"] > 0)


def fio_reads(prod, total_mib, fill_secs):
    """fio's four readers on the readers' own files: once beside an 8-job fill with the
    writers' own write sizes (the load the readers read under), once alone."""
    per_job = -(-total_mib // 8 // 4) * 4
    runtime = 0.8 * fill_secs
    readers, desc = reader_jobs(prod, runtime)
    if not readers:
        return None
    fresh_dir(FIO_DIR)
    job = ("[global]\ndirect=1\nioengine=psync\n\n[fill]\ndirectory=%s\nrw=write\nbssplit=%s\nnumjobs=8\n"
           "size=%dm\nfallocate=none\n\n" % (FIO_DIR, PRODUCT_BSSPLIT, per_job)) + readers
    doc, _, _ = fio([], job)
    with_fill = reads_per_s(doc)
    fills = [j for j in doc["jobs"] if j["jobname"] == "fill"]
    fill_mib_s = (sum(j["write"]["io_bytes"] for j in fills) / MiB) / (max(j["write"]["runtime"] for j in fills) / 1000.0)
    shutil.rmtree(FIO_DIR, ignore_errors=True)
    os.sync()
    alone_job, _ = reader_jobs(prod, 2.0)
    doc, _, _ = fio([], "[global]\ndirect=1\nioengine=psync\n\n" + alone_job)
    alone = reads_per_s(doc)
    return {"with_fill": with_fill, "alone": alone, "sets": desc, "fill_mib_s": fill_mib_s}


def fio_bench_mode(mode, jobs):
    """One benchmark mode with fio: a 512 MiB file written with 128 x 4 MiB direct writes and
    fsync, then `jobs` jobs on that one file: sequential 512 KiB transfers over the whole file
    or random 4 KiB transfers within its first 64 MiB, 512 MiB or 64 MiB in all."""
    fresh_dir(FIO_DIR)
    path = FIO_DIR + "/bench"
    fio(["--name=prep", "--filename=" + path, "--rw=write", "--bs=4m", "--size=512m", "--direct=1",
         "--ioengine=psync", "--end_fsync=1", "--fallocate=none"])
    rw = {"seq write": "write", "seq read": "read", "rand write": "randwrite", "rand read": "randread"}[mode]
    args = ["--name=bench", "--filename=" + path, "--rw=" + rw, "--direct=1", "--ioengine=psync",
            "--numjobs=%d" % jobs, "--group_reporting", "--fallocate=none"]
    if mode.startswith("seq"):
        args += ["--bs=512k", "--size=%dm" % (512 // jobs), "--offset_increment=%dm" % (512 // jobs)]
    else:
        args += ["--bs=4k", "--size=64m", "--io_size=%dk" % (65536 // jobs), "--norandommap",
                 "--randrepeat=0"]
    doc, _, _ = fio(args)
    shutil.rmtree(FIO_DIR, ignore_errors=True)
    os.sync()
    d = doc["jobs"][0]["read" if "read" in mode else "write"]
    return (d["io_bytes"] / MiB) / (d["runtime"] / 1000.0)


def inner(reps):
    mount_proc()
    last_fill_mib = 4096
    for rep in range(reps):
        # Odd repetitions run fio's fills first, so that neither side always finds the disk
        # as the other left it.
        fio_first = rep % 2 == 1
        if fio_first:
            note("repetition %d/%d: fio fills" % (rep + 1, reps))
            ffill = fio_fill(last_fill_mib)
            fmix = fio_fill(last_fill_mib, "--bssplit=" + PRODUCT_BSSPLIT)
        note("repetition %d/%d: flashaging, fill and benchmark" % (rep + 1, reps))
        prod = run_product(FILL_ARGS, False)
        last_fill_mib = prod["fill_mib"]
        if not fio_first:
            note("repetition %d/%d: fio fills" % (rep + 1, reps))
            ffill = fio_fill(prod["fill_mib"])
            fmix = fio_fill(prod["fill_mib"], "--bssplit=" + PRODUCT_BSSPLIT)
        note("repetition %d/%d: flashaging, readers" % (rep + 1, reps))
        rprod = run_product(READ_ARGS, True)
        note("repetition %d/%d: fio readers and benchmark modes" % (rep + 1, reps))
        freads = fio_reads(rprod, fmix["mib"], fmix["secs"])
        fbench = {m: fio_bench_mode(m, 8) for m in MODES}
        fbench1 = {m: fio_bench_mode(m, 1) for m in MODES}
        shutil.rmtree(KEEP, ignore_errors=True)
        os.sync()
        rec = {"rep": rep, "ours": prod, "ours_readers": rprod, "fio_fill": ffill, "fio_fill_mix": fmix,
               "fio_reads": freads, "fio_bench": fbench, "fio_bench_1job": fbench1}
        print("BENCH-REP " + json.dumps(rec), flush=True)


# ---- on the host ----------------------------------------------------------------------------

def outer(a):
    if os.geteuid() != 0:
        raise SystemExit("bench: needs root (the simulator mounts file systems)")
    subprocess.run([TOP + "/scripts/deps.sh", "fio"], check=True)
    build = os.path.abspath(a.build_dir)
    if not a.no_build:
        if not os.path.exists(build + "/build.ninja"):
            subprocess.run(["cmake", "-S", TOP, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo"],
                           check=True, stdout=subprocess.DEVNULL)
        subprocess.run(["cmake", "--build", build, "-j2", "--target", "flashaging", "flashaging-sim"], check=True,
                       stdout=subprocess.DEVNULL)
    sim = build + "/sim/flashaging-sim"
    out = a.out or ("/var/tmp/flashaging-bench-%d" % os.getpid())
    load0 = os.getloadavg()
    t0 = time.monotonic()
    cmd = [sim, "exec", "--profile", HERE + "/profile", "--exe", build + "/flashaging", "--out", out,
           "--", os.path.abspath(__file__), "--inner", "--reps", str(a.reps)]
    p = subprocess.Popen(cmd, stdout=subprocess.PIPE, text=True)
    recs = []
    for line in p.stdout:
        if line.startswith("BENCH-REP "):
            recs.append(json.loads(line[len("BENCH-REP "):]))
            print("bench: repetition %d done" % len(recs), file=sys.stderr, flush=True)
        else:
            sys.stderr.write(line)
    st = p.wait()
    wall = time.monotonic() - t0
    load1 = os.getloadavg()
    if not a.out:
        shutil.rmtree(out, ignore_errors=True)
    if st != 0 or len(recs) != a.reps:
        raise SystemExit("bench: the phone run failed (status %d, %d of %d repetitions)" % (st, len(recs), a.reps))
    if a.json:
        with open(a.json, "w") as f:
            json.dump(recs, f, indent=1)
    from bench_table import details, machine, table  # host only: the phone's side never needs it
    m = machine()
    when = datetime.datetime.now().strftime("%Y-%m-%d %H:%M")
    text = ("Taken %s, %d repetitions in one phone, %.0f s in all.\n"
            "Machine: %d CPUs (nproc), %s; disk %s; kernel %s.\n"
            "Load average (1 min) %.2f at the start, %.2f at the end.\n\n"
            % (when, a.reps, wall, m["nproc"], m["cpu"], m["disk"], m["kernel"], load0[0], load1[0]))
    text += table(recs) + "\n" + details(recs)
    print(text)
    if a.readme:
        path = HERE + "/README.md"
        readme = read_text(path)
        begin, end = "<!-- table begin -->\n", "<!-- table end -->\n"
        i, j = readme.index(begin) + len(begin), readme.index(end)
        with open(path, "w") as f:
            f.write(readme[:i] + text + readme[j:])
        print("bench: table written to %s" % path, file=sys.stderr)


def main():
    ap = argparse.ArgumentParser(description="flashaging against fio in one simulated phone")
    ap.add_argument("--reps", type=int, default=5, help="repetitions (at least 3; default 5)")
    ap.add_argument("--build-dir", default=TOP + "/build/bench")
    ap.add_argument("--no-build", action="store_true")
    ap.add_argument("--readme", action="store_true", help="write the table into bench/README.md")
    ap.add_argument("--out", help="keep the phone's run folder (log, sim.log) here")
    ap.add_argument("--json", help="write the raw figures of every repetition here")
    ap.add_argument("--inner", action="store_true", help=argparse.SUPPRESS)
    a = ap.parse_args()
    if a.inner:
        inner(a.reps)
    else:
        if a.reps < 3:
            note("fewer than 3 repetitions: a trial, not a table for the README")
            a.readme = False
        outer(a)


if __name__ == "__main__":
    main()
