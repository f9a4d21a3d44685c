#!/usr/bin/env python3
"""Synthesises a random commuter day with exact ground truth: a CSV trace (t,lat,lon,accuracy,
speed) and the fences it visits, for zonaris-sim --trace/--fences/--score.

Each seed gives another town and another day, always of the same shape: a morning at home, a
walk or a drive with an optional stop (a bakery with a short dwell window), the commute to an
office (a building polygon with dwell windows; the desk anywhere inside, sometimes near a wall,
and a few short walks to other rooms during the day), lunch at a cafe a few hundred metres
away, an optional errand on the way home, and the evening at home. Roads may cut through a park
(a large polygon crossed in passing) and there are fences the day never touches.

Usage: commuter_day.py SEED OUT_DIR  (writes OUT_DIR/dayN.csv and OUT_DIR/dayN-fences.json)
"""

import json
import math
import os
import random
import sys

EARTH_RADIUS = 6378137.0


class Town:
    def __init__(self, rng):
        self.lat0 = rng.uniform(40.0, 55.0)
        self.lon0 = rng.uniform(-5.0, 20.0)

    def latlon(self, x, y):
        lat = self.lat0 + math.degrees(y / EARTH_RADIUS)
        lon = self.lon0 + math.degrees(x / (EARTH_RADIUS * math.cos(math.radians(self.lat0))))
        return lat, lon

    def point_wkt(self, p):
        lat, lon = self.latlon(*p)
        return "POINT (%.7f %.7f)" % (lon, lat)

    def polygon_wkt(self, ring):
        return "POLYGON ((" + ", ".join("%.7f %.7f" % tuple(reversed(self.latlon(x, y)))
                                        for x, y in ring) + "))"


def rect(cx, cy, w, h):
    return [(cx - w / 2, cy - h / 2), (cx + w / 2, cy - h / 2), (cx + w / 2, cy + h / 2),
            (cx - w / 2, cy + h / 2), (cx - w / 2, cy - h / 2)]


class Day:
    def __init__(self, start_pos):
        self.points = []  # (t, x, y, accuracy, speed)
        self.t = 0.0
        self.pos = start_pos

    def stay(self, seconds, accuracy=10.0, step=60.0):
        end = self.t + seconds
        while self.t < end:
            self.points.append((self.t, self.pos[0], self.pos[1], accuracy, 0.0))
            self.t = min(end, self.t + step)
        self.points.append((self.t, self.pos[0], self.pos[1], accuracy, 0.0))

    def move(self, waypoints, speed, step=5.0):
        for target in waypoints:
            (x0, y0), (x1, y1) = self.pos, target
            length = math.hypot(x1 - x0, y1 - y0)
            n = max(1, int(math.ceil(length / (speed * step))))
            for i in range(1, n + 1):
                f = i / n
                self.t += length / n / speed
                self.points.append((self.t, x0 + (x1 - x0) * f, y0 + (y1 - y0) * f, 5.0, speed))
            self.pos = target
        self.t = math.ceil(self.t)


def build(seed):
    rng = random.Random(seed)
    town = Town(rng)
    walk = rng.uniform(1.1, 1.5)
    drive = rng.uniform(9.0, 14.0)

    home = (0.0, 0.0)
    office_c = (rng.uniform(3000, 8000) * rng.choice([-1, 1]),
                rng.uniform(3000, 8000) * rng.choice([-1, 1]))
    ow, oh = rng.uniform(40, 120), rng.uniform(30, 90)
    # The desk: anywhere inside, a third of the days within 8 m of a wall.
    if rng.random() < 1 / 3:
        desk = (office_c[0] + ow / 2 - rng.uniform(3, 8), office_c[1] + rng.uniform(-oh, oh) / 3)
    else:
        desk = (office_c[0] + rng.uniform(-ow, ow) / 3, office_c[1] + rng.uniform(-oh, oh) / 3)
    room = (office_c[0] - ow / 4, office_c[1] - oh / 4)  # a meeting room inside
    # The door faces home, and every way from it leads away from the building: no walk or
    # drive of the day grazes a fence for a few seconds, which no sampler could see.
    towards_home = -1.0 if office_c[1] > 0 else 1.0
    door = (office_c[0], office_c[1] + towards_home * (oh / 2 + 40.0))
    bakery = (rng.uniform(300, 700), rng.uniform(-300, 300))
    cafe_dir = rng.uniform(math.radians(30), math.radians(150))
    cafe_dist = rng.uniform(250, 600)
    cafe = (office_c[0] + cafe_dist * math.cos(cafe_dir),
            office_c[1] + towards_home * cafe_dist * math.sin(cafe_dir))
    shop = (office_c[0] * rng.uniform(0.3, 0.6), office_c[1] * rng.uniform(0.3, 0.6))
    corner = (office_c[0], 0.0)  # the commute runs along x, then along y
    park = ((corner[0] + office_c[0]) / 2, office_c[1] * 0.5)

    home_radius = rng.uniform(40, 80)
    cafe_radius = rng.uniform(25, 40)
    fences = [
        {"id": 1, "name": "Home", "type": "point", "location": town.point_wkt(home),
         "radius": home_radius, "_event_types": ["entry", "exit"], "_dwell_windows": []},
        {"id": 2, "name": "Bakery", "type": "polygon",
         "location": town.polygon_wkt(rect(bakery[0], bakery[1], 30, 25)), "radius": 0,
         "_event_types": ["entry", "exit", "dwell"], "_dwell_windows": [rng.choice([60, 120, 180])]},
        {"id": 3, "name": "Office", "type": "building",
         "location": town.polygon_wkt(rect(office_c[0], office_c[1], ow, oh)), "radius": 0,
         "_event_types": ["entry", "exit", "dwell"], "_dwell_windows": [900, 3600]},
        {"id": 4, "name": "Cafe", "type": "point", "location": town.point_wkt(cafe),
         "radius": cafe_radius, "_event_types": ["entry", "exit", "dwell"],
         "_dwell_windows": [600]},
        {"id": 5, "name": "Shop", "type": "polygon",
         "location": town.polygon_wkt(rect(shop[0], shop[1], 50, 40)), "radius": 0,
         "_event_types": ["entry", "exit", "dwell"], "_dwell_windows": [300]},
        {"id": 6, "name": "Park", "type": "polygon",
         "location": town.polygon_wkt(rect(park[0], park[1], 300, 400)), "radius": 0,
         "_event_types": ["entry", "exit"], "_dwell_windows": []},
        {"id": 7, "name": "Far Depot", "type": "polygon",
         "location": town.polygon_wkt(rect(-4000, 2500, 80, 80)), "radius": 0,
         "_event_types": [], "_dwell_windows": []},
    ]
    for f in fences:
        f["time_zone_id"] = "Europe/Berlin"

    day = Day(home)
    day.stay(rng.uniform(15, 40) * 60)
    if rng.random() < 0.6:
        day.move([(bakery[0], 0.0), bakery], walk)
        day.stay(rng.uniform(4, 12) * 60)
        day.move([(bakery[0], 0.0)], walk)
    day.move([corner, (office_c[0], park[1]), door, desk], drive)
    morning = rng.uniform(3.0, 4.0) * 3600
    end_morning = day.t + morning
    while day.t < end_morning - 1800:
        day.stay(rng.uniform(40, 100) * 60)
        if rng.random() < 0.5 and day.t < end_morning - 1800:
            day.move([room], walk)
            day.stay(rng.uniform(20, 60) * 60)
            day.move([desk], walk)
    day.move([door, cafe], walk)
    day.stay(rng.uniform(30, 60) * 60)
    day.move([door, desk], walk)
    day.stay(rng.uniform(3.5, 5.0) * 3600)
    day.move([door], walk)
    if rng.random() < 0.7:
        day.move([(office_c[0], shop[1]), shop], drive)
        day.stay(rng.uniform(8, 20) * 60)
        day.move([(office_c[0], shop[1])], drive)
    day.move([(office_c[0], park[1]), corner, home], drive)
    day.stay(rng.uniform(30, 90) * 60)
    return town, day, fences


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    seed, out = int(sys.argv[1]), sys.argv[2]
    os.makedirs(out, exist_ok=True)
    town, day, fences = build(seed)
    with open(os.path.join(out, "day%d.csv" % seed), "w") as f:
        f.write("t,lat,lon,accuracy,speed\n")
        for t, x, y, acc, speed in day.points:
            lat, lon = town.latlon(x, y)
            f.write("%g,%.7f,%.7f,%g,%g\n" % (t, lat, lon, acc, speed))
    with open(os.path.join(out, "day%d-fences.json" % seed), "w") as f:
        json.dump(fences, f, indent=1)
        f.write("\n")


if __name__ == "__main__":
    main()
