// Beacon ranging end to end: a walk up to a shop door that has a beacon fence, a pause there
// and the walk back, with the door's beacons visible on the way. The real client runs against
// a local service; the test reads what reached the wire.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

#include <nlohmann/json.hpp>

#include "support/recording_delegate.hpp"
#include "support/recording_server.hpp"
#include "zonaris/sim/location_manager.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr const char* kUuid = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";

TEST(BeaconJourney, RangesNearTheDoorAndTheNextObservationCarriesItsBeacons) {
  // Eastwards along the equator at 1.5 m/s from 334 m west of the door to 34 m from it, two
  // minutes there, then back: under 150 m from about t = 123 s to t = 397 s.
  const json door = {{"id", 21},
                     {"name", "Shop door"},
                     {"type", "beacon"},
                     {"location", "POINT (0.003 0)"},
                     {"radius", 0},
                     {"_event_types", {"entry", "exit"}},
                     {"_dwell_windows", json::array()}};
  test::RecordingServer server;
  server.respond("GET", "/install/location", {200, json::array({door}).dump()});
  server.respond("POST", "/install/error", {200, "{}"});
  std::mutex mutex;
  std::vector<std::pair<double, json>> observations;  // virtual second, "beacons"
  std::unique_ptr<sim::Simulation> simulation;
  server.on("POST", "/observation", [&](const test::RecordedRequest& request) {
    const json body = json::parse(request.body, nullptr, false);
    std::lock_guard lock(mutex);
    observations.emplace_back(
        simulation->elapsedSeconds(),
        body.is_object() && body.contains("beacons") ? body["beacons"] : json());
    return test::ScriptedResponse{200, R"({"id":1,"events":[]})"};
  });

  sim::SimulationOptions options;
  options.baseUrl = server.baseUrl();
  options.trace = std::make_shared<const sim::Trace>(
      sim::Trace::parseCsv("t,lat,lon\n0,0,0\n200,0,0.0027\n320,0,0.0027\n520,0,0\n", "walk.csv"));
  options.beacons = std::make_shared<const sim::BeaconSightings>(
      sim::BeaconSightings::load(ZONARIS_TEST_DATA_DIR "/shop_door_beacons.csv"));
  std::vector<double> scans;  // when "Started scan" and "Stopped scan" were written
  options.logSink = [&](std::string_view line) {
    if (line == "Started scan" || line == "Stopped scan")
      scans.push_back(simulation->elapsedSeconds());
  };
  simulation = std::make_unique<sim::Simulation>(std::move(options));
  ZonarisUserDefaults::setInstallId(simulation->store(), 7);
  auto client = Zonaris::initWithAppKey("demo-key", simulation->platform());
  auto delegate = std::make_shared<test::RecordingDelegate>();
  client->setUUID(kUuid);
  client->setDelegate(delegate);
  client->start();
  simulation->runFor(700s);

  ASSERT_GE(scans.size(), 2u);
  EXPECT_GT(scans[0], 120.0);
  EXPECT_DOUBLE_EQ(scans[1] - scans[0], 10.0);
  EXPECT_LT(scans.back(), 420.0);  // none after walking away
  auto record = [](int minor, const char* proximity) {
    return json{{"uuid", kUuid}, {"major", 10}, {"minor", minor}, {"proximity", proximity}};
  };
  const json doorBeacons = json::array({record(20, "near"), record(21, "far")});
  {
    std::lock_guard lock(mutex);
    ASSERT_GE(observations.size(), 2u);
    EXPECT_EQ(observations[0].second, json::array());  // the fresh catalogue, far away
    auto next = std::find_if(observations.begin(), observations.end(),
                             [&](const auto& o) { return o.first >= scans[1]; });
    ASSERT_NE(next, observations.end());
    EXPECT_EQ(next->second, doorBeacons);
  }
  auto* manager = dynamic_cast<sim::SimLocationManager*>(client->mLocationManager().get());
  EXPECT_TRUE(manager && manager->rangedRegions().empty());
  EXPECT_EQ(delegate->calls("updatedBeaconScan").back(), json::array({false}));
  EXPECT_EQ(*client->mBeacons(), doorBeacons);  // the last scan stays published

  server.stop();
  client->stopDwellTimer();
  simulation->scheduler().clear();
}

}  // namespace
}  // namespace zonaris
