// Beacon ranging in virtual time: the duty cycle, the choice among repeated sightings and the
// records each finished scan publishes.
#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <thread>

#include <fmt/format.h>

#include "support/fake_location_manager.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Lines = std::vector<std::string>;

constexpr const char* kUuid = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";
constexpr const char* kOtherUuid = "74278BDA-B644-4520-8F0C-720EAF059935";

platform::Beacon beacon(double accuracy, int major = 1, int minor = 2, std::string uuid = kUuid,
                        int proximity = 2) {
  return {std::move(uuid), major, minor, accuracy, proximity};
}

class BeaconRanging : public ::testing::Test {
 protected:
  BeaconRanging() {
    sim::SimulationOptions options;
    options.makeLocationManager = [this](const std::shared_ptr<sim::Scheduler>&) {
      return manager = std::make_shared<test::FakeLocationManager>();
    };
    // Each line with the virtual second it was written at.
    options.logSink = [this](std::string_view line) {
      timed.push_back(fmt::format("{:g} {}", simulation->elapsedSeconds(), line));
    };
    simulation = std::make_unique<sim::Simulation>(std::move(options));
    client = Zonaris::initWithAppKey("demo", simulation->platform());
    client->setDevMode(true);
    client->setUUID(kUuid);
    manager->clearCalls();
  }

  void range(std::vector<platform::Beacon> beacons) {
    client->didRangeBeacons(beacons, *client->mBeaconRegion());
  }
  Lines linesWith(std::string_view part) const {
    Lines out;
    for (const auto& l : timed) {
      if (l.find(part) != std::string::npos)
        out.push_back(l);
    }
    return out;
  }

  std::unique_ptr<sim::Simulation> simulation;
  std::shared_ptr<test::FakeLocationManager> manager;
  std::shared_ptr<Zonaris> client;
  Lines timed;
};

TEST_F(BeaconRanging, SwitchingOnTwiceRunsOneCycleThatPublishesEveryScanEvenEmpty) {
  client->startUpdateBeacons();
  client->startUpdateBeacons();
  range({beacon(1.0)});
  simulation->runFor(10s);
  EXPECT_EQ(client->mBeacons()->size(), 1u);
  simulation->runFor(85s);
  EXPECT_EQ(*client->mBeacons(), json::array());
  EXPECT_EQ(linesWith("Start updating"),
            (Lines{"0 Start updating beacons", "0 Start updating beacons"}));
  EXPECT_EQ(linesWith(" scan"), (Lines{"0 Started scan", "10 Stopped scan", "40 Started scan",
                                       "50 Stopped scan", "80 Started scan", "90 Stopped scan"}));
  const auto start = fmt::format("startRangingBeacons({})", kUuid);
  const auto stop = fmt::format("stopRangingBeacons({})", kUuid);
  EXPECT_EQ(manager->calls(), (Lines{start, stop, start, stop, start, stop}));
}

TEST_F(BeaconRanging, SwitchingOffEndsTheCycleKeepsTheLastScanAndIgnoresLateResults) {
  range({beacon(1.0, 5, 5)});  // before switching on
  client->startUpdateBeacons();
  range({beacon(1.0)});
  simulation->runFor(15s);
  range({beacon(1.0, 6, 6)});  // during the pause
  client->stopUpdateBeacons();
  range({beacon(1.0, 7, 7)});  // after switching off
  simulation->runFor(200s);
  EXPECT_EQ(linesWith(" scan"), (Lines{"0 Started scan", "10 Stopped scan"}));
  EXPECT_EQ(client->mBeacons()->size(), 1u);
  EXPECT_EQ(client->mCurrentBeacons().size(), 1u);
  EXPECT_EQ(linesWith("Found beacons").size(), 1u);
  EXPECT_EQ(manager->calls().back(), fmt::format("stopRangingBeacons({})", kUuid));
}

TEST_F(BeaconRanging, WithoutARegionBothSwitchesOnlyRefuse) {
  client->setMBeaconRegion(nullptr);
  client->startUpdateBeacons();
  client->stopUpdateBeacons();
  simulation->runFor(60s);
  EXPECT_EQ(timed, (Lines{"0 Can't start updating beacons", "0 Can't stop updating beacons"}));
  EXPECT_TRUE(manager->calls().empty());
}

constexpr const char* kAdded = "    Beacon added";
constexpr const char* kReplaced = "    Replace old beacon";
constexpr const char* kKept = "    Accuracy is worst or same then old one";

struct Sightings {
  std::vector<double> accuracies;  // one beacon, one ranging result each
  double kept;
  Lines outcomes;
};

class BeaconAccuracy : public BeaconRanging, public ::testing::WithParamInterface<Sightings> {};

TEST_P(BeaconAccuracy, KeepsTheBestUsableSightingOfAScan) {
  client->startUpdateBeacons();
  for (double a : GetParam().accuracies)
    range({beacon(a)});
  Lines outcomes;
  for (const auto& l : linesWith("0     ")) {
    if (l.find("Beacon - ") == std::string::npos)
      outcomes.push_back(l.substr(2));
  }
  EXPECT_EQ(outcomes, GetParam().outcomes);
  ASSERT_EQ(client->mCurrentBeacons().size(), 1u);
  EXPECT_EQ(client->mCurrentBeacons()[0].accuracy, GetParam().kept);
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, BeaconAccuracy,
    ::testing::Values(Sightings{{3.2, 1.5, 2.0}, 1.5, {kAdded, kReplaced, kAdded, kKept}},
                      Sightings{{1.5, 1.5}, 1.5, {kAdded, kKept}},
                      Sightings{{-1.0, 4.0}, 4.0, {kAdded, kReplaced, kAdded}},
                      Sightings{{4.0, -1.0}, 4.0, {kAdded, kKept}},
                      Sightings{{4.0, 0.0}, 4.0, {kAdded, kKept}},
                      Sightings{
                          {4.0, std::numeric_limits<double>::quiet_NaN()}, 4.0, {kAdded, kKept}}));

TEST_F(BeaconRanging, IdentityIsMinorMajorAndUuidAndRecordsFollowTheListOrder) {
  client->startUpdateBeacons();
  range({beacon(5.0, 1, 2, kUuid, 1), beacon(5.0, 1, 2, kOtherUuid, 3), beacon(5.0, 2, 1, kUuid, 0),
         beacon(5.0, 1, 3, kUuid, 7)});
  range({beacon(1.0, 1, 2, kUuid, 2)});  // replaces the first and moves it to the end
  EXPECT_EQ(linesWith("Found beacons"), (Lines{"0 Found beacons - 4", "0 Found beacons - 1"}));
  EXPECT_EQ(linesWith("Beacon - ")[2], "0     Beacon - 1 - 2 - 5.000000");  // minor first
  EXPECT_EQ(client->isBeaconExists(beacon(9.0, 1, 2))->accuracy, 1.0);
  EXPECT_FALSE(client->isBeaconExists(beacon(9.0, 2, 2)));
  simulation->runFor(10s);
  auto record = [](const char* uuid, int major, int minor, const char* proximity) {
    return json{{"uuid", uuid}, {"major", major}, {"minor", minor}, {"proximity", proximity}};
  };
  // A proximity the platform does not define (7) is published as "unknown".
  EXPECT_EQ(*client->mBeacons(),
            json::array({record(kOtherUuid, 1, 2, "far"), record(kUuid, 2, 1, "unknown"),
                         record(kUuid, 1, 3, "unknown"), record(kUuid, 1, 2, "near")}));
  EXPECT_EQ(linesWith("Total beacons"), (Lines{"10 Total beacons - 4"}));
}

// A reader on another thread (as the observation report is) while scans run; meant for TSan.
TEST_F(BeaconRanging, ReadersOnAnotherThreadSeeWholeLists) {
  client->startUpdateBeacons();
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done.load())
      EXPECT_TRUE(client->mBeacons()->is_array() && client->mCurrentBeacons().size() <= 3);
  });
  for (int i = 0; i < 200; ++i) {
    range({beacon(5.0 - i * 0.01, 1, i % 2), beacon(1.0, 7, 7)});
    simulation->runFor(1s);
  }
  done.store(true);
  reader.join();
}

}  // namespace
}  // namespace zonaris
