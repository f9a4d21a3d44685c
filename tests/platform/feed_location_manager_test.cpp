// The pushed location service, delivering through a virtual main queue.
#include <gtest/gtest.h>

#include <limits>
#include <utility>
#include <vector>

#include "zonaris/platform/feed_location_manager.hpp"
#include "zonaris/sim/sim_platform.hpp"

namespace zonaris::platform {
namespace {

using namespace std::chrono_literals;

struct Recorder final : LocationManagerDelegate {
  void didUpdateLocations(const std::vector<Location>& l) override { fixes += l.size(); }
  void didRangeBeacons(const std::vector<Beacon>& b, const BeaconRegion&) override {
    for (const auto& beacon : b) {
      uuids.push_back(beacon.uuid);
      readings.emplace_back(beacon.accuracy, beacon.proximity);
    }
  }
  void didChangeMotion(const MotionTransition& t) override { motions.push_back(t.motion); }
  std::size_t fixes = 0;
  std::vector<std::string> uuids;
  std::vector<std::pair<double, int>> readings;  // accuracy and proximity as delivered
  std::vector<Motion> motions;
};

// A fix `metres` north of a fixed point (one degree of latitude is about 111.2 km there).
Location north(double metres) {
  return {.latitude = 48.0 + metres / 111200.0, .longitude = 2.0, .horizontalAccuracy = 5.0};
}

// A pushed location service whose main queue runs when the test says.
class FeedLocationManagerTest : public ::testing::Test {
 protected:
  FeedLocationManagerTest() { manager.setDelegate(recorder); }
  std::shared_ptr<sim::Scheduler> scheduler =
      std::make_shared<sim::Scheduler>(sim::defaultStartTime());
  FeedLocationManager manager{std::make_shared<sim::SimDispatcher>(scheduler)};
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

// The client's own pattern: coarse while idle, every fix while a sample is armed; then the
// filter counts from the last delivered fix: of fixes 0, 60, 120 ... 300 metres north, those
// in the table are let through.
TEST_F(FeedLocationManagerTest, FollowsStartStopAndItsFilterAndDeliversOnlyOnTheMainQueue) {
  EXPECT_FALSE(manager.pushLocation(north(0))) << "not updating yet";
  manager.setDistanceFilter(99999.0);
  manager.startUpdatingLocation();
  EXPECT_TRUE(manager.pushLocation(north(0)));
  EXPECT_EQ(recorder->fixes, 0u) << "never delivered inside the push";
  scheduler->runFor(0s);
  EXPECT_EQ(recorder->fixes, 1u);
  EXPECT_FALSE(manager.pushLocation(north(60)));
  manager.setDistanceFilter(kDistanceFilterNone);
  EXPECT_TRUE(manager.pushLocation(north(60)));
  manager.stopUpdatingLocation();
  EXPECT_FALSE(manager.pushLocation(north(120)));

  const std::pair<double, std::vector<int>> table[] = {{kDistanceFilterNone, {0, 1, 2, 3, 4, 5}},
                                                       {0.0, {0, 1, 2, 3, 4, 5}},
                                                       {100.0, {0, 2, 4}},
                                                       {200.0, {0, 4}},
                                                       {99999.0, {0}}};
  for (const auto& [filter, expected] : table) {
    manager.setDistanceFilter(filter);
    manager.startUpdatingLocation();
    std::vector<int> delivered;
    for (int i = 0; i < 6; ++i) {
      if (manager.pushLocation(north(60.0 * i)))
        delivered.push_back(i);
    }
    EXPECT_EQ(delivered, expected) << filter;
    manager.stopUpdatingLocation();  // a restart forgets the last fix
  }

  // Fixes refused whoever pushes them (the C API reports the same checks as its errors).
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  constexpr double inf = std::numeric_limits<double>::infinity();
  using Problem = FeedLocationManager::FixProblem;
  const std::pair<Location, Problem> refused[] = {
      {{.latitude = nan, .longitude = 2.0}, Problem::CoordinatesOutOfRange},
      {{.latitude = 48.0, .longitude = -inf}, Problem::CoordinatesOutOfRange},
      {{.latitude = 90.5, .longitude = 2.0}, Problem::CoordinatesOutOfRange},
      {{.latitude = 48.0, .longitude = 180.5}, Problem::CoordinatesOutOfRange},
      {{.latitude = nan, .longitude = 2.0, .speed = nan}, Problem::CoordinatesOutOfRange},
      {{.latitude = 48.0, .longitude = 2.0, .speed = nan}, Problem::NotFinite},
      {{.latitude = 48.0, .longitude = 2.0, .horizontalAccuracy = inf}, Problem::NotFinite},
      {{.latitude = -90.0, .longitude = -180.0}, Problem::None},
  };
  manager.setDistanceFilter(kDistanceFilterNone);
  manager.startUpdatingLocation();
  for (const auto& [fix, problem] : refused) {
    EXPECT_EQ(FeedLocationManager::checkFix(fix), problem) << fix.latitude << " " << fix.longitude;
    EXPECT_EQ(manager.pushLocation(fix), problem == Problem::None);
  }
}

// One beacon pushed in two cases reaches the client as one canonical text, so that its scan
// keeps one entry and the wire carries upper case; an accuracy or a proximity the client cannot
// take arrives as unknown.
TEST_F(FeedLocationManagerTest, DeliversBeaconUUIDsInCanonicalUpperCase) {
  manager.startRangingBeacons({"E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "beacon_region"});
  manager.pushBeacons(
      {{"e2c56db5-dffb-48d2-b060-d0f5a71096e0", 1, 2, 1.0, 2},
       {"E2C56DB5-dffb-48D2-B060-D0F5A71096E0", 1, 2, 1.0, 2},
       {"e2c56db5-dffb-48d2-b060-d0f5a71096e0", 1, 2, std::numeric_limits<double>::quiet_NaN(), 4},
       {"e2c56db5-dffb-48d2-b060-d0f5a71096e0", 1, 2, std::numeric_limits<double>::infinity(), -1},
       {"not a uuid", 1, 2, 1.0, 2}});
  scheduler->runFor(0s);
  EXPECT_EQ(recorder->uuids, std::vector<std::string>(4, "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"));
  EXPECT_EQ(recorder->readings,
            (std::vector<std::pair<double, int>>{{1.0, 2}, {1.0, 2}, {-1.0, 0}, {-1.0, 0}}));
}

// Motion reaches the client only while it listens; starting to listen tells the motion last
// pushed, so a client that starts late still knows whether the device moves.
TEST_F(FeedLocationManagerTest, DeliversMotionOnlyWhileListenedTo) {
  EXPECT_FALSE(manager.hasMotion()) << "no motion source until one pushes";
  EXPECT_FALSE(manager.pushMotion({Motion::Moving, scheduler->now()}));
  EXPECT_FALSE(manager.pushMotion({Motion::Stationary, scheduler->now()}));
  EXPECT_TRUE(manager.hasMotion());
  manager.startMotionUpdates();
  EXPECT_TRUE(manager.settings().motionUpdates);
  EXPECT_TRUE(manager.pushMotion({Motion::Moving, scheduler->now()}));
  scheduler->runFor(0s);
  manager.stopMotionUpdates();
  EXPECT_FALSE(manager.pushMotion({Motion::Stationary, scheduler->now()}));
  scheduler->runFor(0s);
  EXPECT_EQ(recorder->motions, (std::vector<Motion>{Motion::Stationary, Motion::Moving}));
}

}  // namespace
}  // namespace zonaris::platform
