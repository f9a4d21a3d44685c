// The simulation half of the C API: typed options behind one opaque handle, a run of the
// simulation library behind another. The deprecated argv entry point reads zonaris-sim's
// command line into the same options.

#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "capi/bridge.hpp"
#include "zonaris-sim/sim_options.hpp"
#include "zonaris/simulation/sim_run.hpp"
#include "zonaris/zonaris_simulation.h"

using zonaris::capi::fail;
using zonaris::capi::guarded;

struct zonaris_simulation_options {
  zonaris::sim_tool::Options options;
};

struct zonaris_simulation {
  std::unique_ptr<zonaris::sim_tool::SimRun> run;
  std::shared_ptr<zonaris::capi::CallbackDelegate> delegate;
};

namespace {

constexpr double kLongestRun = 366.0 * 24 * 3600;

zonaris_status noSimulation() {
  return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the simulation handle is null");
}

// A run started from inside a callback of the same simulation would run the scheduler from
// within its own task and leave it in a state where later events are lost.
bool insideCallback(const zonaris_simulation* simulation) {
  return zonaris::capi::callbackOwner() == simulation;
}

zonaris_status nestedRun() {
  return fail(ZONARIS_STATUS_INVALID_STATE,
              "a simulation cannot be run from inside one of its callbacks");
}

zonaris_status runError(const zonaris::sim_tool::RunError& error) {
  return fail(error.status == zonaris::sim_tool::kUsageError ? ZONARIS_STATUS_INVALID_ARGUMENT
                                                             : ZONARIS_STATUS_IO_ERROR,
              error.message);
}

zonaris_status noOptions() {
  return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the options handle is null");
}

// Sets a simulation up: the run opened (which checks the options and reads the files), the
// client started.
zonaris_status create(const zonaris::sim_tool::Options& options, const zonaris_callbacks* callbacks,
                      zonaris_simulation*& simulation) {
  auto handle = std::make_unique<zonaris_simulation>();
  zonaris_callbacks copy{};
  if (callbacks && !zonaris::capi::copyCallbacks(*callbacks, copy))
    return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "callbacks.struct_size is too small");
  handle->delegate = std::make_shared<zonaris::capi::CallbackDelegate>(copy, handle.get());

  auto opened = zonaris::sim_tool::SimRun::open(options);
  if (auto* error = std::get_if<zonaris::sim_tool::RunError>(&opened))
    return runError(*error);
  handle->run = std::move(std::get<std::unique_ptr<zonaris::sim_tool::SimRun>>(opened));
  auto delegate = handle->delegate;
  auto logSink = [delegate](std::string_view line) { delegate->logLine(line); };
  if (auto error = handle->run->start(delegate, std::move(logSink)))
    return runError(*error);
  simulation = handle.release();
  return ZONARIS_STATUS_OK;
}

// One setter: a null handle fails; otherwise `set` checks the value and changes the options.
template <typename Set>
zonaris_status setOption(zonaris_simulation_options* options, Set&& set) {
  return guarded([&] {
    if (!options)
      return noOptions();
    return set(options->options);
  });
}

zonaris_status outOfRange(const char* what) {
  return fail(ZONARIS_STATUS_INVALID_ARGUMENT, what);
}

std::optional<std::string> text(const char* value) {
  return value ? std::optional<std::string>(value) : std::nullopt;
}

zonaris::platform::Duration toDuration(double value) {
  return std::chrono::round<zonaris::platform::Duration>(std::chrono::duration<double>(value));
}

}  // namespace

using Options = zonaris::sim_tool::Options;

extern "C" {

ZONARIS_API zonaris_status zonaris_simulation_options_create(zonaris_simulation_options** options) {
  return guarded([&] {
    if (!options)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the options out-pointer is null");
    *options = new zonaris_simulation_options();
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API void zonaris_simulation_options_destroy(zonaris_simulation_options* options) {
  delete options;
}

ZONARIS_API zonaris_status zonaris_simulation_options_set_trace(zonaris_simulation_options* options,
                                                                const char* path) {
  return setOption(options, [&](Options& o) {
    if (!path)
      return outOfRange("the trace is null");
    o.trace = path;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status
zonaris_simulation_options_set_fences(zonaris_simulation_options* options, const char* path) {
  return setOption(options, [&](Options& o) {
    if (!path)
      return outOfRange("the fences are null");
    o.fences = path;
    o.service.reset();
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status
zonaris_simulation_options_set_service(zonaris_simulation_options* options, const char* base_url) {
  return setOption(options, [&](Options& o) {
    std::string url = zonaris::sim_tool::withoutTrailingSlashes(base_url ? base_url : "");
    if (!zonaris::sim_tool::isServiceBaseUrl(url))
      return outOfRange("--service: not an http:// or https:// URL");
    o.service = std::move(url);
    o.fences.reset();
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status
zonaris_simulation_options_set_app_key(zonaris_simulation_options* options, const char* app_key) {
  return setOption(options, [&](Options& o) {
    if (!app_key)
      return outOfRange("the app key is null");
    o.appKey = app_key;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_options_set_store(zonaris_simulation_options* options,
                                                                const char* folder) {
  return setOption(options, [&](Options& o) {
    o.store = text(folder);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_options_set_uuid(zonaris_simulation_options* options,
                                                               const char* uuid) {
  return setOption(options, [&](Options& o) {
    o.uuid = text(uuid);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_options_set_tags(zonaris_simulation_options* options,
                                                               const char* tags_json) {
  return setOption(options, [&](Options& o) {
    o.tags = text(tags_json);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_options_set_silence_window(
    zonaris_simulation_options* options, int32_t start, int32_t stop) {
  return setOption(options, [&](Options& o) {
    if (start < 0 || start > 23 || stop < 0 || stop > 23)
      return outOfRange("--silence: the hours lie between 0 and 23");
    o.silence = std::pair<int, int>(start, stop);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status
zonaris_simulation_options_set_dev_mode(zonaris_simulation_options* options, int dev_mode) {
  return setOption(options, [&](Options& o) {
    o.devMode = dev_mode != 0;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status
zonaris_simulation_options_set_beacons(zonaris_simulation_options* options, const char* path) {
  return setOption(options, [&](Options& o) {
    o.beacons = text(path);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_options_set_start(zonaris_simulation_options* options,
                                                                const char* local_time) {
  return setOption(options, [&](Options& o) {
    o.start = text(local_time);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_options_set_until(zonaris_simulation_options* options,
                                                                double seconds) {
  return setOption(options, [&](Options& o) {
    if (!(seconds >= 0.0 && seconds <= kLongestRun))
      return outOfRange("--until: seconds must lie between 0 and a year");
    o.until = seconds > 0.0 ? std::optional<double>(seconds) : std::nullopt;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_options_set_system_version(
    zonaris_simulation_options* options, const char* version) {
  return setOption(options, [&](Options& o) {
    if (!version)
      return outOfRange("the system version is null");
    o.systemVersion = version;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_options_set_pace(zonaris_simulation_options* options,
                                                               double metres_per_second) {
  return setOption(options, [&](Options& o) {
    if (!(metres_per_second == 0.0 || (metres_per_second >= 0.01 && metres_per_second <= 1000.0)))
      return outOfRange("--pace: metres per second must lie between 0.01 and 1000");
    o.pace = metres_per_second > 0.0 ? std::optional<double>(metres_per_second) : std::nullopt;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status
zonaris_simulation_options_set_device(zonaris_simulation_options* options, const char* preset) {
  return setOption(options, [&](Options& o) {
    if (!preset || !zonaris::sim_tool::isDevicePreset(preset))
      return outOfRange("--device: not ideal, realistic or harsh");
    zonaris::sim_tool::applyDevicePreset(zonaris::sim_tool::devicePreset(preset), o);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_options_set_seed(zonaris_simulation_options* options,
                                                               uint64_t seed) {
  return setOption(options, [&](Options& o) {
    o.device.seed = seed;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status
zonaris_simulation_options_set_fix_delay(zonaris_simulation_options* options, double seconds) {
  return setOption(options, [&](Options& o) {
    if (!(seconds >= 0.0 && seconds <= 3600.0))
      return outOfRange("--fix-delay: seconds must lie between 0 and 3600");
    o.device.fixDelay = toDuration(seconds);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_options_set_noise(zonaris_simulation_options* options,
                                                                double metres) {
  return setOption(options, [&](Options& o) {
    if (!(metres >= 0.0 && metres <= 10000.0))
      return outOfRange("--noise: metres must lie between 0 and 10000");
    o.device.noise = metres;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status
zonaris_simulation_options_set_latency(zonaris_simulation_options* options, double milliseconds) {
  return setOption(options, [&](Options& o) {
    if (!(milliseconds >= 0.0 && milliseconds <= 600000.0))
      return outOfRange("--latency: milliseconds must lie between 0 and 600000");
    o.network.latency = std::chrono::round<zonaris::platform::Duration>(
        std::chrono::duration<double, std::milli>(milliseconds));
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_options_add_outage(
    zonaris_simulation_options* options, double start, double end) {
  return setOption(options, [&](Options& o) {
    if (!(start >= 0.0 && end > start && end <= kLongestRun))
      return outOfRange("--outage: not 0 <= start < end, within a year");
    o.network.outages.push_back(zonaris::sim::Outage{start, end});
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status
zonaris_simulation_options_set_motion(zonaris_simulation_options* options, int phone) {
  return setOption(options, [&](Options& o) {
    if (phone != 0 && phone != 1)
      return outOfRange("--motion: not 0 (none) or 1 (phone)");
    o.device.motion = phone ? zonaris::sim::MotionSensor::Phone : zonaris::sim::MotionSensor::None;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status
zonaris_simulation_options_set_sampling(zonaris_simulation_options* options, int policy) {
  return setOption(options, [&](Options& o) {
    if (policy != ZONARIS_SAMPLING_DESIGN && policy != ZONARIS_SAMPLING_EFFICIENT)
      return outOfRange("--sampling: not ZONARIS_SAMPLING_DESIGN or ZONARIS_SAMPLING_EFFICIENT");
    o.sampling = policy == ZONARIS_SAMPLING_EFFICIENT ? zonaris::SamplingPolicy::Efficient
                                                      : zonaris::SamplingPolicy::Design;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status
zonaris_simulation_options_set_compression(zonaris_simulation_options* options, int compression) {
  return setOption(options, [&](Options& o) {
    o.compress = compression != 0;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status
zonaris_simulation_options_set_confirm(zonaris_simulation_options* options, const char* rule) {
  return setOption(options, [&](Options& o) {
    const std::string_view word = rule ? rule : "";
    if (word != "exact" && word != "robust")
      return outOfRange("--confirm: not exact or robust");
    o.confirm = word == "exact" ? zonaris::service_tool::ConfirmRule::Exact
                                : zonaris::service_tool::ConfirmRule::Robust;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_create_with(const zonaris_simulation_options* options,
                                                          const zonaris_callbacks* callbacks,
                                                          zonaris_simulation** simulation) {
  return guarded([&] {
    if (!simulation)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the simulation out-pointer is null");
    *simulation = nullptr;
    if (!options)
      return noOptions();
    return create(options->options, callbacks, *simulation);
  });
}

ZONARIS_API zonaris_status zonaris_simulation_create(const char* const* args,
                                                     const zonaris_callbacks* callbacks,
                                                     zonaris_simulation** simulation) {
  return guarded([&] {
    if (!simulation)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the simulation out-pointer is null");
    *simulation = nullptr;
    if (!args)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the arguments are null");
    std::vector<const char*> argv{"zonaris-sim"};
    for (const char* const* arg = args; *arg; ++arg)
      argv.push_back(*arg);
    auto parsed = zonaris::sim_tool::parseOptions(static_cast<int>(argv.size()), argv.data());
    if (auto* exit = std::get_if<zonaris::sim_tool::EarlyExit>(&parsed))
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, exit->text);
    const auto& options = std::get<zonaris::sim_tool::ToolOptions>(parsed);
    if (options.scoreFile)
      return fail(ZONARIS_STATUS_UNSUPPORTED, "--score is available in zonaris-sim only");
    return create(options.run, callbacks, *simulation);
  });
}

ZONARIS_API zonaris_status zonaris_simulation_run_for(zonaris_simulation* simulation,
                                                      double seconds) {
  return guarded([&] {
    if (!simulation)
      return noSimulation();
    if (insideCallback(simulation))
      return nestedRun();
    if (!(seconds >= 0.0 && seconds <= kLongestRun))
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "seconds must lie between 0 and a year");
    simulation->run->runFor(std::chrono::duration_cast<zonaris::platform::Duration>(
        std::chrono::duration<double>(seconds)));
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_run_until(zonaris_simulation* simulation,
                                                        const char* local_time) {
  return guarded([&] {
    if (!simulation)
      return noSimulation();
    if (insideCallback(simulation))
      return nestedRun();
    if (!local_time)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the time is null");
    auto end = zonaris::sim::parseLocalTime(local_time);
    if (!end)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT,
                  std::string("not a local time YYYY-MM-DDTHH:MM:SS: ") + local_time);
    if (*end - simulation->run->now() > std::chrono::duration<double>(kLongestRun))
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the time lies more than a year ahead");
    if (*end > simulation->run->now())
      simulation->run->runUntil(*end);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_simulation_run(zonaris_simulation* simulation) {
  return guarded([&] {
    if (!simulation)
      return noSimulation();
    if (insideCallback(simulation))
      return nestedRun();
    if (simulation->run->end() > simulation->run->now())
      simulation->run->runUntil(simulation->run->end());
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API double zonaris_simulation_elapsed(const zonaris_simulation* simulation) {
  return simulation ? simulation->run->elapsedSeconds() : -1.0;
}

ZONARIS_API zonaris_status zonaris_simulation_destroy(zonaris_simulation* simulation) {
  return guarded([&] {
    if (!simulation)
      return ZONARIS_STATUS_OK;
    if (insideCallback(simulation))
      return fail(ZONARIS_STATUS_INVALID_STATE,
                  "a simulation cannot be destroyed from inside one of its callbacks");
    std::unique_ptr<zonaris_simulation> owned(simulation);
    owned->run->finish();
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API const char* zonaris_simulation_last_error(void) {
  return zonaris_last_error();
}

}  // extern "C"
