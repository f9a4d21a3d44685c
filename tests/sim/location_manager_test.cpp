// The simulated location service as a client meets it: what it delivers, when, and what it
// holds on to.
#include "zonaris/sim/location_manager.hpp"

#include <gtest/gtest.h>

#include <mutex>

#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::sim {
namespace {

using namespace std::chrono_literals;

class RecordingListener final : public platform::LocationManagerDelegate {
 public:
  struct Fix {
    double at;  // virtual seconds since the start
    platform::Location location;
  };
  struct Ranging {
    double at;
    std::vector<platform::Beacon> beacons;
    std::string identifier;
  };

  explicit RecordingListener(const Scheduler& scheduler) : scheduler_(scheduler) {}

  void didUpdateLocations(const std::vector<platform::Location>& locations) override {
    ASSERT_EQ(locations.size(), 1u);
    fixes.push_back({seconds(), locations[0]});
    if (onFix)
      onFix();
  }
  void didRangeBeacons(const std::vector<platform::Beacon>& beacons,
                       const platform::BeaconRegion& region) override {
    rangings.push_back({seconds(), beacons, region.identifier});
  }
  std::vector<double> fixTimes() const {
    std::vector<double> out;
    for (const auto& f : fixes)
      out.push_back(f.at);
    return out;
  }

  std::vector<Fix> fixes;
  std::vector<Ranging> rangings;
  std::function<void()> onFix;

 private:
  double seconds() const { return std::chrono::duration<double>(scheduler_.elapsed()).count(); }
  const Scheduler& scheduler_;
};

class SimLocationManagerTest : public ::testing::Test {
 protected:
  SimLocationManagerTest() {
    // Due north at about 1.1 m/s for 100 s (0.001 degree of latitude is about 110.6 m).
    manager->setTrace(
        std::make_shared<const Trace>(Trace::parseCsv("0,45,7,6\n100,45.001,7,6\n", "north.csv")));
    manager->setDelegate(listener);
  }

  void fine() {
    manager->setDesiredAccuracy(platform::Accuracy::BestForNavigation);
    manager->setDistanceFilter(platform::kDistanceFilterNone);
  }
  void coarse(double filter) {
    manager->setDesiredAccuracy(platform::Accuracy::ThreeKilometers);
    manager->setDistanceFilter(filter);
  }

  std::shared_ptr<Scheduler> scheduler = std::make_shared<Scheduler>(defaultStartTime());
  std::shared_ptr<SimLocationManager> manager = std::make_shared<SimLocationManager>(scheduler);
  std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>(*scheduler);
};

TEST_F(SimLocationManagerTest, FullAccuracyDeliversEverySecondFromOneSecondAfterTheSetting) {
  coarse(99999.0);
  manager->startUpdatingLocation();
  scheduler->runFor(10s);
  ASSERT_EQ(listener->fixTimes(), std::vector<double>{1.0});  // where the device is at start
  fine();
  scheduler->runFor(3500ms);
  EXPECT_EQ(listener->fixTimes(), (std::vector<double>{1.0, 11.0, 12.0, 13.0}));

  // Setting it again restarts the rhythm: one second after the new setting, not at 14.
  fine();
  scheduler->runFor(3s);
  EXPECT_EQ(listener->fixTimes(), (std::vector<double>{1.0, 11.0, 12.0, 13.0, 14.5, 15.5, 16.5}));

  const auto& fix = listener->fixes.back();
  EXPECT_DOUBLE_EQ(fix.location.latitude, 45.0 + 0.001 * 16.5 / 100.0);
  EXPECT_EQ(fix.location.longitude, 7.0);
  EXPECT_EQ(fix.location.horizontalAccuracy, 6.0);
  EXPECT_NEAR(fix.location.speed, 1.11, 0.01);
  EXPECT_EQ(fix.location.timestamp, scheduler->start() + 16500ms);
  EXPECT_EQ(manager->fixesDelivered(), 7u);
}

TEST_F(SimLocationManagerTest, CoarseSettingDeliversOnlyAfterMovingFartherThanTheFilter) {
  coarse(50.0);
  manager->startUpdatingLocation();
  scheduler->runFor(100s);
  // About 1.111 m/s north: 50 m beyond the fix at 1 s is passed after 45 s (50.01 m), and 50 m
  // beyond that one 45 s later.
  EXPECT_EQ(listener->fixTimes(), (std::vector<double>{1.0, 46.0, 91.0}));
  // The trace ends at 100 s, 10 m further: a device standing still gets nothing more.
  scheduler->runFor(1000s);
  EXPECT_EQ(listener->fixes.size(), 3u);
}

TEST_F(SimLocationManagerTest, DeliversNothingWhenStoppedAndNothingFromASettingMadeWhileStopped) {
  manager->startUpdatingLocation();
  fine();
  scheduler->runFor(2s);
  ASSERT_EQ(listener->fixes.size(), 2u);
  manager->stopUpdatingLocation();
  fine();
  scheduler->runFor(60s);
  EXPECT_EQ(listener->fixes.size(), 2u);
  EXPECT_FALSE(manager->updating());

  manager->startUpdatingLocation();
  scheduler->runFor(2s);
  EXPECT_EQ(listener->fixTimes(), (std::vector<double>{1.0, 2.0, 63.0, 64.0}));
}

TEST_F(SimLocationManagerTest, ADelegateThatChangesTheSettingInItsCallbackGetsOneFix) {
  // What the client does: arm, take the first fix, go back to idle from inside the callback.
  listener->onFix = [this] { coarse(99999.0); };
  manager->startUpdatingLocation();
  fine();
  fine();  // armed twice at the same instant: still one rhythm
  scheduler->runFor(30s);
  EXPECT_EQ(listener->fixTimes(), std::vector<double>{1.0});
}

TEST_F(SimLocationManagerTest, RangesEverySecondIncludingEmptyScansUntilStopped) {
  manager->setBeaconSightings(std::make_shared<const BeaconSightings>(
      BeaconSightings::parseCsv("2,4,b9407f30-f5f8-466e-aff8-25556b57fe6d,1,2,0.5,1\n"
                                "0,100,11111111-2222-3333-4444-555555555555,7,7,3.0,3\n",
                                "beacons.csv")));
  platform::BeaconRegion region;
  region.uuid = "B9407F30-F5F8-466E-AFF8-25556B57FE6D";
  region.identifier = "beacon_region";
  manager->startRangingBeacons(region);
  manager->startRangingBeacons(region);  // already ranged: no second rhythm
  EXPECT_EQ(manager->rangedRegions(), std::vector<std::string>{region.uuid});
  scheduler->runFor(5500ms);
  manager->stopRangingBeacons(region);
  scheduler->runFor(10s);

  ASSERT_EQ(listener->rangings.size(), 5u);
  for (std::size_t i = 0; i < 5; ++i) {
    const auto& r = listener->rangings[i];
    EXPECT_EQ(r.at, static_cast<double>(i + 1));
    EXPECT_EQ(r.identifier, "beacon_region");
    const bool visible = r.at >= 2 && r.at < 4;
    ASSERT_EQ(r.beacons.size(), visible ? 1u : 0u) << "at " << r.at;
    if (visible) {
      EXPECT_EQ(r.beacons[0].major, 1);
      EXPECT_EQ(r.beacons[0].minor, 2);
    }
  }
  EXPECT_TRUE(manager->rangedRegions().empty());
  EXPECT_TRUE(listener->fixes.empty());
}

TEST(SimLocationManagerLifetime, PendingTicksHoldNeitherTheClientNorTheManager) {
  Simulation simulation;
  std::weak_ptr<Zonaris> weakClient;
  {
    auto client = Zonaris::initWithAppKey("key", simulation.platform());
    ASSERT_TRUE(client);
    weakClient = client;
    ASSERT_TRUE(simulation.simLocationManager());
    EXPECT_TRUE(simulation.simLocationManager()->updating());
    EXPECT_GT(simulation.scheduler().pending(), 0u);  // the manager's rhythm is queued
  }
  EXPECT_TRUE(weakClient.expired());
  simulation.runFor(5s);  // the ticks find no delegate and deliver nothing

  std::weak_ptr<SimLocationManager> weakManager;
  {
    auto scheduler = std::make_shared<Scheduler>(defaultStartTime());
    auto manager = std::make_shared<SimLocationManager>(scheduler);
    manager->startUpdatingLocation();
    weakManager = manager;
    scheduler->clear();
    EXPECT_EQ(scheduler->pending(), 0u);
  }
  EXPECT_TRUE(weakManager.expired());
}

}  // namespace
}  // namespace zonaris::sim
