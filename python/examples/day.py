"""Prints the events and messages of the bundled example day, as scripts/demo.sh runs it.
usage: PYTHONPATH=python python3 python/examples/day.py"""
from datetime import datetime, timedelta
from pathlib import Path

import zonaris

examples = Path(__file__).resolve().parents[2] / "examples"
day = zonaris.Simulation(trace=examples / "day.gpx", fences=examples / "fences.json",
                         beacons=examples / "beacons.csv", silence=(17, 19),
                         uuid="5A4BCFCE-174E-4BAC-A814-092E77F6B7E5", start="2026-03-10T07:30:00")
for event in day.run().events:
    clock = datetime(2026, 3, 10, 7, 30) + timedelta(seconds=event.t)
    print(f"{clock:%H:%M:%S}  {event.type:5}  {event.fence}")
