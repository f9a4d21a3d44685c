/* Drives the C API across its boundary, as a C application would: statuses for wrong
 * arguments, callbacks from the library's threads, destroy joining them, callbacks replaced
 * while they are called, a callback that ends its thread, and a simulated walk.
 * usage: capi_test EXAMPLES_DIR */
#define _POSIX_C_SOURCE 200809L
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "zonaris/zonaris.h"
#include "zonaris/zonaris_simulation.h"

static int failures = 0;

#define CHECK(condition)                                                      \
  do {                                                                        \
    if (!(condition)) {                                                       \
      fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                             \
    }                                                                         \
  } while (0)

static zonaris_callbacks callbacks_with(void* user) {
  zonaris_callbacks c;
  memset(&c, 0, sizeof c);
  c.struct_size = sizeof c;
  c.user = user;
  return c;
}

/* Options for a client whose service is a closed port (every request fails at once) and whose
 * store is the folder `store`. */
static zonaris_platform_options options_for(const char* store) {
  zonaris_platform_options options;
  memset(&options, 0, sizeof options);
  options.struct_size = sizeof options;
  options.base_url = "http://127.0.0.1:9";
  options.store_directory = store;
  return options;
}

/* ---- Wrong arguments come back as statuses --------------------------------------------------- */

static void wrong_arguments(const char* store) {
  zonaris_platform_options options = options_for(store);
  zonaris_client* client = NULL;
  zonaris_location far_north = {91.0, 0.0, -1.0, 5.0, 0.0};
  zonaris_callbacks too_short = callbacks_with(NULL);
  zonaris_client* none;
  int accepted = 7;
  CHECK(zonaris_init_with_app_key("c-test", &options, &client) == ZONARIS_STATUS_OK);
  none = client;
/* A row of the table: the call as written, its status, the status it must give. */
#define ROW(call, want) \
  { #call, call, ZONARIS_STATUS_##want }
  /* clang-format off */
  struct {
    const char* what;
    zonaris_status got, want;
  } table[] = {
      ROW(zonaris_init_with_app_key(NULL, NULL, &none), INVALID_ARGUMENT),
      ROW(zonaris_init_with_app_key("k", NULL, NULL), INVALID_ARGUMENT),
      ROW(zonaris_set_uuid(NULL, "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5"), INVALID_ARGUMENT),
      ROW(zonaris_set_uuid(client, "5A4BCFCE-174E"), INVALID_ARGUMENT),
      ROW(zonaris_set_uuid(client, NULL), INVALID_ARGUMENT),
      ROW(zonaris_set_uuid(client, "5a4bcfce-174e-4bac-a814-092e77f6b7e5"), OK),
      ROW(zonaris_set_tags(client, "[1,2]"), INVALID_ARGUMENT),
      ROW(zonaris_set_tags(client, "{\"a\":"), INVALID_ARGUMENT),
      ROW(zonaris_set_tags(client, "{\"tier\":\"gold\"}"), OK),
      ROW(zonaris_set_tags(client, NULL), OK),
      ROW(zonaris_set_dev_mode(NULL, 1), INVALID_ARGUMENT),
      ROW(zonaris_set_silence_window(NULL, 22, 6), INVALID_ARGUMENT),
      ROW(zonaris_start(NULL), INVALID_ARGUMENT),
      ROW(zonaris_stop(NULL), INVALID_ARGUMENT),
      ROW(zonaris_set_delegate(NULL, NULL), INVALID_ARGUMENT),
      ROW((too_short.struct_size = 4, zonaris_set_delegate(client, &too_short)), INVALID_ARGUMENT),
      ROW(zonaris_push_location(client, &far_north, &accepted), INVALID_ARGUMENT),
      ROW(zonaris_push_location(client, NULL, NULL), INVALID_ARGUMENT),
      ROW(zonaris_push_beacons(client, NULL, 2), INVALID_ARGUMENT),
      ROW(zonaris_push_beacons(client, NULL, 0), OK),
      ROW(zonaris_set_sampling_policy(client, 7), INVALID_ARGUMENT),
      ROW(zonaris_set_compression(client, 1), OK),
      ROW(zonaris_set_compression(NULL, 1), INVALID_ARGUMENT),
      ROW(zonaris_push_motion(client, 1, 0.0, NULL), OK),
      ROW(zonaris_destroy(NULL, 0), OK),
  };
  /* clang-format on */
#undef ROW
  size_t i;
  for (i = 0; i < sizeof table / sizeof table[0]; ++i) {
    if (table[i].got != table[i].want) {
      fprintf(stderr, "%s: got %s (%s), want %s\n", table[i].what,
              zonaris_status_text(table[i].got), zonaris_last_error(),
              zonaris_status_text(table[i].want));
      ++failures;
    }
  }
  CHECK(accepted == 0);
  CHECK(none == NULL);
  CHECK(strcmp(zonaris_last_error(), "") != 0);
  CHECK(zonaris_destroy(client, -1) == ZONARIS_STATUS_OK);
}

/* ---- Callbacks come from the library's threads; destroy joins them --------------------------- */

typedef struct {
  pthread_mutex_t mutex;
  pthread_t application;
  zonaris_client* client;
  int lines, lines_off_thread;
  zonaris_status destroy_inside;
} Watch;

static void on_log(void* user, const char* line) {
  Watch* w = (Watch*)user;
  zonaris_status inside = zonaris_destroy(w->client, 0);
  pthread_mutex_lock(&w->mutex);
  ++w->lines;
  if (!pthread_equal(pthread_self(), w->application)) {
    ++w->lines_off_thread;
    w->destroy_inside = inside;
  }
  pthread_mutex_unlock(&w->mutex);
  (void)line;
}

static int lines_off_thread(Watch* w) {
  int n;
  pthread_mutex_lock(&w->mutex);
  n = w->lines_off_thread;
  pthread_mutex_unlock(&w->mutex);
  return n;
}

/* Starts a client in developer mode with `on_line` as its log callback (`w` its user data) and
 * waits, bounded, until a line came from a thread of the library: registration fails there. */
static zonaris_client* start_and_wait(const char* store, Watch* w,
                                      void (*on_line)(void*, const char*)) {
  zonaris_platform_options options = options_for(store);
  zonaris_callbacks c = callbacks_with(w);
  zonaris_client* client = NULL;
  struct timespec tick = {0, 10 * 1000 * 1000};
  int waited;
  pthread_mutex_init(&w->mutex, NULL);
  w->application = pthread_self();
  CHECK(zonaris_init_with_app_key("c-test", &options, &client) == ZONARIS_STATUS_OK);
  if (!client)
    return NULL;
  w->client = client;
  c.logLine = on_line;
  CHECK(zonaris_set_delegate(client, &c) == ZONARIS_STATUS_OK);
  CHECK(zonaris_set_dev_mode(client, 1) == ZONARIS_STATUS_OK);
  CHECK(zonaris_start(client) == ZONARIS_STATUS_OK); /* registers on a thread of its own */
  for (waited = 0; waited < 1000 && lines_off_thread(w) == 0; ++waited)
    nanosleep(&tick, NULL);
  return client;
}

static void callbacks_and_destroy(const char* store) {
  Watch* w = (Watch*)calloc(1, sizeof(Watch));
  zonaris_client* client = start_and_wait(store, w, on_log);
  if (client) {
    pthread_mutex_lock(&w->mutex);
    CHECK(w->lines_off_thread > 0);
    CHECK(w->lines > w->lines_off_thread); /* "Zonaris started" came on this thread */
    CHECK(w->destroy_inside == ZONARIS_STATUS_INVALID_STATE);
    pthread_mutex_unlock(&w->mutex);
    CHECK(zonaris_stop(client) == ZONARIS_STATUS_OK);
    CHECK(zonaris_destroy(client, 10000) == ZONARIS_STATUS_OK);
  }
  /* Every thread is joined: freeing what the callbacks use is safe now (ASan would see it). */
  pthread_mutex_destroy(&w->mutex);
  free(w);
}

static void gpsd_client_takes_no_pushed_fixes(const char* store) {
  zonaris_platform_options options = options_for(store);
  zonaris_client* client = NULL;
  zonaris_location fix = {52.52, 13.40, -1.0, 5.0, 0.0};
  const char* hosts[] = {"127.0.0.1", "::1", "[::1]"}; /* an IPv6 address, bracketed or not */
  size_t i;
  options.position = ZONARIS_POSITION_GPSD;
  options.gpsd_port = 9; /* nobody: the source keeps retrying until destroyed */
  for (i = 0; i < 3; ++i) {
    options.gpsd_host = hosts[i];
    CHECK(zonaris_init_with_app_key("c-test", &options, &client) == ZONARIS_STATUS_OK);
    CHECK(zonaris_push_location(client, &fix, NULL) == ZONARIS_STATUS_INVALID_STATE);
    CHECK(zonaris_push_beacons(client, NULL, 0) == ZONARIS_STATUS_INVALID_STATE);
    CHECK(zonaris_push_motion(client, 1, 0.0, NULL) ==
          ZONARIS_STATUS_INVALID_STATE); /* no sensor */
    CHECK(zonaris_destroy(client, 10000) == ZONARIS_STATUS_OK);
  }
  options.gpsd_port = 70000;
  CHECK(zonaris_init_with_app_key("c-test", &options, &client) == ZONARIS_STATUS_INVALID_ARGUMENT);
  CHECK(client == NULL);
}

/* ---- Callbacks replaced while the library calls them ---------------------------------------- */

static void count_fix(void* user, const zonaris_location* location) {
  __atomic_add_fetch((int*)user, 1, __ATOMIC_RELAXED);
  (void)location;
}
static void ignore_line(void* user, const char* line) {
  (void)user, (void)line;
}

/* A store that already holds an install id, so that start() samples at once: each client takes
 * the one fix pushed (updatedInitLocation on the library's main-queue thread) while this thread
 * swaps between a full and an empty struct. No callback may be called through a null pointer,
 * and the swaps race with the calls (ThreadSanitizer watches). */
static void callbacks_replaced_while_called(const char* store) {
  char path[512];
  FILE* file;
  zonaris_platform_options options = options_for(store);
  zonaris_callbacks full, empty = callbacks_with(NULL);
  zonaris_location fix = {52.52, 13.40, -1.0, 5.0, 0.0};
  int fixes = 0, round, swap, accepted;
  snprintf(path, sizeof path, "%s/zonaris-store.json", store);
  file = fopen(path, "w");
  CHECK(file != NULL);
  if (!file)
    return;
  fputs("{\"installId\":7}", file);
  fclose(file);
  full = callbacks_with(&fixes);
  full.updatedInitLocation = count_fix;
  full.logLine = full.platformError = ignore_line;
  for (round = 0; round < 20; ++round) {
    zonaris_client* client = NULL;
    CHECK(zonaris_init_with_app_key("c-test", &options, &client) == ZONARIS_STATUS_OK);
    if (!client)
      return;
    CHECK(zonaris_set_delegate(client, &full) == ZONARIS_STATUS_OK);
    CHECK(zonaris_start(client) == ZONARIS_STATUS_OK);
    CHECK(zonaris_push_location(client, &fix, &accepted) == ZONARIS_STATUS_OK && accepted);
    for (swap = 0; swap < 20000; ++swap)
      CHECK(zonaris_set_delegate(client, swap % 2 ? &full : &empty) == ZONARIS_STATUS_OK);
    CHECK(zonaris_destroy(client, 10000) == ZONARIS_STATUS_OK);
  }
  remove(path);
  (void)fixes; /* which struct each fix met depends on timing */
}

/* ---- A callback that ends its thread ------------------------------------------------------- */

static void exit_thread_unless_application(void* user, const char* line) {
  Watch* w = (Watch*)user;
  int off_thread;
  pthread_mutex_lock(&w->mutex);
  off_thread = !pthread_equal(pthread_self(), w->application);
  if (off_thread)
    ++w->lines_off_thread;
  pthread_mutex_unlock(&w->mutex);
  if (off_thread)
    pthread_exit(NULL); /* as Python does to a thread that calls in while it finalises */
  (void)line;
}

/* The library's frames let the thread end (pthread_exit unwinds through them) instead of
 * swallowing the unwind, which aborts; destroy then finds no thread left to wait for. */
static void callback_ends_its_thread(const char* store) {
  Watch w;
  zonaris_client* client;
  memset(&w, 0, sizeof w);
  client = start_and_wait(store, &w, exit_thread_unless_application);
  if (client) {
    CHECK(lines_off_thread(&w) == 1);
    CHECK(zonaris_destroy(client, 10000) == ZONARIS_STATUS_OK);
  }
  pthread_mutex_destroy(&w.mutex);
}

/* ---- A simulated walk yields its events ----------------------------------------------------- */

typedef struct {
  char events[512];
  int messages;
  double last_t;
  zonaris_simulation* simulation;
  zonaris_status nested[4]; /* run_for, run_until, run, destroy from inside a callback */
} Walk;

static void note(Walk* walk, const char* type, const char* fence) {
  size_t used = strlen(walk->events);
  if (used == 0) {
    walk->nested[0] = zonaris_simulation_run_for(walk->simulation, 60.0);
    walk->nested[1] = zonaris_simulation_run_until(walk->simulation, "2030-01-01T00:00:00");
    walk->nested[2] = zonaris_simulation_run(walk->simulation);
    walk->nested[3] = zonaris_simulation_destroy(walk->simulation);
  }
  snprintf(walk->events + used, sizeof walk->events - used, "%s%s %s", used ? ", " : "", type,
           fence ? fence : "(null)");
  walk->last_t = zonaris_simulation_elapsed(walk->simulation);
}
static void on_enter(void* user, const char* fence) {
  note((Walk*)user, "entry", fence);
}
static void on_exit(void* user, const char* fence) {
  note((Walk*)user, "exit", fence);
}
static void on_dwell(void* user, const char* fence) {
  note((Walk*)user, "dwell", fence);
}
static void on_basic(void* user, const char* title, const char* body, const char* url) {
  ++((Walk*)user)->messages;
  (void)title, (void)body, (void)url;
}

/* The same walk from typed options; a value out of range leaves the options as they were. */
static void typed_walk(const char* trace, const char* fences, const Walk* argv_walk) {
  Walk walk;
  zonaris_callbacks c = callbacks_with(&walk);
  zonaris_simulation_options* o = NULL;
  zonaris_simulation* simulation = NULL;
  const zonaris_status invalid = ZONARIS_STATUS_INVALID_ARGUMENT;

  memset(&walk, 0, sizeof walk);
  c.eventEnterCallback = on_enter;
  c.eventExitCallback = on_exit;
  c.eventDwellCallback = on_dwell;
  c.actionBasicCallback = on_basic;
  CHECK(zonaris_simulation_options_create(&o) == ZONARIS_STATUS_OK);
  CHECK(zonaris_simulation_options_set_trace(NULL, trace) == invalid);
  CHECK(zonaris_simulation_options_set_trace(o, trace) == ZONARIS_STATUS_OK);
  CHECK(zonaris_simulation_create_with(o, NULL, &simulation) == invalid); /* no service */
  CHECK(zonaris_simulation_options_set_service(o, "ftp://example.com") == invalid);
  CHECK(zonaris_simulation_options_set_fences(o, fences) == ZONARIS_STATUS_OK);
  CHECK(zonaris_simulation_options_set_silence_window(o, 25, 3) == invalid);
  CHECK(zonaris_simulation_options_set_sampling(o, 7) == invalid);
  CHECK(zonaris_simulation_options_set_device(o, "moon") == invalid);
  CHECK(zonaris_simulation_options_set_until(o, -1.0) == invalid);
  CHECK(zonaris_simulation_options_set_device(o, "ideal") == ZONARIS_STATUS_OK);
  CHECK(zonaris_simulation_create_with(o, &c, &simulation) == ZONARIS_STATUS_OK);
  zonaris_simulation_options_destroy(o);
  if (!simulation)
    return;
  walk.simulation = simulation;
  CHECK(zonaris_simulation_run(simulation) == ZONARIS_STATUS_OK);
  CHECK(strcmp(walk.events, argv_walk->events) == 0);
  CHECK(walk.messages == argv_walk->messages && walk.last_t == argv_walk->last_t);
  CHECK(zonaris_simulation_destroy(simulation) == ZONARIS_STATUS_OK);
}

static void simulated_walk(const char* examples) {
  char trace[1024], fences[1024];
  const char* args[] = {"--trace", trace, "--fences", fences, NULL};
  const char* no_trace[] = {"--fences", fences, NULL};
  const char* scored[] = {"--trace", trace, "--fences", fences, "--score", "s.json", NULL};
  const char* bad_trace[] = {"--trace", fences, "--fences", fences, NULL};
  Walk walk;
  int i;
  zonaris_callbacks c = callbacks_with(&walk);
  zonaris_simulation* simulation = NULL;

  snprintf(trace, sizeof trace, "%s/walk.csv", examples);
  snprintf(fences, sizeof fences, "%s/fences.json", examples);
  CHECK(zonaris_simulation_create(no_trace, NULL, &simulation) == ZONARIS_STATUS_INVALID_ARGUMENT);
  CHECK(zonaris_simulation_create(scored, NULL, &simulation) == ZONARIS_STATUS_UNSUPPORTED);
  CHECK(zonaris_simulation_create(bad_trace, NULL, &simulation) == ZONARIS_STATUS_INVALID_ARGUMENT);
  CHECK(strstr(zonaris_simulation_last_error(), "fences.json") != NULL);
  CHECK(zonaris_simulation_run(NULL) == ZONARIS_STATUS_INVALID_ARGUMENT);

  memset(&walk, 0, sizeof walk);
  c.eventEnterCallback = on_enter;
  c.eventExitCallback = on_exit;
  c.eventDwellCallback = on_dwell;
  c.actionBasicCallback = on_basic;
  CHECK(zonaris_simulation_create(args, &c, &simulation) == ZONARIS_STATUS_OK);
  if (!simulation)
    return;
  walk.simulation = simulation;
  CHECK(zonaris_simulation_run_for(simulation, 600.0) == ZONARIS_STATUS_OK);
  CHECK(strcmp(walk.events, "entry Home, exit Home") == 0);
  for (i = 0; i < 4; ++i)
    CHECK(walk.nested[i] == ZONARIS_STATUS_INVALID_STATE);
  CHECK(zonaris_simulation_run_for(simulation, -1.0) == ZONARIS_STATUS_INVALID_ARGUMENT);
  CHECK(zonaris_simulation_run_until(simulation, "noon") == ZONARIS_STATUS_INVALID_ARGUMENT);
  CHECK(zonaris_simulation_run(simulation) == ZONARIS_STATUS_OK);
  CHECK(strcmp(walk.events, "entry Home, exit Home, entry Corner Bakery, dwell Corner Bakery") ==
        0);
  CHECK(walk.messages == 3);
  CHECK(walk.last_t == 1071.0);
  CHECK(zonaris_simulation_elapsed(simulation) == 1260.0);
  CHECK(zonaris_simulation_destroy(simulation) == ZONARIS_STATUS_OK);
  if (failures)
    fprintf(stderr, "events: %s\n", walk.events);
  typed_walk(trace, fences, &walk);
}

int main(int argc, char** argv) {
  char store[] = "/tmp/zonaris-capi-XXXXXX";
  char command[256];
  if (argc < 2 || !mkdtemp(store)) {
    fprintf(stderr, "usage: capi_test EXAMPLES_DIR\n");
    return 2;
  }
  CHECK(zonaris_abi_version() == ZONARIS_ABI_VERSION);
  CHECK(strlen(zonaris_version()) > 0);
  CHECK(strcmp(zonaris_status_text(ZONARIS_STATUS_UNSUPPORTED), "unsupported") == 0);

  wrong_arguments(store);
  callbacks_and_destroy(store);
  gpsd_client_takes_no_pushed_fixes(store);
  callback_ends_its_thread(store);
  callbacks_replaced_while_called(store);
  simulated_walk(argv[1]);

  snprintf(command, sizeof command, "rm -rf '%s'", store);
  if (system(command) != 0)
    ++failures;
  printf("capi_test: %d failure(s)\n", failures);
  return failures ? 1 : 0;
}
