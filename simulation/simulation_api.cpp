// The simulation half of the C API: a zonaris-sim run behind an opaque handle.

#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "capi/bridge.hpp"
#include "zonaris-sim/sim_options.hpp"
#include "zonaris/simulation/sim_run.hpp"
#include "zonaris/zonaris_sim.h"

using zonaris::capi::fail;
using zonaris::capi::guarded;

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

}  // namespace

extern "C" {

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
    const auto& options = std::get<zonaris::sim_tool::ToolOptions>(parsed).run;
    if (options.score)
      return fail(ZONARIS_STATUS_UNSUPPORTED, "--score is available in zonaris-sim only");

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
    *simulation = handle.release();
    return ZONARIS_STATUS_OK;
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
