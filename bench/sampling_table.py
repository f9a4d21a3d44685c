#!/usr/bin/env python3
"""Devices, service rules and sampling policies side by side, from zonaris-sim's score.

Runs the bundled example day and the commuter days of bench/commuter_day.py (seeds 1, 2, 3 by
default) on each device preset (--device ideal, realistic, harsh; device seed 1), under each
confirmation rule of the embedded service (--confirm exact, robust) and each sampling policy
(--sampling design, efficient), and prints one Markdown table: fixes and observations per hour,
the fixes as a share of the design policy's on the same day, device and rule, entry, exit and
dwell latency (median/p95, seconds), missed and false events.

Usage: bench/sampling_table.py [--sim PATH] [--seeds 1,2,3] [--devices ideal,realistic,harsh]
                               [--rules exact,robust] [--policies design,efficient]
                               [--extra "ARGS"] [--out DIR]
(default --sim build/normal/tools/zonaris-sim/zonaris-sim, --out a temporary folder; --extra
adds zonaris-sim options to every run, e.g. "--motion phone")
"""

import argparse
import json
import os
import shlex
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EXAMPLES = os.path.join(ROOT, "examples")


def days(out, seeds):
    yield ("bundled", ["--trace", os.path.join(EXAMPLES, "day.gpx"),
                       "--fences", os.path.join(EXAMPLES, "fences.json"),
                       "--beacons", os.path.join(EXAMPLES, "beacons.csv"),
                       "--uuid", "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5",
                       "--start", "2026-03-10T07:30:00"])
    for seed in seeds:
        subprocess.run([sys.executable, os.path.join(ROOT, "bench", "commuter_day.py"),
                        str(seed), out], check=True)
        yield ("commuter %d" % seed, ["--trace", os.path.join(out, "day%d.csv" % seed),
                                      "--fences", os.path.join(out, "day%d-fences.json" % seed),
                                      "--start", "2026-03-10T06:30:00"])


def run(sim, args, score):
    done = subprocess.run([sim, *args, "--score", score], stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, text=True)
    if done.returncode != 0:
        sys.exit("zonaris-sim failed (%d): %s\n%s" % (done.returncode, " ".join(args), done.stderr))
    with open(score) as f:
        return json.load(f)


def latency(score, kind):
    l = score["latency"].get(kind)
    if not l or not l.get("count"):
        return "-"
    return "%.0f/%.0f" % (l["median"], l["p95"])


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--sim", default=os.path.join(ROOT, "build/normal/tools/zonaris-sim/"
                                                      "zonaris-sim"))
    parser.add_argument("--seeds", default="1,2,3")
    parser.add_argument("--devices", default="ideal,realistic,harsh")
    parser.add_argument("--rules", default="exact,robust")
    parser.add_argument("--policies", default="design,efficient")
    parser.add_argument("--extra", default="")
    parser.add_argument("--out")
    a = parser.parse_args()
    out = a.out or tempfile.mkdtemp(prefix="zonaris-sampling-")
    os.makedirs(out, exist_ok=True)
    seeds = [int(s) for s in a.seeds.split(",") if s]
    extra = shlex.split(a.extra)

    runs = []
    for name, base in days(out, seeds):
        for device in a.devices.split(","):
            for rule in a.rules.split(","):
                for policy in a.policies.split(","):
                    tag = "-".join([name.replace(" ", ""), device, rule, policy])
                    args = base + ["--device", device, "--seed", "1", "--confirm", rule,
                                   "--sampling", policy] + extra
                    runs.append(((name, device, rule, policy), args,
                                 os.path.join(out, tag + ".json")))
    with ThreadPoolExecutor(max_workers=os.cpu_count() or 2) as pool:
        scores = list(pool.map(lambda r: run(a.sim, r[1], r[2]), runs))

    print("| day | device | rule | policy | fixes/h | share | observations/h "
          "| entry med/p95 s | exit med/p95 s | dwell med/p95 s | missed | false |")
    print("|---|---|---|---|---|---|---|---|---|---|---|---|")
    design = {}
    for (key, _, _), s in zip(runs, scores):
        name, device, rule, policy = key
        fixes = s["fixes"]["per_hour"]
        if policy == "design":
            design[(name, device, rule)] = fixes
        base = design.get((name, device, rule))
        share = "%.2f" % (fixes / base) if base else "-"
        print("| %s | %s | %s | %s | %.1f | %s | %.1f | %s | %s | %s | %d | %d |" % (
            name, device, rule, policy, fixes, share, s["requests_per_hour"]["observation"],
            latency(s, "entry"), latency(s, "exit"), latency(s, "dwell"), len(s["missed"]),
            len(s["false"])))


if __name__ == "__main__":
    main()
