#!/usr/bin/env python3
"""Prints the speed and memory table from the files bench/run-all.sh leaves
in OUT: doubles.json and systemd.json (Google Benchmark), per sandbox pass
(unpinned, pinned) daemon.json and figures ("name value" lines), and the
growth table from growth/COUNT/figures and systemd.json."""
import json
import os
import re
import statistics
import sys

out = sys.argv[1]
UNIT_US = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}


def load(path):
    try:
        with open(os.path.join(out, path)) as f:
            return json.load(f)["benchmarks"]
    except (OSError, ValueError, KeyError):
        return []


def median_us(runs, name):
    """The median real time (µs) of the run called `name`: its median
    aggregate, else the plain run's time."""
    for aggregate in ("median", None):
        for r in runs:
            run = re.sub(r"/repeats:\d+", "", r.get("run_name", ""))
            if run == name and r.get("aggregate_name") == aggregate:
                if r.get("error_occurred"):
                    return None
                return r["real_time"] * UNIT_US[r["time_unit"]]
    return None


def cv_percent(runs, name):
    """The coefficient of variation (%) of the run called `name`, or None."""
    for r in runs:
        run = re.sub(r"/repeats:\d+", "", r.get("run_name", ""))
        if run == name and r.get("aggregate_name") == "cv":
            return 100 * r["real_time"]
    return None


def figures(path):
    found = {}
    try:
        with open(os.path.join(out, path)) as f:
            for line in f:
                name, value = line.split()
                found.setdefault(name, []).append(float(value))
    except OSError:
        pass
    return found


rows = []


def row(figure, mode, value, base, target, unit="µs", scale=1.0):
    """One line; `target` is the ratio value/base must not exceed."""
    if value is None or base is None or base == 0:
        rows.append((figure, mode, "n/a", "n/a", "n/a", f"<= {target}x", "?"))
        return
    ratio = value / base
    rows.append((figure, mode, f"{value / scale:.1f} {unit}", f"{base / scale:.1f} {unit}",
                 f"{ratio:.2f}x", f"<= {target}x", "met" if ratio <= target else "MISSED"))


doubles = load("doubles.json")
systemd = load("systemd.json")
for mode in ("unpinned", "pinned"):
    d = load(f"{mode}/daemon.json")
    echo_status = median_us(d, "BM_SeqpacketEcho/request:64/reply:96/real_time")
    echo_list = median_us(d, "BM_SeqpacketEcho/request:112/reply:4096/real_time")
    polkit = median_us(d, "BM_PolkitCheckAuthorization/real_time")
    row("1 status round trip / echo", mode,
        median_us(d, "BM_DaemonRoundTrip/status/real_time"), echo_status, 3)
    row("2 list (100 services) / polkit+echo", mode,
        median_us(d, "BM_DaemonRoundTrip/list/real_time"),
        polkit + echo_list if polkit is not None and echo_list is not None else None, 1.2)
    reads = median_us(d, "BM_StatusReadsAlone/real_time")
    rows.append(("  (status's own reads alone)", mode, f"{reads:.1f} µs" if reads else "n/a",
                 "", "", "", ""))
    rows.append(("  (polkit CheckAuthorization alone)", mode,
                 f"{polkit:.1f} µs" if polkit else "n/a", "", "", "", ""))
    switch = {k: median_us(d, f"BM_Switch/{k}/iterations:1/real_time")
              for k in ("tessaryctl_enable", "tessaryctl_disable", "systemctl_start",
                        "systemctl_stop")}
    row("3 tessaryctl enable / systemctl start", mode, switch["tessaryctl_enable"],
        switch["systemctl_start"], 1.0, "ms", 1e3)
    row("3 tessaryctl disable / systemctl stop", mode, switch["tessaryctl_disable"],
        switch["systemctl_stop"], 1.0, "ms", 1e3)

few = figures("few/figures")
if few.get("switch_few_tessaryctl_us") and few.get("switch_few_systemctl_us"):
    row("3 enable+disable, 3 services / start+stop", "unpinned", few["switch_few_tessaryctl_us"][0],
        few["switch_few_systemctl_us"][0], 1.0, "ms", 1e3)

row("4 syncServices 100 off / raw queries", "real systemd",
    median_us(systemd, "BM_SyncHundredOffServices/real_time"),
    median_us(systemd, "BM_RawUnitStateQueries/connection_each:0/real_time"), 1.2, "ms", 1e3)
each = median_us(systemd, "BM_RawUnitStateQueries/connection_each:1/real_time")
rows.append(("  (raw queries, a connection each)", "real systemd",
             f"{each / 1e3:.1f} ms" if each else "n/a", "", "", "", ""))
row("5 stopAllServices 20 x 1 s / 1 s", "real systemd",
    median_us(systemd, "BM_StopAllTwentySlowServices/iterations:1/real_time"), 1e6, 1.2, "ms",
    1e3)
# Faster than one stop means the programs did not take their second to stop:
# the figure then says nothing about the target.
if rows[-1][4] != "n/a" and float(rows[-1][4][:-1]) < 1.0:
    rows[-1] = rows[-1][:6] + ("INVALID: stops took < 1 s",)
row("5 stopAllServices 20 x 1 s / 1 s", "doubles",
    median_us(doubles, "BM_StopAllTwentyServices/remove_ms:1000/iterations:3/real_time"), 1e6,
    1.2, "ms", 1e3)

f = figures("unpinned/figures")
if f.get("startup_us"):
    start = statistics.median(f["startup_us"])
    shares = [m / s for m, s in zip(f.get("timed_manager_us", []), f.get("timed_startup_us", []))]
    share = f"{100 * statistics.median(shares):.0f}% in the service manager" if shares else ""
    calls = statistics.median(f.get("timed_manager_calls", [0]))
    connects = statistics.median(f.get("timed_manager_connects", [0]))
    rows.append(("6 start-up, 100 services off", "unpinned", f"{start / 1e3:.1f} ms",
                 f"{share}, {calls:.0f} sd-bus calls, {connects:.0f} connections", "", "", ""))
if f.get("rss_idle_kb") and f.get("rss_minimal_kb"):
    idle, floor = f["rss_idle_kb"][0], f["rss_minimal_kb"][0]
    row("7 VmRSS idle / minimal program", "unpinned", idle, floor, 2, "kB")
if f.get("rss_10k_kb") and f.get("rss_100k_kb"):
    after10k, after100k = f["rss_10k_kb"][0], f["rss_100k_kb"][0]
    growth = after100k - after10k
    rows.append(("7 VmRSS after 10k -> 100k requests", "unpinned",
                 f"{after10k:.0f} -> {after100k:.0f} kB", f"growth {growth:+.0f} kB", "", "0",
                 "met" if growth <= 0 else "MISSED"))



def print_table(header, lines):
    widths = [max(len(str(r[i])) for r in lines + [header]) for i in range(len(header))]
    for r in [header] + lines:
        print("  ".join(str(c).ljust(w) for c, w in zip(r, widths)).rstrip())


print_table(("figure", "mode", "median", "baseline", "ratio", "target", ""), rows)

# Growth: each figure at 10, 100 and 1,000 services. The noise is half the
# interquartile range of the runs (or the coefficient of variation of a
# benchmark's repetitions) over the median. A figure measured in rounds
# beside its baseline has as its ratio the median of the rounds' own ratios,
# which a load that changes during the run moves less than the medians'.
SIZES = (10, 100, 1000)
growth = {n: figures(f"growth/{n}/figures") for n in SIZES}


def sampled(name, n):
    runs = growth[n].get(name)
    if not runs:
        return None, ""
    q = statistics.quantiles(runs, n=4) if len(runs) > 1 else [runs[0]] * 3
    med = statistics.median(runs)
    return med, f"±{50 * (q[2] - q[0]) / med:.0f}% ({len(runs)})"


def benchmarked(name, n):
    run = f"{name}/services:{n}" + ("/iterations:1" if "StopAll" in name else "") + "/real_time"
    med = median_us(systemd, run)
    cv = cv_percent(systemd, run)
    return med, (f"±{cv:.0f}% cv" if cv is not None else "")


def ms(us):
    if us is None:
        return "n/a"
    return f"{us / 1e3:.{3 if us < 1e3 else 2 if us < 1e4 else 1}f} ms"


grows = []


def paired_ratio(name, base_name, n):
    ours, theirs = growth[n].get(name, []), growth[n].get(base_name, [])
    if not ours or len(ours) != len(theirs):
        return None
    return statistics.median(a / b for a, b in zip(ours, theirs))


def growth_rows(figure, measure, base_name, base, targets, pairs=None):
    """`base(n)`: the baseline (value, noise) at n, or None for the figure
    at 10; `targets[n]`: (ratio, absolute µs or None) the figure must meet;
    `pairs`: the names of the figure's and the baseline's rounds."""
    at10 = measure(10)[0]
    for n in SIZES:
        value, noise = measure(n)
        b, bnoise = base(n) if base else (at10, "")
        ratio = value / b if value is not None and b else None
        if pairs and paired_ratio(*pairs, n) is not None:
            ratio = paired_ratio(*pairs, n)
        growth_ratio = value / at10 if n == 1000 and value is not None and at10 else None
        verdict = ""
        target = ""
        if n in targets:
            limit, absolute = targets[n]
            target = f"<= {limit}x" + (f", <= {absolute / 1e3:.0f} ms" if absolute else "")
            ok = ratio is not None and ratio <= limit and (not absolute or value <= absolute)
            verdict = "met" if ok else "MISSED"
        base_text = f"{base_name} {ms(b)}" + (f" {bnoise}" if bnoise else "")
        grows.append((figure if n == 10 else "", n, ms(value), noise,
                      base_text if base or n != 10 else "",
                      f"{ratio:.2f}x" if ratio is not None and (base or n != 10) else "",
                      f"{growth_ratio:.2f}x" if growth_ratio is not None else "", target,
                      verdict))


growth_rows("start-up to answering", lambda n: sampled("startup_us", n), "at 10:", None,
            {1000: (5, 300e3)})
for figure, ours, theirs in (
        ("enable+disable, prefs in memory", "switch_memory_tessaryctl_us",
         "switch_memory_systemctl_us"),
        ("enable+disable, prefs on disk", "switch_tessaryctl_us", "switch_systemctl_us")):
    growth_rows(figure, lambda n, o=ours: sampled(o, n), "systemctl start+stop",
                lambda n, t=theirs: sampled(t, n), {100: (1.2, None), 1000: (1.5, None)},
                (ours, theirs))
growth_rows("tessaryctl --json list", lambda n: sampled("list_tessaryctl_us", n),
            "list-units --all --output=json", lambda n: sampled("list_systemctl_us", n),
            {1000: (2, None)}, ("list_tessaryctl_us", "list_systemctl_us"))
growth_rows("sync (decision pass)", lambda n: benchmarked("BM_SyncGrowth", n), "at 10:", None,
            {1000: (3, None)})
growth_rows("stop of all", lambda n: benchmarked("BM_StopAllGrowth", n), "at 10:", None, {})
if any(growth.values()):
    print()
    print_table(("growth", "services", "median", "noise", "baseline", "ratio", "1000/10",
                 "target", ""), grows)
