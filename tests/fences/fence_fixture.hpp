#pragma once

// A client on the simulated platform, talking to a recording server, with helpers to build a
// catalogue and put the device somewhere.

#include <gtest/gtest.h>

#include <mutex>

#include <nlohmann/json.hpp>

#include "fences/fence_cache.hpp"
#include "support/recording_delegate.hpp"
#include "support/recording_server.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/sim/trace.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::test {

/// Metres per degree of arc on the fence sphere.
inline constexpr double kMetresPerDegree = 6378137.0 * 0.017453292519943295;

struct FenceDef {
  std::int64_t id = 1;
  std::optional<std::string> name = "Office";
  std::optional<std::string> type = "polygon";
  std::optional<std::string> location = "POLYGON ((0 0, 1 0, 1 1, 0 1, 0 0))";
  float radius = 0.0f;
  std::vector<std::int32_t> windows = {};
};

/// A point fence `metres` north of (0, 0): the device at (0, 0) is that far from it.
inline std::string pointNorthOfOrigin(double metres) {
  return "POINT (0 " + nlohmann::json(metres / kMetresPerDegree).dump() + ")";
}

/// Fence records made from these definitions.
inline FenceList makeFences(const std::vector<FenceDef>& fenceDefs) {
  FenceList list;
  for (const auto& def : fenceDefs) {
    auto fence = std::make_shared<ZonarisFence>();
    fence->setId(def.id);
    fence->setName(def.name);
    fence->setType(def.type);
    fence->setLocation(def.location);
    fence->setRadius(def.radius);
    DwellList windows;
    for (auto seconds : def.windows)
      windows.push_back(std::make_shared<ZonarisDwell>(seconds));
    fence->setDwell_events(std::move(windows));
    list.push_back(fence);
  }
  return list;
}

class FenceFixture : public ::testing::Test {
 protected:
  FenceFixture() {
    server.respond("POST", "/install/error", {200, "{}"});
    boot();
  }
  ~FenceFixture() override {
    client->stopDwellTimer();
    simulation->scheduler().clear();
  }

  /// A new simulation (replaying `trace`, if any) and a new client with install id 7.
  void boot(std::shared_ptr<const sim::Trace> trace = nullptr,
            std::shared_ptr<platform::Dispatcher> dispatcher = nullptr) {
    sim::SimulationOptions options;
    options.baseUrl = server.baseUrl();
    options.trace = std::move(trace);
    options.logSink = [this](std::string_view line) {
      std::lock_guard lock(logMutex);
      stamped.emplace_back(simulation->elapsedSeconds(), std::string(line));
    };
    simulation = std::make_unique<sim::Simulation>(std::move(options));
    ZonarisUserDefaults::setInstallId(simulation->store(), 7);
    auto platform = simulation->platform();
    if (dispatcher)
      platform.dispatcher = std::move(dispatcher);
    client = Zonaris::initWithAppKey("demo-key", platform);
    client->setDelegate(delegate);
    client->setUUID("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
  }

  /// Answers the n-th observation with the n-th list of events (and no message), the last list
  /// repeating.
  void answerObservationsWith(std::vector<nlohmann::json> answers = {nlohmann::json::array()}) {
    std::vector<ScriptedResponse> responses;
    for (const auto& events : answers)
      responses.push_back({200, nlohmann::json{{"id", 1}, {"events", events}}.dump()});
    server.respondSequence("POST", "/observation", responses);
  }

  /// Makes these fences the client's catalogue.
  FenceList publish(const std::vector<FenceDef>& fenceDefs, bool cached = false) {
    FenceList list = makeFences(fenceDefs);
    client->setMFences(cached ? fences::withGeometryCache(list)
                              : std::make_shared<const FenceList>(list));
    return list;
  }

  /// The device at `latitude` on the prime meridian.
  void placeDevice(double latitude = 0.0) {
    auto fix = std::make_shared<platform::Location>();
    fix->latitude = latitude;
    fix->timestamp = simulation->now();
    client->setMCurrentLocation(std::move(fix));
  }

  /// The "data" of every error report received, in order.
  std::vector<nlohmann::json> errorReports() const {
    std::vector<nlohmann::json> out;
    for (const auto& request : server.requests("POST", "/install/error"))
      out.push_back(nlohmann::json::parse(request.body)["data"]);
    return out;
  }

  /// Virtual seconds at which lines starting with `prefix` were logged.
  std::vector<double> timesOf(const std::string& prefix) const {
    std::lock_guard lock(logMutex);
    std::vector<double> out;
    for (const auto& [t, line] : stamped) {
      if (line.rfind(prefix, 0) == 0)
        out.push_back(t);
    }
    return out;
  }
  void forgetLog() {
    std::lock_guard lock(logMutex);
    stamped.clear();
  }

  RecordingServer server;
  mutable std::mutex logMutex;
  std::vector<std::pair<double, std::string>> stamped;  // every line with its virtual time
  std::unique_ptr<sim::Simulation> simulation;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<Zonaris> client;
};

}  // namespace zonaris::test
