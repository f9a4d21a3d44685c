// Construction, configuration, start and stop as an application meets them.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/fake_location_manager.hpp"
#include "support/recording_delegate.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {
namespace {

using namespace std::chrono_literals;
using test::FakeLocationManager;
using test::RecordingDelegate;

class ClientLifecycle : public ::testing::Test {
 protected:
  explicit ClientLifecycle(std::string systemVersion = "17.0") {
    sim::SimulationOptions options;
    options.systemVersion = std::move(systemVersion);
    options.makeLocationManager = [this](const std::shared_ptr<sim::Scheduler>&) {
      manager = std::make_shared<FakeLocationManager>();
      return manager;
    };
    simulation = std::make_unique<sim::Simulation>(std::move(options));
  }

  std::shared_ptr<Zonaris> make(std::string key = "demo-key") {
    auto client = Zonaris::initWithAppKey(std::move(key), simulation->platform());
    client->setDevMode(true);
    return client;
  }

  static platform::Location fixAt(double lat, double lon) {
    platform::Location l;
    l.latitude = lat;
    l.longitude = lon;
    l.horizontalAccuracy = 5.0;
    l.timestamp = sim::defaultStartTime();
    return l;
  }

  std::unique_ptr<sim::Simulation> simulation;
  std::shared_ptr<FakeLocationManager> manager;
};

TEST_F(ClientLifecycle, ConstructionSetsTheDocumentedDefaults) {
  auto client = make("");
  ASSERT_TRUE(client);
  EXPECT_EQ(client->mAppKey(), "");
  EXPECT_EQ(client->mMinDist(), 1.7976931348623157e308);
  EXPECT_EQ(client->mAverageSpeed(), 28.0f);
  EXPECT_EQ(client->mSpeed(), 0.0f);
  ASSERT_TRUE(client->mFences());
  EXPECT_TRUE(client->mFences()->empty());
  ASSERT_TRUE(client->mBeacons());
  EXPECT_TRUE(client->mBeacons()->is_array());
  EXPECT_TRUE(client->mBeacons()->empty());
  EXPECT_TRUE(client->mCurrentBeacons().empty());
  EXPECT_FALSE(client->mUpdatingLocation());
  EXPECT_FALSE(client->mResetFences());
  EXPECT_FALSE(client->mBeaconEnabled());
  EXPECT_FALSE(client->mBeaconScanning());
  EXPECT_EQ(client->mInstallId(), 0);
  EXPECT_EQ(client->mSilenceStart(), 0);
  EXPECT_EQ(client->mSilenceStop(), 0);
  EXPECT_FALSE(client->mUUID());
  EXPECT_FALSE(client->mTags());
  EXPECT_FALSE(client->mBeaconRegion());
  EXPECT_FALSE(client->mInitLocation());
  EXPECT_FALSE(client->mCurrentLocation());
  EXPECT_FALSE(client->mDwellTimer());
  EXPECT_TRUE(client->mDelegate().expired());
  EXPECT_EQ(client->mLocationManager(), manager);
}

TEST_F(ClientLifecycle, InitWithAnIncompletePlatformYieldsNoClient) {
  auto platform = simulation->platform();
  platform.http.reset();
  EXPECT_FALSE(Zonaris::initWithAppKey("demo-key", platform));
}

struct VersionCase {
  const char* version;
  bool background;
  bool authorization;
};

class ClientOnSystemVersion : public ClientLifecycle,
                              public ::testing::WithParamInterface<VersionCase> {
 protected:
  ClientOnSystemVersion() : ClientLifecycle(GetParam().version) {}
};

TEST_P(ClientOnSystemVersion, ConfiguresTheLocationServiceInItsIdleSettingAndStartsIt) {
  auto client = make();
  std::vector<std::string> expected = {
      "setDelegate", "setPausesLocationUpdatesAutomatically(false)",
      "setDesiredAccuracy(ThreeKilometers)", "setDistanceFilter(99999)"};
  if (GetParam().background)
    expected.push_back("setAllowsBackgroundLocationUpdates(true)");
  if (GetParam().authorization)
    expected.push_back("requestAlwaysAuthorization");
  expected.push_back("startUpdatingLocation");
  EXPECT_EQ(manager->calls(), expected);
  EXPECT_EQ(manager->delegate(), client);
}

INSTANTIATE_TEST_SUITE_P(Versions, ClientOnSystemVersion,
                         ::testing::Values(VersionCase{"7.1", false, false},
                                           VersionCase{"8.4", false, true},
                                           VersionCase{"9.0", true, true},
                                           VersionCase{"9.3.5", true, true},
                                           VersionCase{"17.0", true, true}),
                         [](const auto& info) {
                           std::string name = std::string("v") + info.param.version;
                           std::replace(name.begin(), name.end(), '.', '_');
                           return name;
                         });

TEST_F(ClientLifecycle, StartWithoutAKeyOnlyLogsTheRefusal) {
  auto client = make("");
  manager->clearCalls();
  client->start();
  simulation->runFor(1min);
  EXPECT_EQ(simulation->logger().lines(),
            (std::vector<std::string>{"Zonaris started", "You haven't set APP key"}));
  EXPECT_TRUE(manager->calls().empty());
  EXPECT_FALSE(client->mUpdatingLocation());
  EXPECT_EQ(simulation->scheduler().tasksRun(), 0u);
}

TEST_F(ClientLifecycle, StartWithAStoredIdArmsASampleAtOnceWithoutRegistering) {
  ZonarisUserDefaults::setInstallId(simulation->store(), 42);
  auto client = make();
  manager->clearCalls();
  client->start();
  EXPECT_EQ(client->mInstallId(), 42);
  EXPECT_TRUE(client->mUpdatingLocation());
  EXPECT_EQ(manager->calls(), (std::vector<std::string>{"setDesiredAccuracy(BestForNavigation)",
                                                        "setDistanceFilter(None)"}));
  EXPECT_EQ(simulation->logger().lines(),
            (std::vector<std::string>{"Zonaris started", "Install ID is set - 42"}));
  EXPECT_EQ(simulation->scheduler().pending(), 0u);
}

class ClientWithoutId : public ClientLifecycle, public ::testing::WithParamInterface<long> {};

TEST_P(ClientWithoutId, StartRegistersOnANewThreadAndReturnsAtOnce) {
  if (GetParam() != 0)
    ZonarisUserDefaults::setInstallId(simulation->store(), GetParam());
  auto client = make();
  manager->clearCalls();
  client->start();
  EXPECT_EQ(client->mInstallId(), GetParam());
  EXPECT_FALSE(client->mUpdatingLocation());
  EXPECT_TRUE(manager->calls().empty());
  // The registration was handed to a new thread, not run inside start().
  EXPECT_EQ(simulation->scheduler().pending(), 1u);
  EXPECT_EQ(simulation->logger().lines(),
            (std::vector<std::string>{"Zonaris started", "Install ID is not set"}));
}

INSTANTIATE_TEST_SUITE_P(StoredIds, ClientWithoutId, ::testing::Values(0L, -5L),
                         [](const auto& info) { return info.param < 0 ? "negative" : "zero"; });

TEST_F(ClientLifecycle, StopSwitchesOffSamplingAndTheLocationServiceAndStartDoesNotRestartIt) {
  ZonarisUserDefaults::setInstallId(simulation->store(), 7);
  auto client = make();
  client->start();
  manager->clearCalls();
  client->stop();
  EXPECT_FALSE(client->mUpdatingLocation());
  EXPECT_EQ(manager->calls(), (std::vector<std::string>{"stopUpdatingLocation"}));
  client->start();
  EXPECT_TRUE(client->mUpdatingLocation());
  const auto calls = manager->calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "startUpdatingLocation"), 0);
}

TEST_F(ClientLifecycle, SetUUIDBuildsTheRegionAndRefusesTextThatIsNotAUUID) {
  auto client = make();
  EXPECT_TRUE(client->setUUID("f7826da6-4fa2-4e98-8024-bc5b71e0893e"));
  auto first = client->mBeaconRegion();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->uuid, "F7826DA6-4FA2-4E98-8024-BC5B71E0893E");
  EXPECT_EQ(first->identifier, "beacon_region");
  EXPECT_TRUE(first->notifyOnEntry && first->notifyOnExit && first->notifyEntryStateOnDisplay);
  EXPECT_EQ(client->mUUID(), "f7826da6-4fa2-4e98-8024-bc5b71e0893e");

  for (const char* bad : {"", "F7826DA6-4FA2-4E98-8024-BC5B71E0893"}) {
    EXPECT_FALSE(client->setUUID(bad)) << bad;
    EXPECT_EQ(client->mBeaconRegion(), first);
  }

  EXPECT_TRUE(client->setUUID("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"));
  EXPECT_EQ(client->mBeaconRegion()->uuid, "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
}

TEST_F(ClientLifecycle, TagsAreKeptByReference) {
  auto client = make();
  auto tags = std::make_shared<ZonarisTags>(nlohmann::json{{"tier", "gold"}});
  client->setTags(tags);
  tags->set("tier", "platinum");
  tags->set("age", 31);
  EXPECT_EQ(client->mTags()->snapshot(), (nlohmann::json{{"tier", "platinum"}, {"age", 31}}));
}

// The first accepted fix is the one callback the client core sends by itself; it exercises the
// delegate rule: weak reference, per-call test, nothing cached.
TEST_F(ClientLifecycle, DelegateRuleAbsentPartialReplacedAndReleased) {
  auto client = make();
  auto deliverFirstFix = [&] {
    client->setMInitLocation(nullptr);
    client->updateLocation();
    manager->delegate()->didUpdateLocations({fixAt(48.85, 2.35)});
  };

  deliverFirstFix();  // no delegate: nothing to send, nothing fails
  EXPECT_TRUE(client->mInitLocation());

  auto partial = std::make_shared<RecordingDelegate>(
      std::set<ZonarisCallback>{ZonarisCallback::eventEnterCallback});
  client->setDelegate(partial);
  deliverFirstFix();
  EXPECT_TRUE(partial->calls().empty());

  auto full = std::make_shared<RecordingDelegate>();
  client->setDelegate(full);
  deliverFirstFix();
  ASSERT_EQ(full->names(), (std::vector<std::string>{"updatedInitLocation"}));
  EXPECT_EQ(full->calls()[0]["args"][0]["latitude"], 48.85);

  std::weak_ptr<RecordingDelegate> watch = full;
  full.reset();
  EXPECT_TRUE(watch.expired()) << "the client must not keep its delegate alive";
  deliverFirstFix();
}

TEST(InstallIdStore, RoundTripAndMissingValue) {
  sim::MemoryStore store;
  EXPECT_EQ(ZonarisUserDefaults::getInstallId(store), 0);
  ZonarisUserDefaults::setInstallId(store, 42);
  EXPECT_EQ(ZonarisUserDefaults::getInstallId(store), 42);
  ZonarisUserDefaults::setInstallId(store, 0);
  EXPECT_EQ(ZonarisUserDefaults::getInstallId(store), 0);
}

}  // namespace
}  // namespace zonaris
