#!/usr/bin/env python3
"""The fence engine as a process: zonaris-sim standing inside a polygon fence, against a
zonaris-service that answers N polygon fences of 64 vertices (about 40 m across) spread over a
10 km square, the first one around the device.

Usage:
  bench/standing_still.py N OUT_DIR
      writes OUT_DIR/fences.json and OUT_DIR/trace.csv (standing still for 24 hours)
  bench/standing_still.py --measure BUILD_DIR [N ...]    (default N: 10 10000)
      for each N, starts BUILD_DIR's zonaris-service on 127.0.0.1 (uncapped) and runs BUILD_DIR's
      zonaris-sim against it three times for each of --until 60, 3600 and 86400, and prints
      the CPU time (user + system) of zonaris-sim alone, the median of the three. The first
      minute holds registration and the catalogue download; the day less that minute, per
      hour, is the cost of standing among N fences (an hour alone is within the noise of the
      download). Ratios are against the first N.
"""
import json
import math
import os
import random
import statistics
import sys
import tempfile

from bench_processes import METRES_PER_DEGREE, cpu_seconds, polygon, serving, tool

CENTRE_LAT, CENTRE_LON = 52.5, 13.4


def write_inputs(count, out):
    os.makedirs(out, exist_ok=True)
    rng = random.Random(count)
    fences = []
    for i in range(count):
        north = 0.0 if i == 0 else rng.uniform(-5000, 5000)
        east = 0.0 if i == 0 else rng.uniform(-5000, 5000)
        lat = CENTRE_LAT + north / METRES_PER_DEGREE
        lon = CENTRE_LON + east / (METRES_PER_DEGREE * math.cos(math.radians(CENTRE_LAT)))
        fences.append({"id": i + 1, "name": "Zone %d" % (i + 1), "type": "polygon",
                       "location": polygon(lat, lon, 20.0), "radius": 0,
                       "_event_types": ["entry", "exit"], "_dwell_windows": []})
    with open(os.path.join(out, "fences.json"), "w") as f:
        json.dump(fences, f)
    with open(os.path.join(out, "trace.csv"), "w") as f:
        f.write("t,lat,lon,accuracy,speed\n")
        for t in (0, 24 * 3600):
            f.write("%d,%.7f,%.7f,5,0\n" % (t, CENTRE_LAT, CENTRE_LON))


def measure(build, counts):
    sim = tool(build, "zonaris-sim")
    rows = []
    with tempfile.TemporaryDirectory() as scratch:
        for count in counts:
            out = os.path.join(scratch, str(count))
            write_inputs(count, out)
            # Uncapped: the client is to hold all N fences, not the service's nearest few.
            with serving(build, os.path.join(out, "fences.json"), "--max-fences", "0") as url:
                times = {}
                for until in (60, 3600, 86400):
                    argv = [sim, "--trace", os.path.join(out, "trace.csv"), "--service", url,
                            "--until", str(until)]
                    times[until] = statistics.median(cpu_seconds(argv) for _ in range(3))
                rows.append((count, times[60], times[3600], times[86400]))

    def per_hour(row):
        return (row[3] - row[1]) / (24 - 1 / 60)

    base = rows[0]
    print("| fences | first minute (s) | one hour (s) | ratio | standing, per hour (s) | ratio |")
    print("|---|---|---|---|---|---|")
    for row in rows:
        print("| %d | %.3f | %.3f | %.1f | %.4f | %.1f |" % (
            row[0], row[1], row[2], row[2] / base[2], per_hour(row), per_hour(row) / per_hour(base)))


def main():
    if len(sys.argv) >= 3 and sys.argv[1] == "--measure":
        measure(sys.argv[2], [int(n) for n in sys.argv[3:]] or [10, 10000])
    elif len(sys.argv) == 3:
        write_inputs(int(sys.argv[1]), sys.argv[2])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
