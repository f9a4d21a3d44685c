#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "zonaris/platform/platform.hpp"
#include "zonaris/sim/beacon_sightings.hpp"
#include "zonaris/sim/location_manager.hpp"
#include "zonaris/sim/network.hpp"
#include "zonaris/sim/scheduler.hpp"
#include "zonaris/sim/trace.hpp"

namespace zonaris::sim {

/// The main queue, detached threads and tickers, all in virtual time.
/// `detach` queues the task for the current instant: it runs after the task that posted it.
/// `mainAfter` posts on the scheduler's main lane.
class SimDispatcher final : public platform::Dispatcher {
 public:
  explicit SimDispatcher(std::shared_ptr<Scheduler> scheduler);
  void detach(platform::Task task) override;
  void mainAfter(platform::Duration delay, platform::Task task) override;
  std::shared_ptr<platform::TickerHandle> startTicker(platform::Duration interval,
                                                      platform::Task tick) override;

 private:
  std::shared_ptr<Scheduler> scheduler_;
};

/// The virtual clock. Virtual time points are read as the device's local time (no time zone
/// offset), so the hour of the day is that of the simulation's start date plus elapsed time.
class SimClock final : public platform::Clock {
 public:
  explicit SimClock(std::shared_ptr<Scheduler> scheduler);
  platform::TimePoint now() const override;
  int hourOfDay(platform::TimePoint time) const override;

 private:
  std::shared_ptr<Scheduler> scheduler_;
};

/// A key/value store in memory. Survives a client, not the process.
class MemoryStore final : public platform::KeyValueStore {
 public:
  std::int64_t getLong(const std::string& key) const override;
  void setLong(const std::string& key, std::int64_t value) override;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::int64_t> values_;
};

/// Keeps every logged line, and passes each to an optional sink as it is written.
class CapturingLogger final : public platform::Logger {
 public:
  explicit CapturingLogger(std::function<void(std::string_view)> sink = {});
  void log(std::string_view line) override;
  std::vector<std::string> lines() const;
  void clear();

 private:
  std::function<void(std::string_view)> sink_;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class FixedDeviceInfo final : public platform::DeviceInfo {
 public:
  explicit FixedDeviceInfo(std::string version) : version_(std::move(version)) {}
  std::string systemVersion() const override { return version_; }

 private:
  std::string version_;
};

/// Call stacks without memory addresses, so that simulated runs are reproducible.
class SimCallStack final : public platform::CallStack {
 public:
  std::vector<std::string> symbols() const override;
};

/// Parses "YYYY-MM-DDTHH:MM:SS" as a virtual local time; nothing when malformed.
std::optional<platform::TimePoint> parseLocalTime(std::string_view text);
/// 2026-01-01T12:00:00, the default start of a simulation.
platform::TimePoint defaultStartTime();

struct SimulationOptions {
  platform::TimePoint start = defaultStartTime();
  /// The scheduler to run on. Default: a new one starting at `start`.
  std::shared_ptr<Scheduler> scheduler;
  std::string systemVersion = "17.0";
  std::string baseUrl = "http://127.0.0.1:9";
  /// Default: libcurl.
  std::shared_ptr<platform::HttpClient> http;
  /// Default: a MemoryStore.
  std::shared_ptr<platform::KeyValueStore> store;
  /// Receives every logged line as it is written.
  std::function<void(std::string_view)> logSink;
  /// The location service. Default: a `SimLocationManager` replaying `trace` and `beacons`.
  std::function<std::shared_ptr<platform::LocationManager>(const std::shared_ptr<Scheduler>&)>
      makeLocationManager;
  /// What the default location service replays; without a trace it delivers no fix, without
  /// sightings it ranges empty lists.
  std::shared_ptr<const Trace> trace;
  std::shared_ptr<const BeaconSightings> beacons;
  /// How the default location service's fixes depart from the trace. Default: the ideal device.
  DeviceModel device;
  /// Latency and outages between the client and `http`. Default: none.
  NetworkModel network;
};

/// A whole simulated platform around one scheduler. Destroying the simulation drops all queued
/// work, which releases the clients that work was holding.
class Simulation {
 public:
  explicit Simulation(SimulationOptions options = {});
  ~Simulation();
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;

  /// The platform to give to `Zonaris::initWithAppKey`.
  platform::Platform platform() const;

  Scheduler& scheduler() { return *scheduler_; }
  const std::shared_ptr<Scheduler>& schedulerPtr() const { return scheduler_; }
  CapturingLogger& logger() { return *logger_; }
  platform::KeyValueStore& store() { return *store_; }
  /// The location managers made for clients so far, oldest first.
  std::vector<std::shared_ptr<platform::LocationManager>> locationManagers() const;
  /// The first of them that is a `SimLocationManager`, or null.
  std::shared_ptr<SimLocationManager> simLocationManager() const;

  void runFor(platform::Duration duration) { scheduler_->runFor(duration); }
  void runUntil(platform::TimePoint end) { scheduler_->runUntil(end); }
  platform::TimePoint now() const { return scheduler_->now(); }
  /// Virtual seconds since the start.
  double elapsedSeconds() const;

 private:
  SimulationOptions options_;
  std::shared_ptr<Scheduler> scheduler_;
  std::shared_ptr<SimDispatcher> dispatcher_;
  std::shared_ptr<SimClock> clock_;
  std::shared_ptr<CapturingLogger> logger_;
  std::shared_ptr<platform::KeyValueStore> store_;
  std::shared_ptr<platform::HttpClient> http_;
  std::shared_ptr<FixedDeviceInfo> device_;
  std::shared_ptr<SimCallStack> callStack_;
  struct Managers {
    std::mutex mutex;
    std::vector<std::shared_ptr<platform::LocationManager>> list;
  };
  std::shared_ptr<Managers> managers_;
};

}  // namespace zonaris::sim
