#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::test {

/// Records each entry, exit and dwell with its fence name and the virtual seconds since the
/// scheduler's start.
struct TimedEvents final : ZonarisDelegate {
  struct Event {
    std::string name, type;
    double t;
  };
  explicit TimedEvents(const sim::Scheduler& scheduler) : scheduler(scheduler) {}
  void record(const std::optional<std::string>& name, const char* type) {
    std::lock_guard lock(mutex);
    events.push_back(
        {name.value_or(""), type, std::chrono::duration<double>(scheduler.elapsed()).count()});
  }
  void eventEnterCallback(const std::optional<std::string>& n) override { record(n, "entry"); }
  void eventExitCallback(const std::optional<std::string>& n) override { record(n, "exit"); }
  void eventDwellCallback(const std::optional<std::string>& n) override { record(n, "dwell"); }

  const sim::Scheduler& scheduler;
  std::mutex mutex;
  std::vector<Event> events;
};

/// Starts a client on a simulation of `options` that reports to `events`, and runs it `steps`
/// times `step`, calling `afterStep` after each; the simulation and the client are gone on
/// return.
inline void runClient(
    sim::SimulationOptions options, const std::shared_ptr<TimedEvents>& events, int steps,
    platform::Duration step, const std::function<void()>& afterStep = [] {}) {
  sim::Simulation simulation(std::move(options));
  auto client = Zonaris::initWithAppKey("simulated", simulation.platform());
  client->setDelegate(events);
  client->start();
  for (int i = 0; i < steps; ++i) {
    simulation.runFor(step);
    afterStep();
  }
}

}  // namespace zonaris::test
