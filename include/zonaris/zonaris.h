/* Zonaris C API: a stable C99 boundary over the client library, for C and for every language
 * that reaches native code through C (Swift, Kotlin/Native, JNI, Python's ctypes, Rust).
 *
 * Rules that hold for every function below:
 * - Handles are opaque. A function given a null handle or a null required pointer returns
 *   ZONARIS_STATUS_INVALID_ARGUMENT (or does nothing, for the functions without a result).
 * - No exception and no signal leaves the library: every failure comes back as a status or a
 *   null. zonaris_last_error() then describes it.
 * - Strings are UTF-8 and NUL-terminated. Strings the library passes to a callback are valid only
 *   during that call; copy what you keep. Strings passed in are copied before the call returns.
 * - The configuration functions, zonaris_start, zonaris_stop and zonaris_destroy are called from
 *   the application's own thread (one thread at a time per client).
 *
 * Link with libzonaris (pkg-config zonaris). The simulation's C API is in
 * zonaris/zonaris_simulation.h.
 */
#ifndef ZONARIS_H
#define ZONARIS_H

#include <stddef.h>
#include <stdint.h>

#include "zonaris/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The ABI this header describes. A program compares it with zonaris_abi_version() at run time:
 * a library with another ABI version is not compatible with it. Additions that keep old programs
 * working (new functions, new fields at the end of a struct carrying struct_size) do not change
 * it. */
#define ZONARIS_ABI_VERSION 1

typedef enum zonaris_status {
  ZONARIS_STATUS_OK = 0,
  /* A null handle or pointer, or a value of the wrong form (text that is not a UUID, tags that
   * are not a JSON object, a struct_size too small). */
  ZONARIS_STATUS_INVALID_ARGUMENT = 1,
  /* The call does not fit the handle's state, for example pushing fixes into a client whose
   * positions come from gpsd, or destroying a client from inside one of its own callbacks. */
  ZONARIS_STATUS_INVALID_STATE = 2,
  /* This build or this platform does not offer what was asked for. */
  ZONARIS_STATUS_UNSUPPORTED = 3,
  /* A file could not be read or is malformed, or a service could not be started. */
  ZONARIS_STATUS_IO_ERROR = 4,
  ZONARIS_STATUS_OUT_OF_MEMORY = 5,
  /* The platform's threads did not all finish within the time allowed (zonaris_destroy). */
  ZONARIS_STATUS_TIMEOUT = 6,
  /* Anything else that went wrong inside the library. */
  ZONARIS_STATUS_INTERNAL = 7
} zonaris_status;

/* ---- Identity ------------------------------------------------------------------------------ */

/* The library's version, as sent with its error reports (for example "2.0.03.30"). Static. */
ZONARIS_API const char* zonaris_version(void);
/* The ABI version of the library that is loaded (see ZONARIS_ABI_VERSION). */
ZONARIS_API int zonaris_abi_version(void);
/* A short fixed English name of a status ("ok", "invalid argument", ...). Static. */
ZONARIS_API const char* zonaris_status_text(zonaris_status status);
/* What went wrong in the last call on the calling thread that did not return
 * ZONARIS_STATUS_OK; "" when none did. Valid until the next call of this library on the same
 * thread. */
ZONARIS_API const char* zonaris_last_error(void);

/* ---- Values -------------------------------------------------------------------------------- */

/* One position fix. */
typedef struct zonaris_location {
  double latitude;            /* degrees */
  double longitude;           /* degrees */
  double speed;               /* metres per second as measured by the device; < 0 unknown */
  double horizontal_accuracy; /* metres */
  double timestamp;           /* seconds since 1970-01-01T00:00:00Z (0: the time of the push) */
} zonaris_location;

/* One sighting of an iBeacon. */
typedef struct zonaris_beacon {
  const char* uuid; /* proximity UUID, 8-4-4-4-12 hexadecimal text, either case */
  int32_t major;
  int32_t minor;
  double accuracy; /* estimated distance in metres; < 0 unknown */
  int proximity;   /* 0 unknown, 1 immediate, 2 near, 3 far */
} zonaris_beacon;

/* ---- Callbacks ----------------------------------------------------------------------------- */

/* Everything the library learns reaches the application through these function pointers.
 * Every one is optional: leave it null and it is not called. Each receives the struct's `user`
 * pointer first. Fill the struct with zeros, set struct_size to sizeof(zonaris_callbacks) and
 * the pointers you want; the library copies it.
 *
 * Threads, for a client (zonaris_init_with_app_key): updatedInitLocation arrives on the
 * library's main-queue thread; every other delegate callback arrives on a background thread of
 * the library, a new one per position fix, and passes of successive fixes can overlap, so two
 * callbacks may run at the same time. logLine arrives on whichever of these threads logs. For a
 * simulation (zonaris/zonaris_simulation.h) every callback arrives on the thread that runs it,
 * during zonaris_simulation_run_*. A callback blocks the library while it runs. It must not call
 * zonaris_destroy on its own client. */
typedef struct zonaris_callbacks {
  size_t struct_size; /* sizeof(zonaris_callbacks) */
  void* user;         /* passed back to every callback */

  /* A fix became the reference position around which fences are downloaded. */
  void (*updatedInitLocation)(void* user, const zonaris_location* location);
  /* After every evaluation over a non-empty fence list: metres to the nearest fence, and
   * whether the device is inside at least one fence (1) or not (0). */
  void (*updatedDistanceToNearestFence)(void* user, double distance, int inside);
  /* After every evaluation: 1 when beacon ranging was asked to start, 0 to stop. */
  void (*updatedBeaconScan)(void* user, int scanning);
  /* An observation reached the service (whatever the HTTP status). */
  void (*reportSent)(void* user);
  /* The service confirmed an entry, exit or dwell for the fence with this name (null when the
   * fence has no name). */
  void (*eventEnterCallback)(void* user, const char* fence_name);
  void (*eventExitCallback)(void* user, const char* fence_name);
  void (*eventDwellCallback)(void* user, const char* fence_name);
  /* A message arrived outside the silence window: title, body and image URL; a key the
   * service left out reads as "(null)". */
  void (*actionBasicCallback)(void* user, const char* title, const char* body, const char* url);
  /* The application's own keys of that message, as a JSON object text. */
  void (*actionDataCallback)(void* user, const char* values_json);
  /* At the end of every evaluation: speed in m/s between the last two fixes, the smoothed
   * speed, the seconds until the next sample (15 to 600) and the horizontal accuracy in metres
   * of the current position. */
  void (*updatedSpeed)(void* user, float speed);
  void (*updatedAvgSpeed)(void* user, float speed);
  void (*updatedInterval)(void* user, int32_t seconds);
  void (*updatedGPSAccuracy)(void* user, float metres);
  /* One line of the platform log (the library logs in developer mode, and always its beacon
   * scan lines). Without it a client writes its log to stderr. */
  void (*logLine)(void* user, const char* line);
  /* One line about a failure of the platform under the client that whoever runs the device
   * should hear of, whatever the developer mode: a write of the store that failed (the
   * installation's id is then not kept, and the next start registers a new installation), a
   * thread that could not be started. It arrives on the thread that met the failure. Without
   * it a client writes such lines to stderr. A simulation has none. */
  void (*platformError)(void* user, const char* line);
} zonaris_callbacks;

/* ---- The client ---------------------------------------------------------------------------- */

typedef struct zonaris_client zonaris_client;

typedef enum zonaris_position_source {
  /* The application pushes fixes and beacon sightings (zonaris_push_location/_beacons). */
  ZONARIS_POSITION_FEED = 0,
  /* Fixes come from gpsd (gpsd_host, gpsd_port); no beacon ranging. */
  ZONARIS_POSITION_GPSD = 1
} zonaris_position_source;

/* The production platform: real threads, HTTPS through libcurl, a file store. */
typedef struct zonaris_platform_options {
  size_t struct_size;               /* sizeof(zonaris_platform_options) */
  const char* base_url;             /* the service; null or "": the one built in */
  const char* store_directory;      /* null: $XDG_DATA_HOME/zonaris, else ~/.local/share/zonaris */
  zonaris_position_source position; /* default ZONARIS_POSITION_FEED */
  const char* gpsd_host;            /* null: "localhost"; an IPv6 address with or without
                                       brackets ("::1" or "[::1]") */
  int gpsd_port;                    /* 0: 2947 */
} zonaris_platform_options;

/* Makes a client with the application key the service issued (initWithAppKey): the location
 * source starts in its idle setting; nothing is sent before zonaris_start. `options` may be null
 * for the defaults. On success *client is the new handle; on failure it is null. */
ZONARIS_API zonaris_status zonaris_init_with_app_key(const char* app_key,
                                                     const zonaris_platform_options* options,
                                                     zonaris_client** client);

/* Sets the beacon proximity UUID (setUUID). Text that is not a UUID: INVALID_ARGUMENT, and the
 * earlier UUID stays. */
ZONARIS_API zonaris_status zonaris_set_uuid(zonaris_client* client, const char* uuid);
/* Developer mode (setDevMode): when on, the library writes its log lines. */
ZONARIS_API zonaris_status zonaris_set_dev_mode(zonaris_client* client, int dev_mode);
/* The tags sent with every observation (setTags), as a JSON object text; null clears them.
 * Later calls replace the content, and later observations carry the new content. Anything but
 * a JSON object: INVALID_ARGUMENT, and the earlier tags stay. */
ZONARIS_API zonaris_status zonaris_set_tags(zonaris_client* client, const char* tags_json);
/* The daily silence window (setSilenceWindowStart:andStop:): hours whose messages are dropped;
 * events still arrive. With start < stop the hours strictly between them are silent; with
 * stop < start (across midnight) the hours from start through stop; with start == stop none. */
ZONARIS_API zonaris_status zonaris_set_silence_window(zonaris_client* client, int32_t start,
                                                      int32_t stop);
/* The callbacks (setDelegate). The struct is copied; null removes them. They may be replaced at
 * any time; a callback already running on another thread may still finish after this returns. */
ZONARIS_API zonaris_status zonaris_set_delegate(zonaris_client* client,
                                                const zonaris_callbacks* callbacks);
/* Checks the key, then registers the installation or takes the first sample (start). */
ZONARIS_API zonaris_status zonaris_start(zonaris_client* client);
/* Stops beacon ranging and the location source (stop). A stopped client is not restarted by
 * zonaris_start: make a new one. */
ZONARIS_API zonaris_status zonaris_stop(zonaris_client* client);

/* Offers one fix to a client whose positions are pushed (ZONARIS_POSITION_FEED). The client
 * takes it, on its main-queue thread, when it is sampling. *accepted (may be null) is 1 when the
 * fix will be delivered to the client, 0 when the location source's settings drop it (stopped,
 * or within the distance filter). A client on gpsd: INVALID_STATE. */
ZONARIS_API zonaris_status zonaris_push_location(zonaris_client* client,
                                                 const zonaris_location* fix, int* accepted);
/* Offers one ranging round of `count` sightings (`beacons` may be null when count is 0): the
 * beacon region being ranged receives those of its UUID. Sightings whose UUID is not a UUID are
 * left out. A client on gpsd: INVALID_STATE. */
ZONARIS_API zonaris_status zonaris_push_beacons(zonaris_client* client,
                                                const zonaris_beacon* beacons, size_t count);

/* When the client takes its samples (Zonaris::setSamplingPolicy); design is the default. */
#define ZONARIS_SAMPLING_DESIGN 0
#define ZONARIS_SAMPLING_EFFICIENT 1
/* Sets the sampling policy: ZONARIS_SAMPLING_DESIGN or ZONARIS_SAMPLING_EFFICIENT; any other
 * value: INVALID_ARGUMENT. Best set before zonaris_start. */
ZONARIS_API zonaris_status zonaris_set_sampling_policy(zonaris_client* client, int policy);
/* Accepts the fence catalogue gzip-compressed (Zonaris::setCompression): `compression` 1 on,
 * 0 off (the default: the fence query carries no Accept-Encoding header). Takes effect from the
 * next download; the answer is decoded before it is read, so nothing else changes. */
ZONARIS_API zonaris_status zonaris_set_compression(zonaris_client* client, int compression);
/* Offers one motion transition from the application's motion sensor to a client whose
 * positions are pushed: `moving` 1 for "moving", 0 for "stationary", at `timestamp` (seconds
 * since 1970-01-01T00:00:00Z; 0: the time of the push). Only the efficient sampling policy
 * listens. *accepted (may be null) is 1 when the transition will be delivered to the client now.
 * A client on gpsd (which has no motion sensor): INVALID_STATE. */
ZONARIS_API zonaris_status zonaris_push_motion(zonaris_client* client, int moving, double timestamp,
                                               int* accepted);

/* Releases the client and everything its platform runs: the callbacks are removed, the client
 * is stopped, the work it scheduled is dropped, the platform's threads are joined, and the
 * threads running an exchange with the service are waited for (up to `timeout_ms`; a negative
 * value: 65000, longer than an exchange's 60 s time-out). When this returns no callback of the
 * client runs any more. A null client: OK.
 *
 * The handle is released whatever this returns, except INVALID_STATE: after OK, TIMEOUT or any
 * other status it is gone and must not be passed to any function again, not even to this one.
 * ZONARIS_STATUS_TIMEOUT: the handle is released, but a thread was still running when the time
 * was up; it finishes on its own and calls nothing of the application's. INVALID_STATE, when
 * called from inside one of the client's callbacks: nothing is released, the client stays as it
 * was. */
ZONARIS_API zonaris_status zonaris_destroy(zonaris_client* client, int timeout_ms);

#ifdef __cplusplus
}
#endif

#endif /* ZONARIS_H */
