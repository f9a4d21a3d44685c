#!/usr/bin/env python3
"""Writes the inputs for measuring zonaris-sim as a process: a fences file of N polygon fences
of 64 vertices (about 40 m across) spread over a 10 km square, the first one around the centre,
and a trace that stands at the centre for one hour.

Usage: bench/standing_still.py N OUT_DIR
Then:  /usr/bin/time -f '%U %S' zonaris-sim --trace OUT_DIR/trace.csv \\
         --fences OUT_DIR/fences.json --until 3600 >/dev/null
"""
import json
import math
import os
import random
import sys

METRES_PER_DEGREE = 6378137.0 * 0.017453292519943295
CENTRE_LAT, CENTRE_LON = 52.5, 13.4


def polygon(lat, lon, metres, vertices=64):
    d_lat = metres / METRES_PER_DEGREE
    d_lon = d_lat / math.cos(math.radians(lat))
    ring = []
    for i in range(vertices + 1):
        angle = 2 * math.pi * (i % vertices) / vertices
        ring.append("%.7f %.7f" % (lon + d_lon * math.cos(angle), lat + d_lat * math.sin(angle)))
    return "POLYGON ((%s))" % ", ".join(ring)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    count, out = int(sys.argv[1]), sys.argv[2]
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
        for t in (0, 3600):
            f.write("%d,%.7f,%.7f,5,0\n" % (t, CENTRE_LAT, CENTRE_LON))


if __name__ == "__main__":
    main()
