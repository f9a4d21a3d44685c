// Sampling in virtual time on the simulated platform, against a recording server: arming
// samples and accepting fixes, the adaptive interval, and the beacon-ranging duty cycle.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <thread>

#include <GeographicLib/Geodesic.hpp>

#include "fences/fence_fixture.hpp"
#include "support/fake_location_manager.hpp"
#include "support/recording_delegate.hpp"
#include "support/recording_server.hpp"
#include "zonaris/sim/location_manager.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Lines = std::vector<std::string>;

constexpr const char* kUuid = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";
constexpr const char* kOtherUuid = "74278BDA-B644-4520-8F0C-720EAF059935";

// Developer mode on, an empty catalogue, and no fix unless the test hands one over.
class Sampling : public FenceFixture {
 protected:
  Sampling() {
    server.respond("GET", "/install/location", {200, "[]"});
    client->setDevMode(true);
  }

  static platform::Location fixAt(double lat, double lon, int secondsAfterStart = 0) {
    return {lat, lon, -1.0, 5.0, sim::defaultStartTime() + std::chrono::seconds(secondsAfterStart)};
  }
  /// The speeds and nearest distance the interval is computed from, and optionally an entered
  /// fence whose dwell window falls due in `dwellIn` seconds.
  void prepare(float speed, double minDist, std::optional<std::int32_t> dwellIn = std::nullopt) {
    client->setMSpeed(speed);
    client->setMAverageSpeed(speed);
    client->setMMinDist(minDist);
    if (dwellIn) {
      auto fence = std::make_shared<ZonarisFence>();
      fence->setEntered(true);
      fence->setDwell_events({std::make_shared<ZonarisDwell>(*dwellIn)});
      client->setMFences(std::make_shared<const FenceList>(FenceList{fence}));
    }
  }
  void range(std::vector<platform::Beacon> beacons) {
    client->didRangeBeacons(beacons, *client->mBeaconRegion());
  }
};

// Speeds divide by the seconds since the reference fix, but by 1 when none have passed.
TEST_F(Sampling, OnlyTheFirstDeliveryAfterArmingIsTakenEvenWhenTwoChainsArm) {
  const auto init = fixAt(45.0, 7.0, 20);
  client->setMInitLocation(std::make_shared<const platform::Location>(init));
  client->didUpdateLocations({fixAt(45.001, 7.0, 10)});  // not armed: dropped silently
  client->updateLocation();
  client->updateLocation();  // a timer and a download arming at the same time
  client->didUpdateLocations({fixAt(45.002, 7.0, 20), fixAt(45.003, 7.0, 20)});
  client->didUpdateLocations({fixAt(45.004, 7.0, 30)});
  EXPECT_EQ(simulation->logger().lines(),
            (Lines{"-----------------------------------------------------------------",
                   "New location: 45.003000, 7.000000, -1.000000, 5.000000",
                   "Set new current location"}));
  EXPECT_EQ(client->mSpeed(), 333.395416f);  // metres from the reference fix, over 1 s
}

TEST_F(Sampling, AverageHalvesFrom28TowardsTheFloorAndStaysThere) {
  client->setMSpeed(-3.0f);  // a negative speed counts as standing still
  std::vector<float> averages;
  for (int i = 0; i < 7; ++i) {
    client->calculateIntervalAndAccuracy();
    averages.push_back(client->mAverageSpeed());
  }
  EXPECT_EQ(client->mSpeed(), 0.0f);
  EXPECT_EQ(averages[0], 14.0001f);
  EXPECT_FLOAT_EQ(averages[4], 0.87519375f);
  EXPECT_EQ(std::vector(averages.begin() + 5, averages.end()), std::vector<float>(2, 0.5f));
}

constexpr const char* kTooBig = "Interval is too big. Set to MAX_INTERVAL = 600";
constexpr const char* kTooSmall = "Interval is too small. Set to MIN_INTERVAL = 15";

// Average speed 2.0 m/s after smoothing, so S = floor(minDist / 4).
TEST_F(Sampling, IntervalIsHalfTheTimeToTheFenceCutToTheDwellAndBounded) {
  struct Row {
    double minDist;
    std::optional<std::int32_t> dwellIn = std::nullopt;
    std::int32_t interval;
    const char* boundLine = nullptr;
  };
  const Row rows[] = {{.minDist = 1000.0, .interval = 250},
                      {.minDist = 20.0, .interval = 15, .boundLine = kTooSmall},   // 5
                      {.minDist = 2404.0, .interval = 600, .boundLine = kTooBig},  // 601
                      {.minDist = 2400.0, .interval = 600},                        // exactly 600
                      {.minDist = 60.0, .interval = 15},                           // exactly 15
                      {.minDist = 1000.0, .dwellIn = 100, .interval = 100}};  // cut to the dwell
  for (const Row& r : rows) {
    SCOPED_TRACE(r.minDist);
    forgetLog();
    delegate->clear();
    prepare(1.9999f, r.minDist, r.dwellIn);
    client->calculateIntervalAndAccuracy();
    EXPECT_EQ(delegate->calls("updatedInterval"), std::vector<json>{json::array({r.interval})});
    EXPECT_EQ(timesOf("Update location after " + std::to_string(r.interval) + " second(s)").size(),
              1u);
    for (const char* bound : {kTooBig, kTooSmall})
      EXPECT_EQ(timesOf(bound).size(), r.boundLine == bound) << bound;
    // The next sample is armed exactly `interval` virtual seconds later.
    simulation->runFor(std::chrono::seconds(r.interval) - 1ms);
    EXPECT_FALSE(client->mUpdatingLocation());
    simulation->runFor(1ms);
    EXPECT_TRUE(client->mUpdatingLocation());
    client->stop();
  }
}

// Compared in single precision: 1000.00002 m reads as 1000 m and is kept.
TEST_F(Sampling, InitLocationIsDroppedOnlyBeyondOneKilometre) {
  for (const auto& [metres, dropped] :
       {std::pair{1000.0, false}, std::pair{1000.00002, false}, std::pair{1000.5, true}}) {
    const auto init = fixAt(48.1, 11.5);
    auto current = init;
    GeographicLib::Geodesic::WGS84().Direct(init.latitude, init.longitude, 37.0, metres,
                                            current.latitude, current.longitude);
    client->setMInitLocation(std::make_shared<const platform::Location>(init));
    client->setMCurrentLocation(std::make_shared<const platform::Location>(current));
    client->calculateIntervalAndAccuracy();
    EXPECT_EQ(!client->mInitLocation(), dropped) << metres;
  }
}

// A NaN average is reported with both values (null where JSON cannot hold one), and the floor
// 0.5 m/s is used.
TEST_F(Sampling, AFaultyAverageIsReportedAndReplacedByTheFloor) {
  prepare(std::numeric_limits<float>::quiet_NaN(), 100.0);
  client->calculateIntervalAndAccuracy();
  const auto sent = server.requests("POST", "/install/error");
  ASSERT_EQ(sent.size(), 1u);
  const auto report = json::parse(sent[0].body, nullptr, false);
  EXPECT_EQ(report["data"]["reason"], "Calculate avg speed error");
  EXPECT_EQ(report["data"]["variables_state"],
            json::array({{{"name", "mSpeed"}, {"value", nullptr}},
                         {{"name", "mAverageSpeed"}, {"value", nullptr}}}));
  EXPECT_EQ(client->mAverageSpeed(), 0.5f);
  EXPECT_EQ(delegate->calls("updatedInterval")[0][0], 100);  // floor(100 / 0.5 * 0.5)
}

platform::Beacon beacon(double accuracy, int major = 1, int minor = 2, std::string uuid = kUuid,
                        int proximity = 2) {
  return {std::move(uuid), major, minor, accuracy, proximity};
}

json record(const char* uuid, int major, int minor, const char* proximity) {
  return {{"uuid", uuid}, {"major", major}, {"minor", minor}, {"proximity", proximity}};
}

// A beacon is its minor, major and UUID. A proximity the platform does not define is "unknown".
TEST_F(Sampling, BeaconsSwitchedOnTwiceRunOneCycleThatPublishesEveryScanEvenEmpty) {
  client->startUpdateBeacons();
  client->startUpdateBeacons();
  range(
      {beacon(1.0, 1, 2, kUuid, 3), beacon(1.0, 1, 2, kOtherUuid, 2), beacon(1.0, 1, 3, kUuid, 7)});
  simulation->runFor(10s);
  EXPECT_EQ(*client->mBeacons(),
            json::array({record(kUuid, 1, 2, "far"), record(kOtherUuid, 1, 2, "near"),
                         record(kUuid, 1, 3, "unknown")}));
  simulation->runFor(85s);
  EXPECT_EQ(*client->mBeacons(), json::array());
  EXPECT_EQ(timesOf("Started scan"), (std::vector<double>{0, 40, 80}));
  EXPECT_EQ(timesOf("Stopped scan"), (std::vector<double>{10, 50, 90}));
  EXPECT_TRUE(simulation->simLocationManager()->rangedRegions().empty());
}

TEST_F(Sampling, BeaconsSwitchedOffEndTheCycleKeepTheLastScanAndIgnoreLateResults) {
  range({beacon(1.0, 5, 5)});  // before switching on
  client->startUpdateBeacons();
  range({beacon(1.0)});
  simulation->runFor(15s);
  range({beacon(1.0, 6, 6)});  // during the pause
  client->stopUpdateBeacons();
  range({beacon(1.0, 7, 7)});  // after switching off
  simulation->runFor(200s);
  EXPECT_EQ(timesOf("Started scan"), std::vector<double>{0});
  EXPECT_EQ(client->mBeacons()->size(), 1u);
  EXPECT_EQ(client->mCurrentBeacons().size(), 1u);
}

constexpr const char* kAdded = "    Beacon added";
constexpr const char* kReplaced = "    Replace old beacon";
constexpr const char* kKept = "    Accuracy is worst or same then old one";

// One beacon ranged with these accuracies in turn: the log's outcome lines and the one kept.
TEST_F(Sampling, BeaconsKeepTheBestUsableSightingOfAScan) {
  struct Row {
    std::vector<double> accuracies;
    double kept;
    Lines outcomes;
  };
  const Row rows[] = {
      {.accuracies = {1.5, 1.5}, .kept = 1.5, .outcomes = {kAdded, kKept}},
      {.accuracies = {-1.0, 4.0}, .kept = 4.0, .outcomes = {kAdded, kReplaced, kAdded}},
      {.accuracies = {4.0, -1.0}, .kept = 4.0, .outcomes = {kAdded, kKept}},
      {.accuracies = {4.0, 0.0}, .kept = 4.0, .outcomes = {kAdded, kKept}}};
  client->startUpdateBeacons();
  for (const Row& r : rows) {
    SCOPED_TRACE(r.accuracies.front());
    forgetLog();
    for (double a : r.accuracies)
      range({beacon(a)});
    Lines outcomes;
    for (const auto& [t, line] : stamped) {
      if (line.rfind("    ", 0) == 0 && line.find("Beacon - ") == std::string::npos)
        outcomes.push_back(line);
    }
    EXPECT_EQ(outcomes, r.outcomes);
    ASSERT_EQ(client->mCurrentBeacons().size(), 1u);
    EXPECT_EQ(client->mCurrentBeacons()[0].accuracy, r.kept);
    simulation->runFor(40s);  // the next scan starts afresh
  }
}

// Switching on and off from several threads at once (evaluation passes overlapping with stop):
// whenever the last switch was off, the device ends up not ranging. Run under ThreadSanitizer.
TEST(BeaconSwitches, RangingEndsOffWheneverTheLastSwitchWasOff) {
  auto manager = std::make_shared<FakeLocationManager>();
  sim::SimulationOptions options;
  options.makeLocationManager = [manager](const auto&) { return manager; };
  // "Started scan" is written between a scan's check of the switch and its start of ranging:
  // giving up the processor there lets a switch-off slip in when nothing orders them.
  options.logSink = [](std::string_view) { std::this_thread::yield(); };
  sim::Simulation simulation(std::move(options));
  auto client = Zonaris::initWithAppKey("demo-key", simulation.platform());
  client->setUUID(kUuid);
  for (int round = 0; round < 100; ++round) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&client] {
        for (int i = 0; i < 25; ++i) {
          client->startUpdateBeacons();
          client->stopUpdateBeacons();  // every thread's last switch is off
        }
      });
    }
    for (auto& thread : threads)
      thread.join();
    const auto calls = manager->calls();
    const auto last = std::find_if(calls.rbegin(), calls.rend(), [](const std::string& c) {
      return c.find("RangingBeacons(") != std::string::npos;
    });
    ASSERT_NE(last, calls.rend());
    ASSERT_EQ(last->rfind("stopRangingBeacons(", 0), 0u) << "still ranging after round " << round;
    ASSERT_FALSE(client->mBeaconScanning());
    manager->clearCalls();
  }
}

}  // namespace
}  // namespace zonaris::test
