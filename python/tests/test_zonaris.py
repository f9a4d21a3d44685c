"""The Python package over the C API: the simulation's transcript, the production client's
threads and errors, and the statuses that become exceptions."""
import http.server
import json
import os
import subprocess
import sys
import threading
from pathlib import Path

import pytest

import zonaris
from zonaris import _native

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
WALK = dict(trace=EXAMPLES / "walk.csv", fences=EXAMPLES / "fences.json")


def test_identity():
    assert zonaris.abi_version() == zonaris.ABI_VERSION
    assert zonaris.version().startswith("2.")
    lib = _native.client_library()
    assert [lib.zonaris_status_text(s).decode() for s in range(8)] == zonaris.STATUS_TEXTS


def test_the_walk_as_events_messages_and_callbacks():
    with zonaris.Simulation(**WALK, dev_mode=True) as simulation:
        first = simulation.run(seconds=600)
        assert [(e.t, e.type, e.fence) for e in first.events] == [
            (2.0, "entry", "Home"), (366.0, "exit", "Home")]
        run = simulation.run()
    assert [(e.t, e.type, e.fence) for e in run.events] == [
        (2.0, "entry", "Home"), (366.0, "exit", "Home"), (943.0, "entry", "Corner Bakery"),
        (1071.0, "dwell", "Corner Bakery")]
    assert [(m.t, m.kind, m.title, m.values) for m in run.messages] == [
        (2.0, "basic", "Welcome home", {}), (2.0, "data", None, {"scene": "evening"}),
        (943.0, "basic", "Fresh from the oven", {}), (1071.0, "basic", "(null)", {}),
        (1071.0, "data", None, {"coupon": "CROISSANT10", "valid_days": 7})]
    assert run.log[0] == "Zonaris started"
    names = [c.name for c in run.callbacks if c.name != "logLine"]
    # Each event's messages follow the event itself; every pass ends with the interval.
    assert names[names.index("eventEnterCallback") + 1] == "actionBasicCallback"
    intervals = [c.args[0] for c in run.callbacks if c.name == "updatedInterval"]
    assert intervals and all(15 <= i <= 600 for i in intervals)
    assert [c.t for c in run.callbacks] == sorted(c.t for c in run.callbacks)


@pytest.mark.parametrize("options, status, words", [
    (dict(trace=EXAMPLES / "walk.csv"), "invalid argument", "--fences FILE or --service URL"),
    (dict(WALK, tags={"a": 1}, score="s.json"), "unsupported", "--score"),
    (dict(WALK, tags="[1]"), "invalid argument", "--tags: not a JSON object"),
    (dict(WALK, trace=EXAMPLES / "fences.json"), "invalid argument", "fences.json"),
    (dict(WALK, silence=(25, 3)), "invalid argument", "--silence"),
])
def test_wrong_simulation_options_raise(options, status, words, monkeypatch):
    # The simulation library alone is enough to describe its errors.
    monkeypatch.setattr(_native, "_client_lib", None)
    monkeypatch.setenv("ZONARIS_LIBRARY", "/nonexistent/libzonaris.so")
    with pytest.raises(zonaris.ZonarisError) as raised:
        zonaris.Simulation(**options)
    assert raised.value.status_text == status and words in raised.value.message


def test_a_run_until_a_time_that_is_not_one_raises():
    with zonaris.Simulation(**WALK) as simulation:
        with pytest.raises(zonaris.ZonarisError, match="not a local time"):
            simulation.run(until="noon")


def test_client_calls_back_on_library_threads_and_close_joins_them(tmp_path):
    lines, errors, arrived = [], [], threading.Event()

    def log_line(line):
        lines.append((threading.get_ident(), line))
        if threading.get_ident() != threading.main_thread().ident:
            arrived.set()
            raise RuntimeError("a callback that fails")

    client = zonaris.Client("py-test", base_url="http://127.0.0.1:9",
                            store_directory=str(tmp_path), logLine=log_line,
                            on_callback_error=errors.append)
    client.set_dev_mode(True)
    client.set_compression(True)
    client.set_tags({"tier": "gold"})
    client.start()  # registration fails at once on its own thread, which logs it
    assert arrived.wait(10)
    client.close()
    assert lines[0] == (threading.main_thread().ident, "Zonaris started")
    assert errors and isinstance(errors[0], RuntimeError)
    with pytest.raises(zonaris.ZonarisError, match="closed"):
        client.start()


@pytest.mark.parametrize("call, words", [
    (lambda c: c.set_uuid("not-a-uuid"), "not a UUID"),
    (lambda c: c.set_tags([1, 2]), "not a JSON object"),
    (lambda c: c.push_location(91.0, 0.0), "out of range"),
    (lambda c: c.set_delegate(noSuchCallback=print), "unknown callback"),
    (lambda c: c.set_sampling("fast"), "must be 'design' or 'efficient'"),
    (lambda c: c.push_motion(True, timestamp=float("nan")), "not finite"),
])
def test_client_refuses_wrong_values(tmp_path, call, words):
    with zonaris.Client("py-test", base_url="http://127.0.0.1:9",
                        store_directory=str(tmp_path)) as client:
        with pytest.raises((zonaris.ZonarisError, TypeError, ValueError), match=words):
            call(client)
        assert client.push_location(52.52, 13.40)  # the source runs from construction on
        # Only the efficient sampling listens to the motion sensor.
        assert not client.push_motion(True)
        client.set_sampling("efficient")
        assert client.push_motion(False, timestamp=1773124200.0)


@pytest.mark.parametrize("mode", ["drop", "exit", "unwind", "timeout"])
def test_a_client_left_behind_does_not_crash_its_host(tmp_path, mode):
    probe = subprocess.run([sys.executable, str(Path(__file__).with_name("probe.py")), mode,
                            str(tmp_path)], capture_output=True, text=True, timeout=120)
    assert (probe.returncode, probe.stdout) == (0, "ok\n"), probe.stderr


def test_set_delegate_reuses_its_functions_and_a_refused_init_leaves_no_client(tmp_path):
    with zonaris.Client("py-test", base_url="http://127.0.0.1:9",
                        store_directory=str(tmp_path), logLine=print) as client:
        for _ in range(50):
            client.set_delegate(logLine=print, updatedSpeed=print)
            client.set_delegate()
        assert len(client._callbacks.functions) == 2
    tasks = len(os.listdir("/proc/self/task"))
    with pytest.raises(TypeError, match="unknown callback"):  # gpsd: a thread from the start
        zonaris.Client("py-test", position="gpsd", gpsd_host="127.0.0.1", gpsd_port=9,
                       store_directory=str(tmp_path), noSuchCallback=print)
    assert len(os.listdir("/proc/self/task")) == tasks


def test_a_store_that_cannot_be_written_reaches_platform_error():
    class Service(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            self.rfile.read(int(self.headers.get("Content-Length", 0)))
            body = json.dumps({"id": 5}).encode() if self.path == "/install" else b"{}"
            self.send_response(201 if self.path == "/install" else 200)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *args):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Service)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    errors, arrived = [], threading.Event()
    try:
        with zonaris.Client("py-test", base_url="http://127.0.0.1:%d" % server.server_port,
                            store_directory="/proc/zonaris-store",
                            platformError=lambda line: (errors.append(line), arrived.set())
                            ) as client:
            client.start()  # not in developer mode: the client itself logs nothing
            assert arrived.wait(20)
    finally:
        server.shutdown()
    assert errors[0].startswith('zonaris: could not store "installId"'), errors
