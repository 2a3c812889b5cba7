#!/usr/bin/env python3
"""Turns one run of korux_bench (JSON) into the table of measurements against
their baselines and targets.

    bench-ratios.py RESULTS.json RATIOS.json MISSED.txt

Each benchmark runs several repetitions in a run; a measurement takes the best
of them (the shortest time, the smallest overshoot or CPU share), which is the
one least disturbed by the other work of a shared machine. Prints the table,
writes it to RATIOS.json and the measurements that missed their targets (one a
line) to MISSED.txt.
"""
import json
import sys

results_path, ratios_path, missed_path = sys.argv[1], sys.argv[2], sys.argv[3]
with open(results_path) as f:
    data = json.load(f)

TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}

# Every repetition of every benchmark, by name (without "/real_time" and the
# like, but with a numeric argument such as BM_SleepUs/10).
runs = {}
errors = set()
for b in data.get("benchmarks", []):
    if b.get("run_type", "iteration") != "iteration":
        continue
    parts = b["name"].split("/")
    key = parts[0]
    if len(parts) > 1 and parts[1].isdigit():
        key += "/" + parts[1]
    if b.get("error_occurred"):
        errors.add(key)
        continue
    runs.setdefault(key, []).append(b)


def real_ns(name):
    if name in errors or name not in runs:
        return None
    return min(b["real_time"] * TO_NS[b.get("time_unit", "ns")] for b in runs[name])


def counter(name, key):
    if name in errors or name not in runs:
        return None
    values = [float(b[key]) for b in runs[name] if key in b]
    return min(values) if values else None


def known(name):
    return name in runs or name in errors


rows = []


def add(name, value, unit, baseline=None, ratio=None, target=None, limit=None, strict=False, source=None):
    if value is None:
        status = "ERROR" if known(source or name.split(" ")[0]) else "SKIPPED"
    elif limit is None:
        status = "-"
    else:
        checked = ratio if ratio is not None else value
        status = "PASS" if (checked < limit if strict else checked <= limit) else "FAIL"
    rows.append({"measurement": name, "value": value, "unit": unit, "baseline": baseline,
                 "ratio": ratio, "target": target, "status": status})


def pair(name, baseline_name, label, limit=None, strict=False):
    value, base = real_ns(name), real_ns(baseline_name)
    ratio = value / base if value is not None and base else None
    target = None if limit is None else ("< " if strict else "<= ") + "%g x %s" % (limit, baseline_name)
    add(label, value / 1e6 if value is not None else None, "ms",
        base / 1e6 if base is not None else None, ratio, target, limit, strict, source=name)
    if value is not None and limit is not None and ratio is None:
        # A baseline left out by a filter skips the comparison; one that
        # failed is an error.
        rows[-1]["status"] = "ERROR" if known(baseline_name) else "SKIPPED"


# The read-out against the least work its block reads allow (a fresh image,
# the same bridge calls, one swap); a plain copy and swap of the same bytes
# only for reference.
pair("BM_ImageReadout", "BM_ImageReadout_Baseline", "BM_ImageReadout (1300x1706, 68 blocks) vs least work", 1.25)
pair("BM_ImageReadout", "BM_ImageReadout_CopyAndSwap", "BM_ImageReadout vs memcpy and swap")
# The flash-file copy against what it cannot avoid: the same flash reads and
# one write of the bytes to a fresh file; the warm memcpy only for reference.
pair("BM_FlashFileCopy", "BM_FlashFileCopy_Unavoidable", "BM_FlashFileCopy (0x3FFFFF bytes) vs unavoidable", 1.5)
pair("BM_FlashFileCopy", "BM_FlashFileCopy_Baseline", "BM_FlashFileCopy vs warm memcpy")

shot = real_ns("BM_ShotCounterRead")
add("BM_ShotCounterRead (4096 slots)", shot / 1e3 if shot is not None else None, "us",
    target="< 1000 us", limit=1000.0, strict=True)

for name in ("BM_JsonReport", "BM_JsonReportText"):
    t = real_ns(name)
    add(name, t / 1e3 if t is not None else None, "us")

# korux's shot files: the default sensor's image encoded and on the disk
# within 150 ms of its delivery; the large sensor's with its black image for
# reference.
t = real_ns("BM_ShotPngWrite/1000")
add("BM_ShotPngWrite/1000 (1000x1506 shot, PNG, synced)", t / 1e6 if t is not None else None, "ms",
    target="<= 150 ms", limit=150.0, source="BM_ShotPngWrite/1000")
t = real_ns("BM_ShotPngWrite/1300")
add("BM_ShotPngWrite/1300 (1300x1706 image and black)", t / 1e6 if t is not None else None, "ms",
    source="BM_ShotPngWrite/1300")

t = real_ns("BM_EnumerateFourSensors")
add("BM_EnumerateFourSensors", t / 1e6 if t is not None else None, "ms")

for us in (10, 100, 400):
    name = "BM_SleepUs/%d" % us
    add(name + " median overshoot", counter(name, "median_overshoot_us"), "us",
        target="< 5 us", limit=5.0, strict=True, source=name)
    add(name + " p99 overshoot", counter(name, "p99_overshoot_us"), "us", source=name)

name = "BM_ImageReadoutLinkTiming"
add(name + " wall", counter(name, "wall_ms"), "ms", source=name)
add(name + " CPU", counter(name, "cpu_ms"), "ms", source=name)
ratio = counter(name, "cpu_wall_ratio")
add(name + " CPU/wall", ratio * 100 if ratio is not None else None, "%",
    target="< 3 %", limit=3.0, strict=True, source=name)

# The pictures: one exposure of the virtual sensor's phantom, and a shot's
# files encoded in memory (its 16-bit PNG; preview and both DICOM files).
for name, label, limit in (("BM_PhantomShot", "BM_PhantomShot (1000x1506)", 50.0),
                           ("BM_SensorPng", "BM_SensorPng (1000x1506)", 150.0),
                           ("BM_ShotPictureFiles", "BM_ShotPictureFiles (preview, 2 DICOM)", 150.0)):
    t = real_ns(name)
    add(label, t / 1e6 if t is not None else None, "ms", target="< %g ms" % limit, limit=limit, strict=True,
        source=name)


def fmt(value, digits=3):
    if value is None:
        return "-"
    return "%.*g" % (digits, value) if abs(value) < 1e4 else "%.0f" % value


header = ("measurement", "value", "unit", "baseline", "ratio", "target", "status")
table = [header] + [(r["measurement"], fmt(r["value"]), r["unit"], fmt(r["baseline"]),
                     fmt(r["ratio"]), r["target"] or "-", r["status"]) for r in rows]
widths = [max(len(row[i]) for row in table) for i in range(len(header))]
for i, row in enumerate(table):
    print("  ".join(cell.ljust(widths[j]) for j, cell in enumerate(row)).rstrip())
    if i == 0:
        print("  ".join("-" * w for w in widths))

context = data.get("context", {})
with open(ratios_path, "w") as f:
    json.dump({"context": {k: context.get(k) for k in ("date", "host_name", "num_cpus", "mhz_per_cpu")},
               "rows": rows}, f, indent=2)
    f.write("\n")

missed = [r["measurement"] for r in rows if r["status"] in ("FAIL", "ERROR")]
with open(missed_path, "w") as f:
    for name in missed:
        f.write(name + "\n")
