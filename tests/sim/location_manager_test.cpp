// The simulated location service as a client meets it: what it delivers, when, and what it
// holds on to.
#include "zonaris/sim/location_manager.hpp"

#include <gtest/gtest.h>

#include <utility>

#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::sim {
namespace {

using namespace std::chrono_literals;

// Records when each fix and each ranging result arrived (virtual seconds since the start).
class RecordingListener final : public platform::LocationManagerDelegate {
 public:
  explicit RecordingListener(const Scheduler& scheduler) : scheduler_(scheduler) {}
  void didUpdateLocations(const std::vector<platform::Location>& locations) override {
    fixTimes.push_back(seconds());
    last = locations.at(0);
  }
  void didRangeBeacons(const std::vector<platform::Beacon>& beacons,
                       const platform::BeaconRegion&) override {
    rangings.emplace_back(seconds(), beacons.size());
  }
  std::vector<double> fixTimes;
  platform::Location last;
  std::vector<std::pair<double, std::size_t>> rangings;  // time, number of beacons

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
  scheduler->runFor(10s);  // only where the device is when updates begin
  fine();
  scheduler->runFor(3500ms);
  fine();  // setting it again restarts the rhythm: one second later, not at 14
  scheduler->runFor(2s);
  EXPECT_EQ(listener->fixTimes, (std::vector<double>{1, 11, 12, 13, 14.5, 15.5}));
  EXPECT_DOUBLE_EQ(listener->last.latitude, 45.0 + 0.001 * 15.5 / 100.0);
  EXPECT_EQ(listener->last.horizontalAccuracy, 6.0);
  EXPECT_NEAR(listener->last.speed, 1.11, 0.01);
  EXPECT_EQ(listener->last.timestamp, scheduler->start() + 15500ms);

  manager->stopUpdatingLocation();
  fine();  // a setting made while stopped starts nothing
  scheduler->runFor(60s);
  EXPECT_EQ(listener->fixTimes.size(), 6u);
}

TEST_F(SimLocationManagerTest, CoarseSettingDeliversOnlyAfterMovingFartherThanTheFilter) {
  coarse(50.0);
  manager->startUpdatingLocation();
  // About 1.111 m/s north: 50 m beyond the fix at 1 s is passed after 45 s (50.01 m), and so
  // on. The trace ends at 100 s, 10 m further: standing still, the device gets nothing more.
  scheduler->runFor(1000s);
  EXPECT_EQ(listener->fixTimes, (std::vector<double>{1, 46, 91}));
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
  scheduler->runFor(5500ms);
  manager->stopRangingBeacons(region);
  scheduler->runFor(10s);
  EXPECT_EQ(listener->rangings,
            (std::vector<std::pair<double, std::size_t>>{{1, 0}, {2, 1}, {3, 1}, {4, 0}, {5, 0}}));
  EXPECT_TRUE(listener->fixTimes.empty());
}

TEST(SimLocationManagerLifetime, PendingTicksHoldNeitherTheClientNorTheManager) {
  Simulation simulation;
  std::weak_ptr<Zonaris> weakClient;
  {
    auto client = Zonaris::initWithAppKey("key", simulation.platform());
    ASSERT_TRUE(client);
    weakClient = client;
    ASSERT_TRUE(simulation.simLocationManager()->updating());
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
