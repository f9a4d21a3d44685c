#pragma once

// A client on the simulated platform, talking to a recording server, with helpers to build a
// catalogue and put the device somewhere.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/fake_location_manager.hpp"
#include "support/recording_delegate.hpp"
#include "support/recording_server.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::test {

/// Metres per degree of arc on the fence sphere.
inline constexpr double kMetresPerDegree = 6378137.0 * 0.017453292519943295;

struct FenceSpec {
  std::int64_t id = 1;
  std::optional<std::string> name = "Office";
  std::optional<std::string> type = "polygon";
  std::optional<std::string> location = "POLYGON ((0 0, 1 0, 1 1, 0 1, 0 0))";
  float radius = 0.0f;
  std::vector<std::int32_t> windows;
};

inline std::shared_ptr<ZonarisFence> makeFence(const FenceSpec& spec) {
  auto fence = std::make_shared<ZonarisFence>();
  fence->setId(spec.id);
  fence->setName(spec.name);
  fence->setType(spec.type);
  fence->setLocation(spec.location);
  fence->setRadius(spec.radius);
  DwellList windows;
  for (auto seconds : spec.windows)
    windows.push_back(std::make_shared<ZonarisDwell>(seconds));
  fence->setDwell_events(std::move(windows));
  return fence;
}

/// A point fence `metres` north of (0, 0): the device at (0, 0) is that far from it.
inline std::string pointNorthOfOrigin(double metres) {
  return "POINT (0 " + nlohmann::json(metres / kMetresPerDegree).dump() + ")";
}

class FenceFixture : public ::testing::Test {
 protected:
  FenceFixture() {
    server.respond("POST", "/install/error", {200, "{}"});
    sim::SimulationOptions options;
    options.baseUrl = server.baseUrl();
    options.makeLocationManager = [this](const std::shared_ptr<sim::Scheduler>&) {
      manager = std::make_shared<FakeLocationManager>();
      return manager;
    };
    simulation = std::make_unique<sim::Simulation>(std::move(options));
    client = Zonaris::initWithAppKey("demo-key", simulation->platform());
    client->setMInstallId(7);
    client->setDelegate(delegate);
    client->setUUID("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
  }

  ~FenceFixture() override {
    client->stopDwellTimer();
    simulation->scheduler().clear();
  }

  /// Answers every observation with these events (and no message).
  void answerObservationsWith(nlohmann::json events = nlohmann::json::array()) {
    server.respond("POST", "/observation",
                   {200, nlohmann::json{{"id", 1}, {"events", events}}.dump()});
  }

  std::vector<std::shared_ptr<ZonarisFence>> publish(const std::vector<FenceSpec>& specs) {
    FenceList list;
    for (const auto& spec : specs)
      list.push_back(makeFence(spec));
    client->setMFences(std::make_shared<const FenceList>(list));
    return list;
  }

  void placeDevice(double latitude, double longitude) {
    auto fix = std::make_shared<platform::Location>();
    fix->latitude = latitude;
    fix->longitude = longitude;
    fix->horizontalAccuracy = 5.0;
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

  std::size_t observations() const { return server.count("POST", "/observation"); }

  RecordingServer server;
  std::shared_ptr<FakeLocationManager> manager;
  std::unique_ptr<sim::Simulation> simulation;
  /// Hears what the fence engine and the answers send; the sampling progress is left out.
  std::shared_ptr<RecordingDelegate> delegate =
      std::make_shared<RecordingDelegate>(std::set<ZonarisCallback>{
          ZonarisCallback::updatedDistanceToNearestFence, ZonarisCallback::updatedBeaconScan,
          ZonarisCallback::reportSent, ZonarisCallback::eventEnterCallback,
          ZonarisCallback::eventExitCallback, ZonarisCallback::eventDwellCallback,
          ZonarisCallback::actionBasicCallback, ZonarisCallback::actionDataCallback});
  std::shared_ptr<Zonaris> client;
};

}  // namespace zonaris::test
