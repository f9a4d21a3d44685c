/* Zonaris simulation C API: the real client on a simulated platform in virtual time, along a
 * trace, against the embedded reference service or a service URL, exactly as zonaris-sim runs
 * it. For testing an application's reactions without walking around.
 *
 * Link with libzonaris_simulation (it carries its own client and reference service, so it
 * does not need libzonaris). The rules of zonaris/zonaris.h hold here too; the errors of this
 * library are described by zonaris_simulation_last_error(). */
#ifndef ZONARIS_SIM_H
#define ZONARIS_SIM_H

#include "zonaris/zonaris.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zonaris_simulation zonaris_simulation;

/* Sets a simulation up and starts its client. `args` are the options of zonaris-sim, one word
 * per element, ending with a null pointer, for example
 *     { "--trace", "walk.csv", "--fences", "fences.json", "--dev-mode", NULL }
 * (--trace and one of --fences or --service are required; --score is not available here:
 * ZONARIS_STATUS_UNSUPPORTED). An option or file that is not right: INVALID_ARGUMENT or
 * IO_ERROR, described by zonaris_simulation_last_error().
 *
 * `callbacks` (may be null) is copied. Every callback and log line comes on the thread that
 * calls this function or a zonaris_simulation_run_* function, during that call; the library
 * starts no thread that calls the application. The first lines come during this call. */
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
/* Runs the simulation to the end its options give (--until, else the trace's length + 60 s). */
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

#endif /* ZONARIS_SIM_H */
