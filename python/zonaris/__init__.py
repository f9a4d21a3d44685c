"""Zonaris from Python, through the library's C API (ctypes; no compiled extension).

    client = zonaris.Client("my-key", eventEnterCallback=print)   # the production client
    client.start(); client.push_location(52.52, 13.40); ...; client.close()

    run = zonaris.Simulation(trace="walk.csv", fences="fences.json").run()
    for event in run.events: print(event.t, event.type, event.fence)

The library is found through $ZONARIS_LIBRARY (and $ZONARIS_SIMULATION_LIBRARY for the
simulation), a file or a folder; else the build trees of the source tree; else the system.
"""
import ctypes
import json
import time
import weakref
from dataclasses import dataclass, field
from typing import Any, Callable, Dict, List, Optional

from . import _native

__all__ = ["Client", "Simulation", "SimulationResult", "Event", "Message", "CallbackRecord",
           "ZonarisError", "version", "abi_version", "ABI_VERSION"]

#: The ABI this package was written for (ZONARIS_ABI_VERSION of zonaris/zonaris.h).
ABI_VERSION = 1
CALLBACK_NAMES = [name for name in _native.CALLBACK_TYPES
                  if name not in ("logLine", "platformError")]
# zonaris_status_text of every status, here so that a simulation's errors need only
# libzonaris_simulation.so, which exports its own API alone.
STATUS_TEXTS = ["ok", "invalid argument", "invalid state", "unsupported", "input/output error",
                "out of memory", "timeout", "internal error"]
_INVALID_STATE, _TIMEOUT = 2, 6


class ZonarisError(Exception):
    """A call of the C API did not return ZONARIS_STATUS_OK."""

    def __init__(self, status: int, status_text: str, message: str):
        super().__init__(f"{status_text}: {message}" if message else status_text)
        self.status, self.status_text, self.message = status, status_text, message


def _check(status, last_error):
    if status != 0:
        text = STATUS_TEXTS[status] if 0 <= status < len(STATUS_TEXTS) else "unknown status"
        raise ZonarisError(status, text, last_error().decode("utf-8", "replace"))


def version() -> str:
    """The library's version."""
    return _native.client_library().zonaris_version().decode()


def abi_version() -> int:
    """The ABI version of the loaded library; ABI_VERSION when this package fits it."""
    return _native.client_library().zonaris_abi_version()


def _text(value: Optional[bytes]) -> Optional[str]:
    return None if value is None else value.decode("utf-8", "replace")


def _location(pointer) -> Dict[str, float]:
    l = pointer.contents
    return {"latitude": l.latitude, "longitude": l.longitude,
            "horizontalAccuracy": l.horizontal_accuracy, "speed": l.speed,
            "timestamp": l.timestamp}


# How each callback's C arguments become Python values.
_CONVERT: Dict[str, Callable[..., list]] = {
    "updatedInitLocation": lambda location: [_location(location)],
    "updatedDistanceToNearestFence": lambda distance, inside: [distance, bool(inside)],
    "updatedBeaconScan": lambda scanning: [bool(scanning)],
    "reportSent": lambda: [],
    "eventEnterCallback": lambda name: [_text(name)],
    "eventExitCallback": lambda name: [_text(name)],
    "eventDwellCallback": lambda name: [_text(name)],
    "actionBasicCallback": lambda title, body, url: [
        {"title": _text(title), "body": _text(body), "url": _text(url)}],
    "actionDataCallback": lambda values: [{"values": json.loads(_text(values))}],
    "updatedSpeed": lambda speed: [speed],
    "updatedAvgSpeed": lambda speed: [speed],
    "updatedInterval": lambda seconds: [seconds],
    "updatedGPSAccuracy": lambda metres: [metres],
    "logLine": lambda line: [_text(line)],
    "platformError": lambda line: [_text(line)],
}


class _Callbacks:
    """The C side of a handle's callbacks: one ctypes function per callback name, made on first
    use and kept as long as the library may call it, which calls the handler currently set for
    that name. Replacing the handlers makes no new functions, so nothing piles up, and a call
    already on its way into an old handler still finds a live function. It holds nothing of the
    Client, so that the Client can be collected."""

    def __init__(self, on_error: Callable[[BaseException], None]):
        self.handlers: Dict[str, Callable] = {}
        self.functions: Dict[str, Any] = {}
        self._on_error = on_error

    def struct(self, handlers: Dict[str, Callable]):
        """A zonaris_callbacks struct for `handlers` (name -> callable; None leaves it out),
        which become the handlers called. TypeError for a name that is not a callback."""
        unknown = [name for name in handlers if name not in _native.CALLBACK_TYPES]
        if unknown:
            raise TypeError(f"unknown callback: {unknown[0]}")
        struct = _native.Callbacks()
        struct.struct_size = ctypes.sizeof(_native.Callbacks)
        for name, handler in handlers.items():
            if handler is not None:
                if name not in self.functions:
                    self.functions[name] = _native.CALLBACK_TYPES[name](self._trampoline(name))
                setattr(struct, name, self.functions[name])
        self.handlers = dict(handlers)
        return struct

    def _trampoline(self, name):
        def trampoline(user, *args):
            handler = self.handlers.get(name)
            if handler is None:
                return
            try:  # an exception must not unwind through the library
                handler(*_CONVERT[name](*args))
            except BaseException as error:  # noqa: B036 - reported, never raised into C
                self._on_error(error)
        return trampoline


# Callbacks of clients whose release timed out: a thread of theirs may still be inside one.
_ABANDONED: List[_Callbacks] = []


def _destroy(lib, handle, callbacks: _Callbacks, timeout_ms: int = -1, closing=False) -> int:
    """zonaris_destroy. The handle is gone after any status but INVALID_STATE (called from
    inside one of the client's own callbacks). A finalizer that meets INVALID_STATE (the garbage
    collector ran on such a thread) leaves the handle, and with it the callback functions, for
    good; close() leaves the client open."""
    status = lib.zonaris_destroy(handle, timeout_ms)
    if status == _TIMEOUT or (status == _INVALID_STATE and not closing):
        _ABANDONED.append(callbacks)
    return status


def _report(error: BaseException):
    import sys
    import traceback
    traceback.print_exception(type(error), error, error.__traceback__, file=sys.stderr)


class Client:
    """The production client (real threads, HTTPS, a file store).

    Callbacks are keyword arguments named like the delegate's operations
    (eventEnterCallback=..., actionBasicCallback=..., updatedInterval=..., logLine=...). They
    are called on the library's threads (updatedInitLocation on its main-queue thread, the
    others on a thread per position fix), so guard what they share. Exceptions they raise are
    printed to stderr and go no further. Positions are pushed with push_location (position
    "feed", the default) or come from gpsd (position="gpsd", gpsd_host, gpsd_port).
    platformError=... receives the platform's own failures (a store that cannot be written),
    whatever the developer mode; without it they go to stderr.
    close() (or leaving a with-block) releases the client and joins its threads; a client
    that is collected, or still open when the interpreter exits, is closed then.
    """

    def __init__(self, app_key: str, *, base_url: Optional[str] = None,
                 store_directory: Optional[str] = None, position: str = "feed",
                 gpsd_host: Optional[str] = None, gpsd_port: int = 0,
                 on_callback_error: Callable[[BaseException], None] = _report,
                 **callbacks: Callable):
        self._lib = _native.client_library()
        if position not in ("feed", "gpsd"):
            raise ValueError("position is 'feed' or 'gpsd'")
        options = _native.PlatformOptions(
            ctypes.sizeof(_native.PlatformOptions),
            base_url.encode() if base_url else None,
            store_directory.encode() if store_directory else None,
            1 if position == "gpsd" else 0,
            gpsd_host.encode() if gpsd_host else None, gpsd_port)
        self._handle = None
        self._callbacks = _Callbacks(on_callback_error)
        struct = self._callbacks.struct(callbacks)  # refuses unknown names before any handle
        handle = ctypes.c_void_p()
        self._call(self._lib.zonaris_init_with_app_key, app_key.encode(), ctypes.byref(options),
                   ctypes.byref(handle))
        self._handle = handle
        # Closes the client when it is collected or at interpreter exit, before the interpreter
        # goes away under the library's threads; close() does it earlier.
        self._finalizer = weakref.finalize(self, _destroy, self._lib, handle, self._callbacks)
        if callbacks:
            try:
                self._call(self._lib.zonaris_set_delegate, handle, ctypes.byref(struct))
            except BaseException:
                self._handle = None
                self._finalizer()
                raise

    def _call(self, function, *args):
        _check(function(*args), self._lib.zonaris_last_error)

    def _live(self):
        if self._handle is None:
            raise ZonarisError(2, "invalid state", "the client is closed")
        return self._handle

    # ---- The application's operations ---------------------------------------------------------
    def set_uuid(self, uuid: str):
        self._call(self._lib.zonaris_set_uuid, self._live(), uuid.encode())

    def set_dev_mode(self, on: bool):
        self._call(self._lib.zonaris_set_dev_mode, self._live(), 1 if on else 0)

    def set_tags(self, tags: Optional[Dict[str, Any]]):
        text = None if tags is None else json.dumps(tags).encode()
        self._call(self._lib.zonaris_set_tags, self._live(), text)

    def set_silence_window(self, start: int, stop: int):
        self._call(self._lib.zonaris_set_silence_window, self._live(), start, stop)

    def set_delegate(self, **callbacks: Callable):
        """Replaces all callbacks; none given removes them."""
        handle = self._live()
        struct = self._callbacks.struct(callbacks)
        self._call(self._lib.zonaris_set_delegate, handle,
                   ctypes.byref(struct) if callbacks else None)

    def start(self):
        self._call(self._lib.zonaris_start, self._live())

    def stop(self):
        self._call(self._lib.zonaris_stop, self._live())

    # ---- Feeding positions --------------------------------------------------------------------
    def push_location(self, latitude: float, longitude: float, *, accuracy: float = 5.0,
                      speed: float = -1.0, timestamp: Optional[float] = None) -> bool:
        """Offers a fix; True when it will be delivered to the client."""
        fix = _native.Location(latitude, longitude, speed, accuracy,
                               time.time() if timestamp is None else timestamp)
        accepted = ctypes.c_int(0)
        self._call(self._lib.zonaris_push_location, self._live(), ctypes.byref(fix),
                   ctypes.byref(accepted))
        return bool(accepted.value)

    def push_beacons(self, beacons: List[Dict[str, Any]]):
        """Offers one ranging round: dicts with uuid, major, minor, accuracy, proximity."""
        array = (_native.Beacon * len(beacons))(*[
            _native.Beacon(b["uuid"].encode(), b.get("major", 0), b.get("minor", 0),
                           b.get("accuracy", -1.0), b.get("proximity", 0)) for b in beacons])
        self._call(self._lib.zonaris_push_beacons, self._live(), array, len(beacons))

    def set_sampling(self, policy: str):
        """"design" (the default) or "efficient"; best set before start()."""
        codes = {"design": 0, "efficient": 1}
        if policy not in codes:
            raise ValueError("sampling policy must be 'design' or 'efficient': %r" % (policy,))
        self._call(self._lib.zonaris_set_sampling_policy, self._live(), codes[policy])

    def set_compression(self, on: bool):
        """Accepts the fence catalogue gzip-compressed (off by default); from the next download."""
        self._call(self._lib.zonaris_set_compression, self._live(), 1 if on else 0)

    def push_motion(self, moving: bool, *, timestamp: Optional[float] = None) -> bool:
        """Offers a motion transition ("moving" or "stationary") from the application's motion
        sensor; only the efficient sampling listens. True when it is delivered to the client."""
        accepted = ctypes.c_int(0)
        self._call(self._lib.zonaris_push_motion, self._live(), 1 if moving else 0,
                   time.time() if timestamp is None else timestamp, ctypes.byref(accepted))
        return bool(accepted.value)

    def close(self, timeout: float = 65.0):
        """Releases the client and joins its threads; no callback runs afterwards. ZonarisError
        "timeout" when a thread was still running after `timeout` seconds: the client is
        released all the same. Called from inside one of its callbacks: ZonarisError "invalid
        state", and the client stays open."""
        if self._handle is None:
            return
        status = _destroy(self._lib, self._handle, self._callbacks, int(timeout * 1000),
                          closing=True)
        if status != _INVALID_STATE:
            self._handle = None
            self._finalizer.detach()
        _check(status, self._lib.zonaris_last_error)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


@dataclass
class Event:
    t: float      #: virtual seconds since the start
    type: str     #: "entry", "exit" or "dwell"
    fence: Optional[str]


@dataclass
class Message:
    t: float
    kind: str     #: "basic" (title, body, url) or "data" (values)
    title: Optional[str] = None
    body: Optional[str] = None
    url: Optional[str] = None
    values: Dict[str, Any] = field(default_factory=dict)


@dataclass
class CallbackRecord:
    t: float
    name: str     #: the delegate operation, or "logLine" for a log line
    args: list


@dataclass
class SimulationResult:
    events: List[Event]
    messages: List[Message]
    callbacks: List[CallbackRecord]  #: every callback and log line, in order

    @property
    def log(self) -> List[str]:
        return [record.args[0] for record in self.callbacks if record.name == "logLine"]


_EVENT_TYPES = {"eventEnterCallback": "entry", "eventExitCallback": "exit",
                "eventDwellCallback": "dwell"}


def _option_words(options: Dict[str, Any]) -> List[str]:
    """zonaris-sim's command line for keyword options: dev_mode=True -> --dev-mode,
    silence=(17, 19) -> --silence 17 19, tags={...} -> --tags JSON."""
    words = []
    for key, value in options.items():
        if value is None or value is False:
            continue
        flag = "--" + key.replace("_", "-")
        if value is True:
            words.append(flag)
        elif isinstance(value, (list, tuple)):
            words += [flag] + [str(v) for v in value]
        elif isinstance(value, dict):
            words += [flag, json.dumps(value)]
        else:
            words += [flag, str(value)]
    return words


def _setter_values(key: str, value: Any) -> list:
    """The C arguments of a typed option: texts as UTF-8, tags as JSON, words as numbers."""
    if key == "tags" and isinstance(value, dict):
        value = json.dumps(value)
    if key == "sampling":
        return [{"design": 0, "efficient": 1}.get(value, -1)]
    if key == "motion":
        return [{"none": 0, "phone": 1}.get(value, -1)]
    if key == "silence":
        return [int(v) for v in value]
    if isinstance(value, bool):
        return [int(value)]
    kind = _native.SIMULATION_SETTERS[key][1][0]
    return [str(value).encode() if kind is ctypes.c_char_p else value]


class Simulation:
    """The client in virtual time along a trace, as zonaris-sim runs it: trace=..., and
    fences=... (the embedded reference service) or service=URL, beacons=..., and any other
    option of zonaris-sim as a keyword (uuid, tags, silence, dev_mode, start, until, app_key,
    seed, noise, ...). Options with a typed setter in the C API go through it; any other makes
    the whole set go as zonaris-sim's words. Callbacks arrive on the calling thread, inside
    run()."""

    def __init__(self, trace: str, fences: Optional[str] = None, beacons: Optional[str] = None,
                 **options: Any):
        self._lib = _native.simulation_library()
        self._records: List[CallbackRecord] = []
        self._handle = None
        self._error: Optional[BaseException] = None
        given = {key: value for key, value in
                 dict(trace=trace, fences=fences, beacons=beacons, **options).items()
                 if value is not None and value is not False}

        def record(name):  # lines logged while the simulation is made come at 0
            return lambda *args: self._records.append(CallbackRecord(
                self._lib.zonaris_simulation_elapsed(self._handle) if self._handle else 0.0,
                name, list(args)))

        def keep_first_error(error):
            self._error = self._error or error

        self._callbacks = _Callbacks(keep_first_error)
        struct = self._callbacks.struct({name: record(name) for name in _native.CALLBACK_TYPES})
        handle = ctypes.c_void_p()
        if all(key in _native.SIMULATION_SETTERS for key in given):
            self._create_with(given, struct, handle)
        else:  # an option without a setter: zonaris-sim's words, through the older entry point
            words = _option_words(given)
            argv = (ctypes.c_char_p * (len(words) + 1))(*[w.encode() for w in words], None)
            self._call(self._lib.zonaris_simulation_create, argv, ctypes.byref(struct),
                       ctypes.byref(handle))
        self._handle = handle

    def _create_with(self, given: Dict[str, Any], struct, handle):
        options = ctypes.c_void_p()
        self._call(self._lib.zonaris_simulation_options_create, ctypes.byref(options))
        try:
            for key, (name, _) in _native.SIMULATION_SETTERS.items():
                if key in given:
                    setter = getattr(self._lib, "zonaris_simulation_options_" + name)
                    self._call(setter, options, *_setter_values(key, given[key]))
            self._call(self._lib.zonaris_simulation_create_with, options, ctypes.byref(struct),
                       ctypes.byref(handle))
        finally:
            self._lib.zonaris_simulation_options_destroy(options)

    def _call(self, function, *args):
        _check(function(*args), self._lib.zonaris_simulation_last_error)
        if self._error is not None:
            error, self._error = self._error, None
            raise error

    def run(self, seconds: Optional[float] = None, until: Optional[str] = None
            ) -> SimulationResult:
        """Runs for `seconds` virtual seconds, or until the local time `until`
        ("YYYY-MM-DDTHH:MM:SS"), or to the end the options give; returns everything so far."""
        if self._handle is None:
            raise ZonarisError(2, "invalid state", "the simulation is closed")
        if seconds is not None:
            self._call(self._lib.zonaris_simulation_run_for, self._handle, float(seconds))
        elif until is not None:
            self._call(self._lib.zonaris_simulation_run_until, self._handle, until.encode())
        else:
            self._call(self._lib.zonaris_simulation_run, self._handle)
        return self.result()

    def result(self) -> SimulationResult:
        events, messages = [], []
        for r in self._records:
            if r.name in _EVENT_TYPES:
                events.append(Event(r.t, _EVENT_TYPES[r.name], r.args[0]))
            elif r.name == "actionBasicCallback":
                messages.append(Message(r.t, "basic", **r.args[0]))
            elif r.name == "actionDataCallback":
                messages.append(Message(r.t, "data", values=r.args[0]["values"]))
        return SimulationResult(events, messages, list(self._records))

    def close(self):
        """Releases the client, the simulated platform and the embedded service."""
        if self._handle is not None:
            self._call(self._lib.zonaris_simulation_destroy, self._handle)
            self._handle = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        try:
            self.close()
        except Exception:  # noqa: BLE001 - nothing to report to at interpreter exit
            pass
