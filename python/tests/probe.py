"""Ways a host program can leave a client behind; each must end with status 0 and "ok".
Run in a process of its own by test_zonaris.py, so that a crash fails one test, not the run.

usage: probe.py drop|exit|unwind|timeout STORE_DIRECTORY

- drop: the client is dropped without close() while a library thread is inside its logLine.
- exit: the interpreter exits with the client open while a library thread is inside logLine.
- unwind: the same without the package closing the client at exit: the interpreter ends the
  library thread when it asks to come back (pthread_exit), which must not abort the process.
- timeout: close() times out inside a with-block, which then closes the client again.
"""
import gc
import socket
import sys
import threading
import time

import zonaris

mode, store = sys.argv[1], sys.argv[2]
inside = threading.Event()


def log_line(line):
    if threading.get_ident() != threading.main_thread().ident and not inside.is_set():
        inside.set()
        time.sleep(0.3)  # still inside when the main thread drops the client or exits


if mode == "timeout":
    # Accepts connections (the kernel does, from the backlog) and never answers: registration
    # stays inside its exchange, past close()'s time limit.
    silent = socket.socket()
    silent.bind(("127.0.0.1", 0))
    silent.listen(8)
    with zonaris.Client("probe", base_url="http://127.0.0.1:%d" % silent.getsockname()[1],
                        store_directory=store) as client:
        client.start()
        time.sleep(0.2)
        try:
            client.close(timeout=0.1)
        except zonaris.ZonarisError as error:
            assert error.status_text == "timeout", error
    print("ok")
    sys.exit(0)

client = zonaris.Client("probe", base_url="http://127.0.0.1:9", store_directory=store,
                        logLine=log_line)
client.set_dev_mode(True)
client.start()  # registration fails at once on a library thread, which logs it
assert inside.wait(10)
if mode == "drop":
    del client
    gc.collect()
    time.sleep(0.5)  # what the library's threads still do happens now
elif mode == "unwind":
    client._finalizer.detach()


class SlowToGo:
    """Garbage that the interpreter collects once it is finalising (a cycle is left to the last
    collection): it keeps the interpreter there while the library thread wakes up."""

    def __del__(self, sleep=time.sleep):
        sleep(1.0)


slow = SlowToGo()
slow.cycle = slow
del slow
print("ok", flush=True)
