#!/usr/bin/env python3
"""Synthesises the bundled example day: examples/day.gpx, examples/fences.json and
examples/beacons.csv, and examples/walk.csv (the morning walk to the bakery as a CSV trace).

Everything is computed from the itinerary below, so the ground truth is exact: the device is
where the script put it, at the second the script says. No recorded or downloaded data.

The day (local time, Tuesday 2026-03-10):
  07:30 at home                      ("Home", point fence with a 50 m radius)
  07:45 walk to the bakery           ("Corner Bakery", polygon, dwell window 2 min)
  08:00 drive to the office          ("Harbour Office", multipolygon of two buildings,
                                      dwell windows 15 min and 1 h)
  12:00 walk to lunch                ("Cafe Lumen", beacon fence; beacons.csv has its sightings)
  12:55 walk back to the office
  17:56 drive to the gym             ("Northside Gym", point fence, visited between 18:05 and
                                      18:55: inside the demo's silence window 17..19, so its
                                      messages are dropped while its events still arrive)
  18:55 drive home, stay until 19:30

Run from anywhere: python3 examples/make_day.py

Noisy variants. `python3 examples/make_day.py --noise 10 [--outliers 0.005] [--seed 1] [--out FILE]`
writes only a variant of day.gpx (default: examples/day-noise10.gpx) whose positions carry
Gaussian noise of that many metres per axis and, for the given share of points, jumps of 200 to
800 m, as a recorded track would. The hdop says so for the noisy points (1.51 x noise / 5 m,
combined with the original) and not for the jumps. Replaying such a trace shows how a recorded
track looks to the client; for a ground-truth score, replay the clean day.gpx with zonaris-sim's
device model (--noise, --outliers) instead, since the score takes the trace as the truth.
"""

import argparse
import json
import math
import os
import random

HERE = os.path.dirname(os.path.abspath(__file__))

# Local frame: metres east (x) and north (y) of the home's front door.
ORIGIN_LAT = 48.137154
ORIGIN_LON = 11.576124
EARTH_RADIUS = 6378137.0
START = (2026, 3, 10, 7, 30, 0)

WALK = 1.35  # m/s
DRIVE = 11.0  # m/s, town driving average


def to_latlon(x, y):
    lat = ORIGIN_LAT + math.degrees(y / EARTH_RADIUS)
    lon = ORIGIN_LON + math.degrees(x / (EARTH_RADIUS * math.cos(math.radians(ORIGIN_LAT))))
    return lat, lon


def clock(t):
    """Local time text of `t` seconds after the start."""
    y, mo, d, h, mi, s = START
    total = h * 3600 + mi * 60 + s + int(round(t))
    return "%04d-%02d-%02dT%02d:%02d:%02dZ" % (y, mo, d, total // 3600, total // 60 % 60, total % 60)


# ---- Places -----------------------------------------------------------------------------------
HOME = (0.0, 0.0)
BAKERY = (620.0, 260.0)
OFFICE = (4480.0, 5230.0)
OFFICE_DESK = (4470.0, 5240.0)
CAFE = (4760.0, 5010.0)
GYM = (2100.0, 1560.0)


def rect(cx, cy, w, h):
    return [(cx - w / 2, cy - h / 2), (cx + w / 2, cy - h / 2), (cx + w / 2, cy + h / 2),
            (cx - w / 2, cy + h / 2), (cx - w / 2, cy - h / 2)]


def ring_wkt(points):
    return "(" + ", ".join("%.7f %.7f" % tuple(reversed(to_latlon(x, y))) for x, y in points) + ")"


def point_wkt(p):
    lat, lon = to_latlon(*p)
    return "POINT (%.7f %.7f)" % (lon, lat)


# ---- Itinerary: legs of (kind, waypoints or place, duration or speed) ---------------------------
class Day:
    def __init__(self):
        self.points = []  # (t, x, y, hdop, speed)
        self.t = 0.0
        self.pos = HOME

    def stay(self, until_clock, hdop=2.0, step=60.0):
        end = seconds_at(until_clock)
        while self.t < end:
            self.points.append((self.t, self.pos[0], self.pos[1], hdop, 0.0))
            self.t = min(end, self.t + step)
        self.points.append((self.t, self.pos[0], self.pos[1], hdop, 0.0))

    def move(self, waypoints, speed, step=5.0):
        for target in waypoints:
            (x0, y0), (x1, y1) = self.pos, target
            length = math.hypot(x1 - x0, y1 - y0)
            n = max(1, int(math.ceil(length / (speed * step))))
            for i in range(1, n + 1):
                f = i / n
                self.t += length / n / speed
                self.points.append((self.t, x0 + (x1 - x0) * f, y0 + (y1 - y0) * f, 1.0, speed))
            self.pos = target
        self.t = math.ceil(self.t)


def seconds_at(hhmm):
    h, m = (int(v) for v in hhmm.split(":"))
    return (h * 3600 + m * 60) - (START[3] * 3600 + START[4] * 60)


def build_day():
    day = Day()
    day.stay("07:45")
    day.move([(300.0, 0.0), (300.0, 260.0), BAKERY], WALK)
    day.stay("08:00")
    # Along the ring road and up the harbour avenue.
    day.move([(620.0, 900.0), (1800.0, 900.0), (1800.0, 3600.0), (4480.0, 3600.0), OFFICE,
              OFFICE_DESK], DRIVE)
    day.stay("12:00")
    day.move([(4470.0, 5010.0), CAFE], WALK)
    cafe_arrival = day.t
    day.stay("12:50")
    cafe_departure = day.t
    day.move([(4470.0, 5010.0), OFFICE_DESK], WALK)
    day.stay("17:56")
    day.move([(4480.0, 3600.0), (2100.0, 3600.0), GYM], DRIVE)
    day.stay("18:55")
    day.move([(2100.0, 900.0), (0.0, 900.0), HOME], DRIVE)
    day.stay("19:30")
    return day, cafe_arrival, cafe_departure


def write_gpx(day, path):
    lines = [
        '<?xml version="1.0" encoding="UTF-8"?>',
        '<gpx version="1.1" creator="examples/make_day.py" xmlns="http://www.topografix.com/GPX/1/1">',
        "  <trk>",
        "    <name>A walk-and-drive day</name>",
        "    <trkseg>",
    ]
    for t, x, y, hdop, _speed in day.points:
        lat, lon = to_latlon(x, y)
        lines.append('      <trkpt lat="%.7f" lon="%.7f"><time>%s</time><hdop>%.1f</hdop></trkpt>'
                     % (lat, lon, clock(t), hdop))
    lines += ["    </trkseg>", "  </trk>", "</gpx>", ""]
    with open(path, "w") as f:
        f.write("\n".join(lines))


BEACON_UUID = "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5"


def fences():
    office_a = rect(OFFICE[0] - 15, OFFICE[1] + 10, 60, 40)
    office_b = rect(OFFICE[0] + 45, OFFICE[1] - 40, 30, 30)
    return [
        {"id": 101, "name": "Home", "type": "point", "location": point_wkt(HOME), "radius": 50,
         "time_zone_id": "Europe/Berlin", "_event_types": ["entry", "exit"], "_dwell_windows": [],
         "messages": {"entry": {"zr:msg:title": "Welcome home",
                                "zr:msg:body": "The hall lights are on.",
                                "scene": "evening"}}},
        {"id": 102, "name": "Corner Bakery", "type": "polygon",
         "location": "POLYGON (" + ring_wkt(rect(BAKERY[0], BAKERY[1], 40, 30)) + ")",
         "radius": 0,
         "time_zone_id": "Europe/Berlin", "_event_types": ["entry", "exit", "dwell"],
         "_dwell_windows": [120],
         "messages": {
             "entry": {"zr:msg:title": "Fresh from the oven",
                       "zr:msg:body": "Croissants came out five minutes ago.",
                       "zr:msg:image_url": "https://example.com/img/croissant.jpg"},
             "dwell": {"coupon": "CROISSANT10", "valid_days": 7}}},
        {"id": 103, "name": "Harbour Office", "type": "building",
         "location": "MULTIPOLYGON ((" + ring_wkt(office_a) + "), (" + ring_wkt(office_b) + "))",
         "radius": 0, "time_zone_id": "Europe/Berlin",
         "_event_types": ["entry", "exit", "dwell"], "_dwell_windows": [900, 3600],
         "messages": {
             "entry": {"zr:msg:title": "Good morning", "zr:msg:body": "Desk 4.12 is free today."},
             "dwell": {"zr:msg:title": "Time for a break?",
                       "zr:msg:body": "You have been at your desk a while.",
                       "focus_mode": "off"}}},
        {"id": 104, "name": "Cafe Lumen", "type": "beacon", "location": point_wkt(CAFE),
         "radius": 0, "uuid": BEACON_UUID, "major": 100, "minor": 7,
         "time_zone_id": "Europe/Berlin", "_event_types": ["entry", "exit"], "_dwell_windows": [],
         "messages": {"entry": {"zr:msg:title": "Lunch menu",
                                "zr:msg:body": "Soup of the day: pumpkin.",
                                "zr:msg:image_url": "https://example.com/img/soup.jpg",
                                "table": 12}}},
        {"id": 105, "name": "Northside Gym", "type": "point", "location": point_wkt(GYM),
         "radius": 40, "time_zone_id": "Europe/Berlin",
         "_event_types": ["entry", "exit", "dwell"], "_dwell_windows": [1800],
         "messages": {"entry": {"zr:msg:title": "Class at 18:30",
                                "zr:msg:body": "Spinning, room 2."},
                      "dwell": {"zr:msg:title": "Half an hour in", "zr:msg:body": "Drink water."}}},
        {"id": 106, "name": "Old Depot", "type": "polygon",
         "location": "POLYGON (" + ring_wkt(rect(3000, 2000, 80, 80)) + ")", "radius": 0,
         "time_zone_id": "Europe/Berlin", "_event_types": [], "_dwell_windows": []},
    ]


def write_beacons(arrival, departure, path):
    # The cafe's beacon is seen from just before the door until shortly after leaving, getting
    # nearer while seated; a neighbour's beacon of the same region is seen only from the terrace.
    rows = [
        "# t_start,t_end,uuid,major,minor,accuracy,proximity (seconds since the start)",
        "%d,%d,%s,100,7,6.5,3" % (arrival - 60, arrival + 30, BEACON_UUID),
        "%d,%d,%s,100,7,1.8,2" % (arrival + 30, departure, BEACON_UUID),
        "%d,%d,%s,100,7,7.0,3" % (departure, departure + 25, BEACON_UUID),
        "%d,%d,%s,100,9,12.0,3" % (arrival + 600, arrival + 900, BEACON_UUID),
    ]
    with open(path, "w") as f:
        f.write("\n".join(rows) + "\n")


def write_walk_csv(day, path):
    # 07:40 to 08:00: home, the walk, the bakery; t counted from 07:40.
    first, last = seconds_at("07:40"), seconds_at("08:00")
    rows = ["t,lat,lon,accuracy,speed"]
    for t, x, y, hdop, speed in day.points:
        if first <= t <= last:
            lat, lon = to_latlon(x, y)
            rows.append("%g,%.7f,%.7f,%g,%g" % (t - first, lat, lon, hdop * 5.0, speed))
    with open(path, "w") as f:
        f.write("\n".join(rows) + "\n")


def noisy(day, noise, outliers, seed):
    """The day's points with noise and jumps; the same seed gives the same file."""
    rng = random.Random(seed)
    points = []
    for t, x, y, hdop, speed in day.points:
        if rng.random() < outliers:
            distance, bearing = rng.uniform(200.0, 800.0), rng.uniform(0.0, 2.0 * math.pi)
            points.append((t, x + distance * math.sin(bearing), y + distance * math.cos(bearing),
                           hdop, speed))
        else:
            radius = math.hypot(hdop * 5.0, 1.5096 * noise) / 5.0
            points.append((t, x + rng.gauss(0.0, noise), y + rng.gauss(0.0, noise), radius, speed))
    variant = Day()
    variant.points = points
    return variant


def main():
    parser = argparse.ArgumentParser(description="Writes the bundled example day, or a noisy variant.")
    parser.add_argument("--noise", type=float, help="metres of Gaussian noise per axis (variant)")
    parser.add_argument("--outliers", type=float, default=0.0, help="share of points thrown off")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--out", help="file of the variant (default examples/day-noiseN.gpx)")
    args = parser.parse_args()
    if args.noise is not None or args.outliers:
        noise = args.noise or 0.0
        out = args.out or os.path.join(HERE, "day-noise%g.gpx" % noise)
        write_gpx(noisy(build_day()[0], noise, args.outliers, args.seed), out)
        print("%s: the day with %g m noise, %g outliers, seed %d" % (out, noise, args.outliers, args.seed))
        return

    day, arrival, departure = build_day()
    write_gpx(day, os.path.join(HERE, "day.gpx"))
    with open(os.path.join(HERE, "fences.json"), "w") as f:
        json.dump(fences(), f, indent=2)
        f.write("\n")
    write_walk_csv(day, os.path.join(HERE, "walk.csv"))
    write_beacons(int(arrival), int(departure), os.path.join(HERE, "beacons.csv"))
    print("day.gpx: %d points over %.0f s; cafe from %d s to %d s"
          % (len(day.points), day.t, arrival, departure))


if __name__ == "__main__":
    main()
