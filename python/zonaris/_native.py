"""Finds and loads the shared libraries and declares the C functions (ctypes only)."""
import ctypes
import ctypes.util
import os
from pathlib import Path

# The source tree, whose build/ folders hold build trees, when the package runs from it.
_HERE = Path(__file__).resolve()
_SOURCE_ROOT = _HERE.parents[min(2, len(_HERE.parents) - 1)]
# Installed by pip into <prefix>/lib/pythonX.Y/site-packages/zonaris: <prefix>/lib, where
# `cmake --install` with the same prefix puts the libraries.
_PREFIX_LIB = _HERE.parents[min(3, len(_HERE.parents) - 1)]


def _candidates(name, env_var):
    """Where libNAME.so may be: $ENV_VAR (a file or a folder), the build trees of the source
    tree, the library folder of the installation prefix, the system."""
    soname = f"lib{name}.so"
    given = os.environ.get(env_var)
    if given:
        path = Path(given)
        yield path / soname if path.is_dir() else path
        return
    build = _SOURCE_ROOT / "build"
    if (_SOURCE_ROOT / "CMakeLists.txt").is_file() and build.is_dir():
        # The normal build first: a sanitizer build's library cannot load into a plain python3.
        for tree in sorted(build.iterdir(), key=lambda tree: (tree.name != "normal", tree.name)):
            for sub in ("", "simulation"):
                if (tree / sub / soname).exists():
                    yield tree / sub / soname
    if (_PREFIX_LIB / soname).exists():
        yield _PREFIX_LIB / soname
    found = ctypes.util.find_library(name)
    if found:
        yield found
    yield soname + ".2"


def _load(name, env_var):
    errors = []
    for candidate in _candidates(name, env_var):
        try:
            return ctypes.CDLL(str(candidate))
        except OSError as error:
            errors.append(str(error))
    raise OSError(f"cannot load lib{name}.so (set {env_var}): " + "; ".join(errors))


class Location(ctypes.Structure):
    _fields_ = [("latitude", ctypes.c_double), ("longitude", ctypes.c_double),
                ("speed", ctypes.c_double), ("horizontal_accuracy", ctypes.c_double),
                ("timestamp", ctypes.c_double)]


class Beacon(ctypes.Structure):
    _fields_ = [("uuid", ctypes.c_char_p), ("major", ctypes.c_int32), ("minor", ctypes.c_int32),
                ("accuracy", ctypes.c_double), ("proximity", ctypes.c_int)]


class PlatformOptions(ctypes.Structure):
    _fields_ = [("struct_size", ctypes.c_size_t), ("base_url", ctypes.c_char_p),
                ("store_directory", ctypes.c_char_p), ("position", ctypes.c_int),
                ("gpsd_host", ctypes.c_char_p), ("gpsd_port", ctypes.c_int)]


_V = ctypes.c_void_p
# The callbacks, in the order of zonaris_callbacks, with their C signatures.
CALLBACK_TYPES = {
    "updatedInitLocation": ctypes.CFUNCTYPE(None, _V, ctypes.POINTER(Location)),
    "updatedDistanceToNearestFence": ctypes.CFUNCTYPE(None, _V, ctypes.c_double, ctypes.c_int),
    "updatedBeaconScan": ctypes.CFUNCTYPE(None, _V, ctypes.c_int),
    "reportSent": ctypes.CFUNCTYPE(None, _V),
    "eventEnterCallback": ctypes.CFUNCTYPE(None, _V, ctypes.c_char_p),
    "eventExitCallback": ctypes.CFUNCTYPE(None, _V, ctypes.c_char_p),
    "eventDwellCallback": ctypes.CFUNCTYPE(None, _V, ctypes.c_char_p),
    "actionBasicCallback": ctypes.CFUNCTYPE(None, _V, ctypes.c_char_p, ctypes.c_char_p,
                                            ctypes.c_char_p),
    "actionDataCallback": ctypes.CFUNCTYPE(None, _V, ctypes.c_char_p),
    "updatedSpeed": ctypes.CFUNCTYPE(None, _V, ctypes.c_float),
    "updatedAvgSpeed": ctypes.CFUNCTYPE(None, _V, ctypes.c_float),
    "updatedInterval": ctypes.CFUNCTYPE(None, _V, ctypes.c_int32),
    "updatedGPSAccuracy": ctypes.CFUNCTYPE(None, _V, ctypes.c_float),
    "logLine": ctypes.CFUNCTYPE(None, _V, ctypes.c_char_p),
    "platformError": ctypes.CFUNCTYPE(None, _V, ctypes.c_char_p),
}


class Callbacks(ctypes.Structure):
    _fields_ = [("struct_size", ctypes.c_size_t), ("user", _V)] + list(CALLBACK_TYPES.items())


_client_lib = None
_simulation_lib = None


def _declare(lib, name, result, *args):
    function = getattr(lib, name)
    function.restype, function.argtypes = result, list(args)


def client_library():
    global _client_lib
    if _client_lib is None:
        lib = _load("zonaris", "ZONARIS_LIBRARY")
        s, p, i = ctypes.c_int, ctypes.c_void_p, ctypes.c_int32
        _declare(lib, "zonaris_version", ctypes.c_char_p)
        _declare(lib, "zonaris_abi_version", s)
        _declare(lib, "zonaris_status_text", ctypes.c_char_p, s)
        _declare(lib, "zonaris_last_error", ctypes.c_char_p)
        _declare(lib, "zonaris_init_with_app_key", s, ctypes.c_char_p,
                 ctypes.POINTER(PlatformOptions), ctypes.POINTER(p))
        _declare(lib, "zonaris_set_uuid", s, p, ctypes.c_char_p)
        _declare(lib, "zonaris_set_dev_mode", s, p, s)
        _declare(lib, "zonaris_set_tags", s, p, ctypes.c_char_p)
        _declare(lib, "zonaris_set_silence_window", s, p, i, i)
        _declare(lib, "zonaris_set_delegate", s, p, ctypes.POINTER(Callbacks))
        _declare(lib, "zonaris_start", s, p)
        _declare(lib, "zonaris_stop", s, p)
        _declare(lib, "zonaris_push_location", s, p, ctypes.POINTER(Location),
                 ctypes.POINTER(ctypes.c_int))
        _declare(lib, "zonaris_push_beacons", s, p, ctypes.POINTER(Beacon), ctypes.c_size_t)
        _declare(lib, "zonaris_set_sampling_policy", s, p, i)
        _declare(lib, "zonaris_set_compression", s, p, i)
        _declare(lib, "zonaris_push_motion", s, p, i, ctypes.c_double,
                 ctypes.POINTER(ctypes.c_int))
        _declare(lib, "zonaris_destroy", s, p, s)
        _client_lib = lib
    return _client_lib


# The simulation's typed options: keyword -> (setter after zonaris_simulation_options_, the C
# types of its value).
_TEXT, _NUMBER, _INT = (ctypes.c_char_p,), (ctypes.c_double,), (ctypes.c_int,)
SIMULATION_SETTERS = {
    "device": ("set_device", _TEXT),  # first: the single device values below override it
    "trace": ("set_trace", _TEXT), "fences": ("set_fences", _TEXT),
    "service": ("set_service", _TEXT), "app_key": ("set_app_key", _TEXT),
    "store": ("set_store", _TEXT), "uuid": ("set_uuid", _TEXT), "tags": ("set_tags", _TEXT),
    "silence": ("set_silence_window", (ctypes.c_int32, ctypes.c_int32)),
    "dev_mode": ("set_dev_mode", _INT), "beacons": ("set_beacons", _TEXT),
    "start": ("set_start", _TEXT), "until": ("set_until", _NUMBER),
    "system_version": ("set_system_version", _TEXT), "pace": ("set_pace", _NUMBER),
    "seed": ("set_seed", (ctypes.c_uint64,)), "fix_delay": ("set_fix_delay", _NUMBER),
    "noise": ("set_noise", _NUMBER), "latency": ("set_latency", _NUMBER),
    "motion": ("set_motion", _INT), "sampling": ("set_sampling", _INT),
    "compress": ("set_compression", _INT), "confirm": ("set_confirm", _TEXT),
}


def simulation_library():
    global _simulation_lib
    if _simulation_lib is None:
        lib = _load("zonaris_simulation", "ZONARIS_SIMULATION_LIBRARY")
        s, p = ctypes.c_int, ctypes.c_void_p
        _declare(lib, "zonaris_simulation_options_create", s, ctypes.POINTER(p))
        _declare(lib, "zonaris_simulation_options_destroy", None, p)
        for name, value in SIMULATION_SETTERS.values():
            _declare(lib, "zonaris_simulation_options_" + name, s, p, *value)
        _declare(lib, "zonaris_simulation_create_with", s, p, ctypes.POINTER(Callbacks),
                 ctypes.POINTER(p))
        _declare(lib, "zonaris_simulation_create", s, ctypes.POINTER(ctypes.c_char_p),
                 ctypes.POINTER(Callbacks), ctypes.POINTER(p))
        _declare(lib, "zonaris_simulation_run_for", s, p, ctypes.c_double)
        _declare(lib, "zonaris_simulation_run_until", s, p, ctypes.c_char_p)
        _declare(lib, "zonaris_simulation_run", s, p)
        _declare(lib, "zonaris_simulation_elapsed", ctypes.c_double, p)
        _declare(lib, "zonaris_simulation_destroy", s, p)
        _declare(lib, "zonaris_simulation_last_error", ctypes.c_char_p)
        _simulation_lib = lib
    return _simulation_lib
