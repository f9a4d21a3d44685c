/* Zonaris simulation C API: the real client on a simulated platform in virtual time, along a
 * trace, against the embedded reference service or a service URL, exactly as zonaris-sim runs
 * it. For testing an application's reactions without walking around.
 *
 * Link with libzonaris_simulation (CMake: zonaris::zonaris_simulation; it carries its own client
 * and reference service, so it does not need libzonaris). The rules of zonaris/zonaris.h hold
 * here too; the errors of this library are described by zonaris_simulation_last_error().
 *
 * A simulation is described by an options handle, set field by field, then made with
 * zonaris_simulation_create_with:
 *
 *     zonaris_simulation_options* options = NULL;
 *     zonaris_simulation_options_create(&options);
 *     zonaris_simulation_options_set_trace(options, "walk.csv");
 *     zonaris_simulation_options_set_fences(options, "fences.json");
 *     zonaris_simulation_create_with(options, &callbacks, &simulation);
 *     zonaris_simulation_options_destroy(options);
 *
 * Every setter copies what it is given. A null options handle, or a value out of its range:
 * INVALID_ARGUMENT, and the earlier value stays. Files and texts (the trace, the fences, the
 * beacons, the tags, the UUID, the start time) are read and checked by
 * zonaris_simulation_create_with. */
#ifndef ZONARIS_SIMULATION_H
#define ZONARIS_SIMULATION_H

#include "zonaris/zonaris.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__) || defined(__clang__)
#define ZONARIS_SIMULATION_DEPRECATED(message) __attribute__((deprecated(message)))
#else
#define ZONARIS_SIMULATION_DEPRECATED(message)
#endif

typedef struct zonaris_simulation zonaris_simulation;

/* ---- The options ----------------------------------------------------------------------------- */

typedef struct zonaris_simulation_options zonaris_simulation_options;

/* New options with zonaris-sim's defaults: the app key "demo", a new temporary store, the ideal
 * device (exact fixes at once, a network that takes no time), the seed 1, the design's sampling
 * and the robust confirmation rules. No trace and no service yet: both are required. */
ZONARIS_API zonaris_status zonaris_simulation_options_create(zonaris_simulation_options** options);
/* Releases the options; a simulation made from them keeps its own copy. Null: nothing. */
ZONARIS_API void zonaris_simulation_options_destroy(zonaris_simulation_options* options);

/* The trace: GPX 1.0/1.1 or CSV t,lat,lon[,accuracy][,speed] (required). */
ZONARIS_API zonaris_status zonaris_simulation_options_set_trace(zonaris_simulation_options* options,
                                                                const char* path);
/* Runs the embedded reference service with these fences (a JSON array); replaces a service URL. */
ZONARIS_API zonaris_status
zonaris_simulation_options_set_fences(zonaris_simulation_options* options, const char* path);
/* Talks to the service at this http:// or https:// base URL instead; replaces the fences. */
ZONARIS_API zonaris_status
zonaris_simulation_options_set_service(zonaris_simulation_options* options, const char* base_url);
/* The application key (default "demo"). */
ZONARIS_API zonaris_status
zonaris_simulation_options_set_app_key(zonaris_simulation_options* options, const char* app_key);
/* The folder of the install id store; null: a new temporary folder, removed at the end. */
ZONARIS_API zonaris_status zonaris_simulation_options_set_store(zonaris_simulation_options* options,
                                                                const char* folder);
/* The beacon proximity UUID; null: none. */
ZONARIS_API zonaris_status zonaris_simulation_options_set_uuid(zonaris_simulation_options* options,
                                                               const char* uuid);
/* The tags, a JSON object text; null: none. */
ZONARIS_API zonaris_status zonaris_simulation_options_set_tags(zonaris_simulation_options* options,
                                                               const char* tags_json);
/* The daily silence window, hours 0 to 23, as zonaris_set_silence_window. */
ZONARIS_API zonaris_status zonaris_simulation_options_set_silence_window(
    zonaris_simulation_options* options, int32_t start, int32_t stop);
/* Developer mode: 1 on, 0 off (the default). */
ZONARIS_API zonaris_status
zonaris_simulation_options_set_dev_mode(zonaris_simulation_options* options, int dev_mode);
/* Beacon sightings, CSV t_start,t_end,uuid,major,minor,accuracy,proximity; null: none. */
ZONARIS_API zonaris_status
zonaris_simulation_options_set_beacons(zonaris_simulation_options* options, const char* path);
/* The local start time "YYYY-MM-DDTHH:MM:SS"; null: the trace's first time, else
 * 2026-01-01T12:00:00. */
ZONARIS_API zonaris_status zonaris_simulation_options_set_start(zonaris_simulation_options* options,
                                                                const char* local_time);
/* Virtual seconds that zonaris_simulation_run runs (more than 0, at most a year); 0: the
 * trace's length + 60. */
ZONARIS_API zonaris_status zonaris_simulation_options_set_until(zonaris_simulation_options* options,
                                                                double seconds);
/* The device's system version (default "17.0"). */
ZONARIS_API zonaris_status zonaris_simulation_options_set_system_version(
    zonaris_simulation_options* options, const char* version);
/* Replays the trace's points at this many metres per second (0.01 to 1000), for a route or a
 * track without times; 0: the trace's own times. */
ZONARIS_API zonaris_status zonaris_simulation_options_set_pace(zonaris_simulation_options* options,
                                                               double metres_per_second);

/* The device: the preset "ideal", "realistic" or "harsh" sets the fix delay, the stale first
 * fix, the noise, the outliers, the idle fixes and the latency as zonaris-sim's --device does;
 * the setters below, called after it, change single values. */
ZONARIS_API zonaris_status
zonaris_simulation_options_set_device(zonaris_simulation_options* options, const char* preset);
/* The seed of everything random (same seed, same run; default 1). */
ZONARIS_API zonaris_status zonaris_simulation_options_set_seed(zonaris_simulation_options* options,
                                                               uint64_t seed);
/* Seconds from arming a sample to the fix (0 to 3600). */
ZONARIS_API zonaris_status
zonaris_simulation_options_set_fix_delay(zonaris_simulation_options* options, double seconds);
/* Gaussian position noise, metres, standard deviation per axis (0 to 10000). */
ZONARIS_API zonaris_status zonaris_simulation_options_set_noise(zonaris_simulation_options* options,
                                                                double metres);
/* Milliseconds each exchange with the service takes, in virtual time (0 to 600000). */
ZONARIS_API zonaris_status
zonaris_simulation_options_set_latency(zonaris_simulation_options* options, double milliseconds);
/* Adds an outage: from `start` to `end` seconds since the start (0 <= start < end) the service
 * is away and an exchange meets no answer. */
ZONARIS_API zonaris_status zonaris_simulation_options_add_outage(
    zonaris_simulation_options* options, double start, double end);
/* The motion sensor: 0 none (the default), 1 a phone's (each start and stop of movement
 * reported 10-30 s late, 2 % of starts missed); only the efficient sampling listens. */
ZONARIS_API zonaris_status
zonaris_simulation_options_set_motion(zonaris_simulation_options* options, int phone);

/* The client's sampling policy: ZONARIS_SAMPLING_DESIGN (the default) or
 * ZONARIS_SAMPLING_EFFICIENT. */
ZONARIS_API zonaris_status
zonaris_simulation_options_set_sampling(zonaris_simulation_options* options, int policy);
/* Accepts the fence catalogue gzip-compressed: 1 on, 0 off (the default). */
ZONARIS_API zonaris_status
zonaris_simulation_options_set_compression(zonaris_simulation_options* options, int compression);
/* How the embedded service confirms crossings: "robust" (the default: noise, outliers and
 * coarse fixes confirm nothing) or "exact" (one observation decides). */
ZONARIS_API zonaris_status
zonaris_simulation_options_set_confirm(zonaris_simulation_options* options, const char* rule);

/* ---- The simulation -------------------------------------------------------------------------- */

/* Sets a simulation up as `options` describe it and starts its client; `options` may be
 * destroyed afterwards. A file or text that is not right: INVALID_ARGUMENT or IO_ERROR,
 * described by zonaris_simulation_last_error().
 *
 * `callbacks` (may be null) is copied. Every callback and log line comes on the thread that
 * calls this function or a zonaris_simulation_run_* function, during that call; the library
 * starts no thread that calls the application. The first lines come during this call. */
ZONARIS_API zonaris_status zonaris_simulation_create_with(const zonaris_simulation_options* options,
                                                          const zonaris_callbacks* callbacks,
                                                          zonaris_simulation** simulation);

/* Deprecated, and removed in the next release: use the options and
 * zonaris_simulation_create_with. As zonaris_simulation_create_with, with the options given as
 * the words of zonaris-sim's command line, ending with a null pointer, for example
 *     { "--trace", "walk.csv", "--fences", "fences.json", "--dev-mode", NULL }
 * (--score is not available here: ZONARIS_STATUS_UNSUPPORTED). */
ZONARIS_SIMULATION_DEPRECATED("use zonaris_simulation_options_* and zonaris_simulation_create_with")
ZONARIS_API zonaris_status zonaris_simulation_create(const char* const* args,
                                                     const zonaris_callbacks* callbacks,
                                                     zonaris_simulation** simulation);

/* The three run functions move the simulation's time and call back on the calling thread.
 * Called from inside a callback of the same simulation they do nothing and return
 * INVALID_STATE: the run in progress is not run again from within itself. */

/* Runs the simulation for `seconds` virtual seconds (>= 0, at most a year). */
ZONARIS_API zonaris_status zonaris_simulation_run_for(zonaris_simulation* simulation,
                                                      double seconds);
/* Runs the simulation until a local time "YYYY-MM-DDTHH:MM:SS"; an earlier time does nothing. */
ZONARIS_API zonaris_status zonaris_simulation_run_until(zonaris_simulation* simulation,
                                                        const char* local_time);
/* Runs the simulation to the end its options give (the until seconds, else the trace's
 * length + 60 s). */
ZONARIS_API zonaris_status zonaris_simulation_run(zonaris_simulation* simulation);

/* Virtual seconds since the start; for a callback, the moment it happens. -1 for null. */
ZONARIS_API double zonaris_simulation_elapsed(const zonaris_simulation* simulation);

/* Releases the client, the simulated platform and the embedded service (its thread joined).
 * Not from inside a callback of the same simulation: INVALID_STATE. A null simulation: OK. */
ZONARIS_API zonaris_status zonaris_simulation_destroy(zonaris_simulation* simulation);

/* As zonaris_last_error(), for the calls of this library. */
ZONARIS_API const char* zonaris_simulation_last_error(void);

#ifdef __cplusplus
}
#endif

#endif /* ZONARIS_SIMULATION_H */
