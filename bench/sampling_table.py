#!/usr/bin/env python3
"""The two sampling policies side by side, from zonaris-sim's ground-truth score.

Runs the bundled example day and the commuter days of bench/commuter_day.py (seeds 1, 2, 3 by
default), each under the ideal device and under a realistic one (noise 10 m, stale first fix,
fix delay 5 s, latency 300 ms, 0.5 % outliers; device seed 1), with --sampling design and
--sampling efficient, and prints one Markdown table: fixes per hour, the efficient/design ratio, entry, exit and dwell
latency (median/p95/max, seconds), missed and false events.

Usage: bench/sampling_table.py [--sim PATH] [--seeds 1,2,3] [--out DIR]
(default --sim build/normal/tools/zonaris-sim/zonaris-sim, --out a temporary folder)
"""

import argparse
import json
import os
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EXAMPLES = os.path.join(ROOT, "examples")
REALISTIC = ["--noise", "10", "--stale-first", "--fix-delay", "5", "--latency", "300",
             "--outliers", "0.005"]


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
    return "%.0f/%.0f/%.0f" % (l["median"], l["p95"], l["max"])


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--sim", default=os.path.join(ROOT, "build/normal/tools/zonaris-sim/"
                                                      "zonaris-sim"))
    parser.add_argument("--seeds", default="1,2,3")
    parser.add_argument("--out")
    a = parser.parse_args()
    out = a.out or tempfile.mkdtemp(prefix="zonaris-sampling-")
    os.makedirs(out, exist_ok=True)
    seeds = [int(s) for s in a.seeds.split(",") if s]

    print("| day | device | policy | fixes/h | ratio | entry med/p95/max s | exit med/p95/max s "
          "| dwell med/p95/max s | missed | false |")
    print("|---|---|---|---|---|---|---|---|---|---|")
    for name, base in days(out, seeds):
        for device, extra in (("ideal", []), ("realistic", REALISTIC)):
            design = None
            for policy in ("design", "efficient"):
                tag = "%s-%s-%s" % (name.replace(" ", ""), device, policy)
                s = run(a.sim, base + extra + ["--seed", "1", "--sampling", policy],
                        os.path.join(out, tag + ".json"))
                fixes = s["fixes"]["per_hour"]
                design = design or fixes
                print("| %s | %s | %s | %.1f | %.2f | %s | %s | %s | %d | %d |" % (
                    name, device, policy, fixes, fixes / design, latency(s, "entry"),
                    latency(s, "exit"), latency(s, "dwell"), len(s["missed"]), len(s["false"])))
                sys.stdout.flush()


if __name__ == "__main__":
    main()
