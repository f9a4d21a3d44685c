// The pushed location service, delivering through a virtual main queue; and the production
// platform as a whole.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "zonaris/platform/production.hpp"
#include "zonaris/sim/sim_platform.hpp"

namespace zonaris::platform {
namespace {

using namespace std::chrono_literals;

class Recorder final : public LocationManagerDelegate {
 public:
  void didUpdateLocations(const std::vector<Location>& locations) override {
    fixes += locations.size();
  }
  void didRangeBeacons(const std::vector<Beacon>& beacons, const BeaconRegion& region) override {
    std::vector<int> minors;
    for (const auto& b : beacons)
      minors.push_back(b.minor);
    ranged.emplace_back(region.identifier, minors);
  }
  std::size_t fixes = 0;
  std::vector<std::pair<std::string, std::vector<int>>> ranged;
};

// A fix `metres` north of a fixed point (one degree of latitude is about 111.2 km there).
Location north(double metres) {
  Location l;
  l.latitude = 48.0 + metres / 111200.0;
  l.longitude = 2.0;
  l.horizontalAccuracy = 5.0;
  return l;
}

class FeedLocationManagerTest : public ::testing::Test {
 protected:
  FeedLocationManagerTest() { manager.setDelegate(recorder); }

  // Pushes fixes 0, 60, 120 ... metres north and returns the indices accepted for delivery.
  std::vector<int> walk(int steps) {
    std::vector<int> delivered;
    for (int i = 0; i < steps; ++i) {
      if (manager.pushLocation(north(60.0 * i)))
        delivered.push_back(i);
    }
    return delivered;
  }

  std::shared_ptr<sim::Scheduler> scheduler =
      std::make_shared<sim::Scheduler>(sim::defaultStartTime());
  FeedLocationManager manager{std::make_shared<sim::SimDispatcher>(scheduler)};
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

struct FilterCase {
  const char* name;
  double filter;
  std::vector<int> delivered;
};

class FeedDistanceFilter : public FeedLocationManagerTest,
                           public ::testing::WithParamInterface<FilterCase> {};

TEST_P(FeedDistanceFilter, CountsFromTheLastDeliveredFix) {
  manager.startUpdatingLocation();
  manager.setDistanceFilter(GetParam().filter);
  EXPECT_EQ(walk(6), GetParam().delivered);
}

INSTANTIATE_TEST_SUITE_P(
    Filters, FeedDistanceFilter,
    ::testing::Values(FilterCase{"none", kDistanceFilterNone, {0, 1, 2, 3, 4, 5}},
                      FilterCase{"zero", 0.0, {0, 1, 2, 3, 4, 5}},
                      FilterCase{"m100", 100.0, {0, 2, 4}}, FilterCase{"m200", 200.0, {0, 4}},
                      FilterCase{"idle", 99999.0, {0}}),
    [](const auto& info) { return std::string(info.param.name); });

// The client's own pattern: coarse while idle, every fix while a sample is armed.
TEST_F(FeedLocationManagerTest, FollowsStartStopAndArmingAndDeliversOnlyOnTheMainQueue) {
  std::vector<double> filters;  // what the position source is told
  manager.setSettingsListener([&](const FeedSettings& s) { filters.push_back(s.distanceFilter); });
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
  manager.setDistanceFilter(99999.0);
  manager.startUpdatingLocation();  // already updating: forgets nothing
  EXPECT_FALSE(manager.pushLocation(north(120)));
  manager.stopUpdatingLocation();
  EXPECT_FALSE(manager.pushLocation(north(120)));
  manager.startUpdatingLocation();
  EXPECT_TRUE(manager.pushLocation(north(120))) << "a restart forgets the last fix";
  EXPECT_EQ(filters.size(), 7u);
  recorder.reset();  // a delegate that went away gets nothing, and nothing fails
  scheduler->runFor(1s);
}

TEST_F(FeedLocationManagerTest, RangingDeliversEachRangedRegionItsOwnBeacons) {
  auto beacon = [](std::string uuid, int minor) { return Beacon{std::move(uuid), 0, minor}; };
  const std::string a = "F7826DA6-4FA2-4E98-8024-BC5B71E0893E";
  const std::string b = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";
  const std::vector<Beacon> round = {beacon(a, 1), beacon(b, 2),
                                     beacon("f7826da6-4fa2-4e98-8024-bc5b71e0893e", 3),
                                     beacon("not-a-uuid", 4)};
  EXPECT_EQ(manager.pushBeacons(round), 0u) << "nothing is ranged yet";

  manager.startRangingBeacons({a, "first"});
  manager.startRangingBeacons({b, "second"});
  EXPECT_EQ(manager.pushBeacons(round), 2u);
  EXPECT_TRUE(recorder->ranged.empty());
  scheduler->runFor(0s);
  using Ranged = std::vector<std::pair<std::string, std::vector<int>>>;
  EXPECT_EQ(recorder->ranged, (Ranged{{"first", {1, 3}}, {"second", {2}}}));
  recorder->ranged.clear();

  // Same identifier replaces; stopping goes by identifier; an empty round is still a round.
  manager.startRangingBeacons({b, "first"});
  manager.stopRangingBeacons({a, "second"});
  manager.pushBeacons(round);
  manager.pushBeacons({});
  scheduler->runFor(0s);
  EXPECT_EQ(recorder->ranged, (Ranged{{"first", {2}}, {"first", {}}}));
}

TEST(DefaultPlatform, IsCompleteAndFeedsLocationsByDefault) {
  DefaultPlatformOptions options;
  options.storeDirectory = "/nonexistent/never-written";
  auto platform = defaultPlatform(options);
  EXPECT_TRUE(platform.complete());
  EXPECT_TRUE(std::dynamic_pointer_cast<FeedLocationManager>(platform.makeLocationManager()));
  EXPECT_FALSE(platform.device->systemVersion().empty());
  EXPECT_FALSE(platform.callStack->symbols().empty());
  std::dynamic_pointer_cast<ThreadDispatcher>(platform.dispatcher)->shutdown();
}

}  // namespace
}  // namespace zonaris::platform
