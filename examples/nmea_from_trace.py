#!/usr/bin/env python3
"""Turns a CSV trace (t,lat,lon[,accuracy][,speed], t in seconds) into an NMEA 0183 log that
gpsfake can replay to a real gpsd as if a receiver were attached: one GGA and one RMC sentence
per second, positions interpolated between the trace's points.

  python3 examples/nmea_from_trace.py examples/walk.csv -o examples/walk.nmea
  python3 examples/nmea_from_trace.py examples/walk.csv --start now -o /tmp/walk.nmea
  gpsfake -q -c 0.5 -P 2947 /tmp/walk.nmea

The sentences carry UTC times from --start (an ISO time such as 2026-03-10T07:30:00Z, or "now",
the default being the bundled walk's morning). zonaris-agent takes only fixes newer than the
moment it asked for one, so a log that is to be replayed to it must start at "now". gpsfake's
-c 0.5 (two sentences per second) replays the log in real time. Accuracy becomes the HDOP (the
accuracy divided by 5 m, as the simulator reads GPX HDOP); speed, when the trace has none, and
course come from consecutive points. --seconds sets the log's length (default: the trace's;
after the last point the device stays there).
"""

import argparse
import datetime
import math
import sys

DEFAULT_START = "2026-03-10T07:30:00Z"
UERE = 5.0  # metres of accuracy per unit of HDOP
KNOTS = 3600.0 / 1852.0  # knots per m/s


def read_trace(path):
    points = []
    with open(path) as f:
        for line in f:
            line = line.strip()
            if not line or line.startswith("#"):
                continue
            fields = line.split(",")
            try:
                t, lat, lon = float(fields[0]), float(fields[1]), float(fields[2])
            except ValueError:
                continue  # the header
            accuracy = float(fields[3]) if len(fields) > 3 and fields[3] else 5.0
            speed = float(fields[4]) if len(fields) > 4 and fields[4] else None
            points.append((t, lat, lon, accuracy, speed))
    if not points:
        sys.exit("%s: the trace has no points" % path)
    return sorted(points)


def distance_and_course(lat1, lon1, lat2, lon2):
    r = 6371008.8
    p1, p2 = math.radians(lat1), math.radians(lat2)
    dp, dl = p2 - p1, math.radians(lon2 - lon1)
    a = math.sin(dp / 2) ** 2 + math.cos(p1) * math.cos(p2) * math.sin(dl / 2) ** 2
    d = 2 * r * math.asin(min(1.0, math.sqrt(a)))
    y = math.sin(dl) * math.cos(p2)
    x = math.cos(p1) * math.sin(p2) - math.sin(p1) * math.cos(p2) * math.cos(dl)
    return d, (math.degrees(math.atan2(y, x)) + 360.0) % 360.0


def position(points, t):
    """(lat, lon, accuracy, speed m/s, course) at `t` seconds."""
    if t <= points[0][0] or len(points) == 1:
        p = points[0] if t <= points[0][0] else points[-1]
        return p[1], p[2], p[3], 0.0, 0.0
    for a, b in zip(points, points[1:]):
        if a[0] <= t <= b[0]:
            f = 0.0 if b[0] == a[0] else (t - a[0]) / (b[0] - a[0])
            lat = a[1] + (b[1] - a[1]) * f
            lon = a[2] + (b[2] - a[2]) * f
            d, course = distance_and_course(a[1], a[2], b[1], b[2])
            speed = a[4] if a[4] is not None else (d / (b[0] - a[0]) if b[0] > a[0] else 0.0)
            return lat, lon, a[3] + (b[3] - a[3]) * f, speed, course
    p = points[-1]
    return p[1], p[2], p[3], 0.0, 0.0


def sentence(body):
    checksum = 0
    for c in body:
        checksum ^= ord(c)
    return "$%s*%02X" % (body, checksum)


def angle(value, hemispheres, width):
    hemisphere = hemispheres[0] if value >= 0 else hemispheres[1]
    value = abs(value)
    degrees = int(value)
    minutes = (value - degrees) * 60.0
    return "%0*d%07.4f" % (width, degrees, minutes), hemisphere


def epoch(when, lat, lon, accuracy, speed, course):
    hms = when.strftime("%H%M%S") + ".%02d" % (when.microsecond // 10000)
    la, ns = angle(lat, "NS", 2)
    lo, ew = angle(lon, "EW", 3)
    hdop = max(0.5, accuracy / UERE)
    gga = "GPGGA,%s,%s,%s,%s,%s,1,08,%.1f,520.0,M,47.0,M,," % (hms, la, ns, lo, ew, hdop)
    rmc = "GPRMC,%s,A,%s,%s,%s,%s,%.2f,%.1f,%s,,,A" % (
        hms, la, ns, lo, ew, speed * KNOTS, course, when.strftime("%d%m%y"))
    return [sentence(gga), sentence(rmc)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("trace", help="CSV trace t,lat,lon[,accuracy][,speed]")
    parser.add_argument("-o", "--output", help="the NMEA log (default: stdout)")
    parser.add_argument("--start", default=DEFAULT_START,
                        help='UTC time of the first fix, ISO 8601, or "now"')
    parser.add_argument("--seconds", type=float, help="length of the log (default: the trace's)")
    args = parser.parse_args()

    points = read_trace(args.trace)
    if args.start == "now":
        start = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0)
        start += datetime.timedelta(seconds=1)
    else:
        start = datetime.datetime.fromisoformat(args.start.replace("Z", "+00:00"))
    length = args.seconds if args.seconds is not None else points[-1][0] - points[0][0]

    lines = ["# NMEA log generated by nmea_from_trace.py from %s" % args.trace,
             "#Date: %s" % start.strftime("%Y-%m-%d")]
    for second in range(int(length) + 1):
        when = start + datetime.timedelta(seconds=second)
        lines += epoch(when, *position(points, points[0][0] + second))
    text = "\r\n".join(lines) + "\r\n"
    if args.output:
        with open(args.output, "w", newline="") as f:
            f.write(text)
    else:
        sys.stdout.write(text)


if __name__ == "__main__":
    main()
