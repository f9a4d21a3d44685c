#!/usr/bin/env python3
"""Observation throughput of zonaris-service: one node on SQLite, and 1, 2 and 4 nodes sharing
one PostgreSQL database, under the same closed-loop load.

Usage:
  bench/service_load.py BUILD_DIR [--clients N] [--seconds S] [--fences N] [--connections N]
                        [--statements] [--only NAME ...]
      NAME: sqlite-memory-1, sqlite-1, postgresql-1, postgresql-2, postgresql-4

Each configuration gets a fresh database: SQLite in memory (the service's default --db), a
SQLite file, or a new database with PostGIS in a
PostgreSQL 15 that the benchmark starts for itself in a temporary folder (on 127.0.0.1, as the
postgres system user when run as root, with the server's default durability: fsync and
synchronous_commit on, as SQLite's default journal syncs every commit). The nodes confirm with
--confirm exact (the robust rules judge speed on the wall clock, which a load generator does not
respect). N point fences of 50 m lie on a grid around one centre; every client registers an
install, then sends observations back to back for S seconds, new connection each, taking turns
over the nodes as a load balancer would: four inside one fence, one 300 m away (an entry and an
exit in every five observations), at a fence of its own.

Prints a table: observations answered 2xx per second, latency p50 and p99 (2xx only), failed
requests, the CPU milliseconds per observation of the nodes, of PostgreSQL and of the load
generator (which shares the machine), and for
PostgreSQL the statements and transactions per observation (pg_stat_statements).
"""
import argparse
import contextlib
import json
import math
import multiprocessing
import os
import pwd
import resource
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import http.client

METRES_PER_DEGREE = 6378137.0 * 0.017453292519943295
CENTRE_LAT, CENTRE_LON = 50.0, 10.0
PG_BIN = "/usr/lib/postgresql/15/bin/"
CLOCK_TICKS = os.sysconf("SC_CLK_TCK")


def fence_grid(count):
    """COUNT point fences of 50 m, 500 m apart on a square grid around the centre."""
    side = max(1, math.ceil(math.sqrt(count)))
    fences = []
    for i in range(count):
        lat = CENTRE_LAT + (i // side - side / 2) * 500.0 / METRES_PER_DEGREE
        lon = CENTRE_LON + (i % side - side / 2) * 500.0 / (
            METRES_PER_DEGREE * math.cos(math.radians(CENTRE_LAT)))
        fences.append({"id": i + 1, "name": "Fence %d" % (i + 1), "type": "point",
                       "location": "POINT (%.7f %.7f)" % (lon, lat), "radius": 50,
                       "_event_types": ["entry", "exit"], "_dwell_windows": [300]})
    return fences


def cpu_ms(pids):
    """User + system CPU milliseconds of the living processes PIDS."""
    total = 0
    for pid in pids:
        try:
            with open("/proc/%d/stat" % pid) as f:
                fields = f.read().rsplit(")", 1)[1].split()
            total += int(fields[11]) + int(fields[12])
        except (OSError, IndexError, ValueError):
            pass
    return total * 1000.0 / CLOCK_TICKS


def children(pid):
    """The pids of PID and its children."""
    found = [pid]
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                with open("/proc/%s/stat" % entry) as f:
                    if int(f.read().rsplit(")", 1)[1].split()[1]) == pid:
                        found.append(int(entry))
            except (OSError, IndexError, ValueError):
                pass
    return found


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Postgres:
    """A PostgreSQL 15 cluster of its own in a temporary folder, stopped and removed on exit."""

    def __init__(self):
        if not os.path.exists(PG_BIN + "initdb"):
            sys.exit("PostgreSQL 15 is not installed: scripts/install-deps.sh installs it")
        self.dir = tempfile.mkdtemp(prefix="zonaris-bench-pg-")
        self.wrap = []
        if os.geteuid() == 0:  # PostgreSQL refuses root: run it as the package's user
            user = pwd.getpwnam("postgres")
            os.chown(self.dir, user.pw_uid, user.pw_gid)
            self.wrap = ["setpriv", "--reuid=%d" % user.pw_uid, "--regid=%d" % user.pw_gid,
                         "--clear-groups", "env", "-C", self.dir]
        self.port = free_port()
        data = os.path.join(self.dir, "data")
        subprocess.run(self.wrap + [PG_BIN + "initdb", "-D", data, "-U", "zonaris",
                                    "--auth=trust", "--locale=C", "--encoding=UTF8"],
                       check=True, stdout=subprocess.DEVNULL)
        self.log = open(os.path.join(self.dir, "server.log"), "w")
        self.server = subprocess.Popen(
            self.wrap + [PG_BIN + "postgres", "-D", data, "-p", str(self.port),
                         "-c", "listen_addresses=127.0.0.1",
                         "-c", "unix_socket_directories=" + self.dir,
                         "-c", "shared_preload_libraries=pg_stat_statements"],
            stdout=self.log, stderr=self.log)
        for _ in range(300):
            if subprocess.run([PG_BIN + "pg_isready", "-q", "-h", "127.0.0.1", "-p",
                               str(self.port)]).returncode == 0:
                return
            time.sleep(0.1)
        self.close()
        sys.exit("PostgreSQL did not start")

    def url(self, db):
        return "postgresql://zonaris@127.0.0.1:%d/%s" % (self.port, db)

    def sql(self, db, statement):
        return subprocess.run([PG_BIN + "psql", self.url(db), "-X", "-A", "-t", "-q", "-v",
                               "ON_ERROR_STOP=1", "-c", statement],
                              check=True, capture_output=True, text=True).stdout.strip()

    def fresh_database(self, name):
        self.sql("postgres", "CREATE DATABASE %s" % name)
        self.sql(name, "CREATE EXTENSION postgis; CREATE EXTENSION pg_stat_statements")
        return self.url(name)

    def cpu_ms(self):
        return cpu_ms(children(self.server.pid))

    def close(self):
        subprocess.run(self.wrap + [PG_BIN + "pg_ctl", "stop", "-D",
                                    os.path.join(self.dir, "data"), "-m", "immediate"],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.server.kill()
        self.server.wait()
        self.log.close()
        shutil.rmtree(self.dir, ignore_errors=True)


@contextlib.contextmanager
def nodes(build, fences, db, count, options):
    """COUNT zonaris-service nodes on DB, started together; yields their ports and pids."""
    binary = os.path.join(build, "tools", "zonaris-service", "zonaris-service")
    started = [subprocess.Popen([binary, "--fences", fences, "--db", db, "--port", "0",
                                 "--confirm", "exact", *options], stdout=subprocess.PIPE,
                                text=True)
               for _ in range(count)]
    try:
        ports = []
        for node in started:
            found = re.search(r"http://127\.0\.0\.1:(\d+)", node.stdout.readline() or "")
            if not found:
                sys.exit("zonaris-service did not start on %s" % db)
            ports.append(int(found.group(1)))
        yield ports, [node.pid for node in started]
    finally:
        for node in started:
            node.terminate()
        for node in started:
            node.wait(timeout=30)


def post(port, path, body):
    """Status and body of one POST on a new connection; status 0 when the transport failed."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    try:
        connection.request("POST", path, body, {"Content-Type": "application/json"})
        response = connection.getresponse()
        return response.status, response.read()
    except (OSError, http.client.HTTPException):
        return 0, b""
    finally:
        connection.close()


def client(port, fence, seconds, start, results):
    """One device: registers, then observes until START + SECONDS; appends (latencies of the
    2xx, failures) to RESULTS."""
    status, body = post(port, "/install", '{"appKey": "bench"}')
    if status != 201:
        results.append(([], 1))
        return
    install = json.loads(body)["id"]
    lon, lat = (float(v) for v in fence["location"][7:-1].split())
    away = 300.0 / METRES_PER_DEGREE
    latencies, failures, n = [], 0, 0
    while time.time() < start:
        time.sleep(0.001)
    while time.time() < start + seconds:
        observation = json.dumps({"gps": {"latitude": lat + (away if n % 5 == 4 else 0.0),
                                          "longitude": lon, "radius": 5.0},
                                  "beacons": [], "data": {"n": str(n)}, "install": install})
        sent = time.perf_counter()
        status, _ = post(port, "/observation", observation)
        if 200 <= status < 300:
            latencies.append(time.perf_counter() - sent)
        else:
            failures += 1
        n += 1
    results.append((latencies, failures))


def worker(ports, fences, clients, seconds, start, queue):
    """A load process: CLIENTS threads, their results put on QUEUE."""
    results = []
    threads = [threading.Thread(target=client, args=(ports[i % len(ports)],
                                                     fences[i % len(fences)], seconds, start,
                                                     results))
               for i in clients]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    queue.put(results)


def load(ports, fences, clients, seconds):
    """Runs CLIENTS devices spread over two load processes (the interpreter serialises the
    threads of one); returns the 2xx latencies and the failures."""
    start = time.time() + 1.0  # every client registered and waiting
    queue = multiprocessing.Queue()
    workers = [multiprocessing.Process(target=worker, args=(
        ports, fences, list(range(w, clients, 2)), seconds, start, queue)) for w in range(2)]
    for w in workers:
        w.start()
    latencies, failures = [], 0
    for _ in workers:
        for l, f in queue.get():
            latencies += l
            failures += f
    for w in workers:
        w.join()
    return sorted(latencies), failures


def percentile(sorted_values, p):
    if not sorted_values:
        return float("nan")
    return sorted_values[min(len(sorted_values) - 1, int(p / 100.0 * len(sorted_values)))]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("build")
    parser.add_argument("--clients", type=int, default=20)
    parser.add_argument("--seconds", type=float, default=10.0)
    parser.add_argument("--fences", type=int, default=1000)
    parser.add_argument("--only", nargs="*", help="configurations: sqlite-1 postgresql-1 ...")
    parser.add_argument("--connections", type=int,
                        help="PostgreSQL connections per node (--db-connections; default: the "
                             "node's)")
    parser.add_argument("--statements", action="store_true",
                        help="also print PostgreSQL's statements per observation, most first")
    args = parser.parse_args()

    work = tempfile.mkdtemp(prefix="zonaris-bench-load-")
    fences = fence_grid(args.fences)
    fences_file = os.path.join(work, "fences.json")
    with open(fences_file, "w") as f:
        json.dump(fences, f)
    configurations = [("sqlite-memory", 1), ("sqlite", 1), ("postgresql", 1), ("postgresql", 2),
                      ("postgresql", 4)]
    configurations = [c for c in configurations
                      if not args.only or "%s-%d" % c in args.only]
    pg = Postgres() if any(kind == "postgresql" for kind, _ in configurations) else None
    rows = []
    try:
        for index, (kind, count) in enumerate(configurations):
            if kind == "sqlite-memory":
                db = ":memory:"
            elif kind == "sqlite":
                db = os.path.join(work, "service-%d.db" % index)
            else:
                db = pg.fresh_database("bench_%d" % index)
            options = []
            if kind == "postgresql" and args.connections:
                options = ["--db-connections", str(args.connections)]
            with nodes(args.build, fences_file, db, count, options) as (ports, pids):
                pg_before = pg.cpu_ms() if pg else 0.0
                nodes_before = cpu_ms(pids)
                if kind == "postgresql":
                    pg.sql("bench_%d" % index, "SELECT pg_stat_statements_reset()")
                    commits = int(pg.sql("bench_%d" % index, "SELECT xact_commit FROM "
                                         "pg_stat_database WHERE datname = current_database()"))
                before = resource.getrusage(resource.RUSAGE_CHILDREN)
                latencies, failures = load(ports, fences, args.clients, args.seconds)
                after = resource.getrusage(resource.RUSAGE_CHILDREN)
                load_ms = 1000.0 * (after.ru_utime + after.ru_stime - before.ru_utime -
                                    before.ru_stime)
                done = len(latencies)
                node_ms = (cpu_ms(pids) - nodes_before) / max(done, 1)
                load_ms /= max(done, 1)
                pg_ms = ((pg.cpu_ms() - pg_before) / max(done, 1)) if kind == "postgresql" else None
                statements = transactions = None
                if kind == "postgresql":
                    name = "bench_%d" % index
                    calls = pg.sql(name, "SELECT coalesce(sum(calls), 0) FROM pg_stat_statements"
                                         " WHERE dbid = (SELECT oid FROM pg_database WHERE "
                                         "datname = current_database())")
                    statements = float(calls) / max(done, 1)
                    after = int(pg.sql(name, "SELECT xact_commit FROM pg_stat_database WHERE "
                                       "datname = current_database()"))
                    transactions = (after - commits) / max(done, 1)
                    if args.statements:
                        print("PostgreSQL, %d nodes: calls per observation, mean execution time, statement" % count)
                        print(pg.sql(name, "SELECT round(calls::numeric / %d, 2) || '  ' || "
                                     "round(mean_exec_time::numeric * 1000) || ' us  ' || "
                                     "left(regexp_replace(query, '\\s+', ' ', 'g'), 110) FROM "
                                     "pg_stat_statements WHERE dbid = (SELECT oid FROM "
                                     "pg_database WHERE datname = current_database()) ORDER BY "
                                     "calls DESC LIMIT 12" % max(done, 1)))
            rows.append((kind, count, done / args.seconds, percentile(latencies, 50) * 1000,
                         percentile(latencies, 99) * 1000, failures, node_ms, pg_ms, load_ms,
                         statements, transactions))
    finally:
        if pg:
            pg.close()
        shutil.rmtree(work, ignore_errors=True)

    print("%d clients, %g s each, %d fences, %d CPUs" % (args.clients, args.seconds, args.fences,
                                                         os.cpu_count()))
    print("| database | nodes | observations/s | p50 ms | p99 ms | failed | node CPU ms/obs "
          "| PostgreSQL CPU ms/obs | load CPU ms/obs | statements/obs | transactions/obs |")
    print("|---|---|---|---|---|---|---|---|---|---|---|")
    names = {"sqlite-memory": "SQLite :memory:", "sqlite": "SQLite file", "postgresql": "PostgreSQL"}
    for (kind, count, rate, p50, p99, failures, node_ms, pg_ms, load_ms, statements,
         transactions) in rows:
        dash = lambda v, fmt: "-" if v is None else fmt % v  # noqa: E731
        print("| %s | %d | %.0f | %.1f | %.1f | %d | %.2f | %s | %.2f | %s | %s |" % (
            names[kind], count, rate, p50, p99, failures, node_ms, dash(pg_ms, "%.2f"), load_ms,
            dash(statements, "%.1f"), dash(transactions, "%.1f")))


if __name__ == "__main__":
    main()
