"""What the process benchmarks share: polygon fences in WKT, a zonaris-service on 127.0.0.1
for the length of a block, and the CPU time of one program alone."""
import contextlib
import math
import os
import re
import subprocess
import sys
import tempfile

METRES_PER_DEGREE = 6378137.0 * 0.017453292519943295


def polygon(lat, lon, metres, vertices=64):
    """A regular polygon of `vertices` corners, `metres` from its centre to each corner."""
    d_lat = metres / METRES_PER_DEGREE
    d_lon = d_lat / math.cos(math.radians(lat))
    ring = []
    for i in range(vertices + 1):
        angle = 2 * math.pi * (i % vertices) / vertices
        ring.append("%.7f %.7f" % (lon + d_lon * math.cos(angle), lat + d_lat * math.sin(angle)))
    return "POLYGON ((%s))" % ", ".join(ring)


def tool(build, name):
    return os.path.join(build, "tools", name, name)


@contextlib.contextmanager
def serving(build, fences, *options):
    """Runs BUILD's zonaris-service on a free port with these fences and options; yields its
    base URL and stops it when the block ends."""
    server = subprocess.Popen([tool(build, "zonaris-service"), "--fences", fences, "--port", "0",
                               *options], stdout=subprocess.PIPE, text=True)
    try:
        found = re.search(r"http://\S+", server.stdout.readline() or "")
        if not found:
            sys.exit("zonaris-service did not start: %s" % " ".join(options))
        yield found.group(0)
    finally:
        server.terminate()
        server.wait(timeout=30)


def run_measured(argv):
    """Runs argv; returns its user + system CPU time, its standard output and its standard
    error. Exits the benchmark when it fails."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        process = subprocess.Popen(argv, stdout=out, stderr=err)
        _, status, usage = os.wait4(process.pid, 0)
        out.seek(0)
        err.seek(0)
        stdout, stderr = out.read().decode(), err.read().decode()
    if status != 0:
        sys.exit("failed (status %d): %s\n%s" % (status, " ".join(argv), stderr))
    return usage.ru_utime + usage.ru_stime, stdout, stderr


def cpu_seconds(argv):
    """Runs argv; returns its user + system CPU time."""
    return run_measured(argv)[0]
