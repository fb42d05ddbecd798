"""The bench's table: the machine it ran on, and the figures of the repetitions (ours, fio's,
and their ratios as median, min and max), in the Markdown of bench/README.md. Used by run.py
on the host, after the repetitions."""
import os
import platform
import statistics
import subprocess

from run import MODES, read_text


def machine():
    cpu = "?"
    for line in read_text("/proc/cpuinfo").splitlines():
        if line.startswith("model name"):
            cpu = line.split(":", 1)[1].strip()
            break
    tmp = os.environ.get("FLASHAGING_SIM_TMPDIR") or "/var/tmp"
    disk = "?"
    try:
        src = subprocess.run(["findmnt", "-no", "SOURCE,FSTYPE", "-T", tmp], capture_output=True,
                             text=True).stdout.split()
        dev = os.path.basename(os.path.realpath(src[0]))
        blk = subprocess.run(["lsblk", "-dno", "NAME,SIZE,ROTA,MODEL", "/dev/" + dev], capture_output=True,
                             text=True).stdout.split()
        if not blk:
            parent = subprocess.run(["lsblk", "-no", "PKNAME", "/dev/" + dev], capture_output=True,
                                    text=True).stdout.split()
            blk = subprocess.run(["lsblk", "-dno", "NAME,SIZE,ROTA,MODEL", "/dev/" + parent[0]],
                                 capture_output=True, text=True).stdout.split()
        model = " ".join(blk[3:]) or ("virtio block device" if blk[0].startswith("vd") else "no model string")
        disk = "%s %s, %s, rotational flag %s; %s on %s" % (blk[0], blk[1], model, blk[2], src[1], tmp)
    except (OSError, IndexError):
        pass
    return {"nproc": os.cpu_count(), "cpu": cpu, "disk": disk, "kernel": platform.release()}


def stats(values):
    v = [x for x in values or [] if x is not None]
    if not v:
        return None
    return statistics.median(v), min(v), max(v)


def fmt(st, digits=0, unit=""):
    if st is None:
        return "n/a"
    f = "%%.%df" % digits
    return (f % st[0]) + unit + " [" + (f % st[1]) + "–" + (f % st[2]) + "]"


def table(recs):
    rows = []

    def row(name, ours, ref, ratio, goal, ok_fn, d=0, unit="", refname="fio"):
        so, sr, sq = stats(ours), stats(ref), stats(ratio)
        met = ""
        if ok_fn is not None and so is not None:
            met = "yes" if ok_fn(so, sq) else "**no**"
        rows.append((name, fmt(so, d, unit), fmt(sr, d, unit) if ref else "", fmt(sq, 2) if ratio else "",
                     goal, met))

    def ratios(a, b):
        return [x / y if x is not None and y else None for x, y in zip(a, b)]

    ours_fill = [r["ours"]["fill_mib_s"] for r in recs]
    fio_fill = [r["fio_fill"]["mib_s"] for r in recs]
    row("1 fill throughput, MiB/s (ours: 8 writers + 4 readers, ~4 GiB; fio: 8 jobs, 4 MiB blocks)",
        ours_fill, fio_fill, ratios(ours_fill, fio_fill), "≥ 0.95", lambda o, q: q[0] >= 0.95)
    mix = [r["fio_fill_mix"]["mib_s"] for r in recs]
    row("1b   against fio writing with our write sizes (bssplit of one pass of the first mix)", ours_fill, mix,
        ratios(ours_fill, mix), "(info)", None)
    wr = [r["fio_reads"]["fill_mib_s"] if r["fio_reads"] else None for r in recs]
    row("1c   against fio with our write sizes and 4 fio readers beside it (our whole fill, in fio)", ours_fill,
        wr, ratios(ours_fill, wr), "(info)", None)
    cpu_o = [r["ours"]["cpu_fill"] / (r["ours"]["fill_mib"] / 1024) for r in recs]
    cpu_w = [r["ours"]["cpu_writers"] / (r["ours"]["fill_mib"] / 1024) for r in recs]
    cpu_f = [r["fio_fill"]["cpu"] / (r["fio_fill"]["mib"] / 1024) for r in recs]
    row("2 CPU s per GiB written, whole process during the fill (fio: the 8-job fill)", cpu_o, cpu_f,
        ratios(cpu_o, cpu_f), "≤ 1.00", lambda o, q: q[0] <= 1.0, 3)
    row("2b   the 8 writer threads only", cpu_w, cpu_f, ratios(cpu_w, cpu_f), "(info)", None, 3)
    rd_o = [sum(x["rate"] for x in r["ours_readers"]["readers"]) for r in recs]
    rd_f = [r["fio_reads"]["with_fill"] if r["fio_reads"] else None for r in recs]
    rd_a = [r["fio_reads"]["alone"] if r["fio_reads"] else None for r in recs]
    row("3 verification reads/s of the 4 readers during the fill (fio: 4 jobs on the same files "
        "beside the fill of 1c)", rd_o, rd_f, ratios(rd_o, rd_f), "≥ 0.90", lambda o, q: q[0] >= 0.9)
    row("3b   against fio's 4 jobs alone (no writes beside them)", rd_o, rd_a, ratios(rd_o, rd_a), "(info)", None)
    rd_4 = [sum(x["rate"] for x in r["ours"]["readers"]) or None for r in recs]
    row("3c   our readers in the ~4 GiB fill of rows 1-2 (they read for ~1 s of it)", rd_4, None, None,
        "(info)", None)
    for m in MODES:
        o = [r["ours"]["bench"][m] for r in recs]
        f = [r["fio_bench"][m] for r in recs]
        row("4 benchmark %s, MiB/s (fio: 8 jobs, one file)" % m, o, f, ratios(o, f), "0.85–1.15",
            lambda o_, q: 0.85 <= q[0] <= 1.15, 1)
    for m in MODES:
        o = [r["ours"]["bench"][m] for r in recs]
        f = [r["fio_bench_1job"][m] for r in recs]
        row("4b   %s against fio with 1 job (one transfer at a time)" % m, o, f, ratios(o, f), "(info)", None, 1)
    hwm = [r["ours"]["hwm_fill_kib"] / 1024 for r in recs]
    row("5 peak resident memory during the fill, MiB (VmHWM)", hwm, None, None, "< 64",
        lambda o, q: o[0] < 64, 1)
    rss = [r["ours"]["maxrss_run_kib"] / 1024 for r in recs]
    row("5b   peak resident memory of the whole run, MiB", rss, None, None, "(info)", None, 1)

    head = ("| Row | ours median [min–max] | fio median [min–max] | ours/fio median [min–max] | goal | met |\n"
            "|---|---|---|---|---|---|\n")
    return head + "".join("| %s | %s | %s | %s | %s | %s |\n" % r for r in rows)


def details(recs):
    out = []
    for r in recs:
        o, q = r["ours"], r["ours_readers"]
        rd = ", ".join("%.0f/s over %.1f s" % (x["rate"], x["window"]) for x in q["readers"])
        if q["log_readers"]:
            rd += " (logged: " + ", ".join("%d reads at %.0f/s" % (x["reads"], x["rate"] or 0)
                                          for x in q["log_readers"]) + ")"
        out.append("- rep %d: fill %d MiB in %.2f s, fio %.0f MiB in %.2f s; readers run: %d MiB in %.2f s, "
                   "readers %s; fio's readers on %s"
                   % (r["rep"] + 1, o["fill_mib"], o["fill_span"], r["fio_fill"]["mib"], r["fio_fill"]["secs"],
                      q["fill_mib"], q["fill_span"], rd,
                      "; ".join(r["fio_reads"]["sets"]) if r["fio_reads"] else "nothing"))
    return "\n".join(out) + "\n"
