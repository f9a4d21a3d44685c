// Construction, configuration, start and stop as an application meets them.
#include <gtest/gtest.h>

#include "capi/bridge.hpp"
#include "support/fake_location_manager.hpp"
#include "support/recording_delegate.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {
namespace {

using namespace std::chrono_literals;
using test::FakeLocationManager;
using test::RecordingDelegate;
using Lines = std::vector<std::string>;

class ClientLifecycle : public ::testing::Test {
 protected:
  ClientLifecycle() { boot(); }

  /// A new simulation on a device with this system version.
  void boot(std::string systemVersion = "17.0") {
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

  std::unique_ptr<sim::Simulation> simulation;
  std::shared_ptr<FakeLocationManager> manager;
};

TEST_F(ClientLifecycle, InitWithAnIncompletePlatformYieldsNoClient) {
  auto platform = simulation->platform();
  platform.http.reset();
  EXPECT_FALSE(Zonaris::initWithAppKey("demo-key", platform));
}

// Background updates are allowed from system version 9, always-authorization is asked from 8.
TEST_F(ClientLifecycle, ConfiguresTheLocationServiceInItsIdleSettingAndStartsIt) {
  struct Row {
    const char* version;
    bool background = true, authorization = true;
  };
  const Row rows[] = {{.version = "7.1", .background = false, .authorization = false},
                      {.version = "8.4", .background = false},
                      {.version = "9.0"},
                      {.version = "9.3.5"},
                      {.version = "17.0"}};
  for (const auto& [version, background, authorization] : rows) {
    boot(version);
    auto client = make();
    Lines expected = {"setDelegate", "setPausesLocationUpdatesAutomatically(false)",
                      "setDesiredAccuracy(ThreeKilometers)", "setDistanceFilter(99999)"};
    if (background)
      expected.push_back("setAllowsBackgroundLocationUpdates(true)");
    if (authorization)
      expected.push_back("requestAlwaysAuthorization");
    expected.push_back("startUpdatingLocation");
    EXPECT_EQ(manager->calls(), expected) << version;
    EXPECT_EQ(manager->delegate(), client) << version;
  }
}

TEST_F(ClientLifecycle, StartWithoutAKeyOnlyLogsTheRefusal) {
  auto client = make("");
  manager->clearCalls();
  client->start();
  simulation->runFor(1min);
  EXPECT_EQ(simulation->logger().lines(), (Lines{"Zonaris started", "You haven't set APP key"}));
  EXPECT_TRUE(manager->calls().empty());
  EXPECT_FALSE(client->mUpdatingLocation());
  EXPECT_EQ(simulation->scheduler().tasksRun(), 0u);
}

// A stored id above 0 arms a sample at once; otherwise registration is handed to a new thread,
// not run inside start(). A stop switches sampling and the location service off; a start then
// samples again without restarting the service.
TEST_F(ClientLifecycle, StartSamplesWithAStoredIdOrRegistersOnANewThreadAndStopSwitchesOff) {
  for (const long stored : {42L, 0L, -5L}) {
    boot();
    if (stored != 0)
      ZonarisUserDefaults::setInstallId(simulation->store(), stored);
    auto client = make();
    manager->clearCalls();
    client->start();
    const bool known = stored > 0;
    EXPECT_EQ(client->mInstallId(), stored);
    EXPECT_EQ(client->mUpdatingLocation(), known);
    const Lines sampling = {"setDesiredAccuracy(BestForNavigation)", "setDistanceFilter(None)"};
    EXPECT_EQ(manager->calls(), known ? sampling : Lines());
    EXPECT_EQ(
        simulation->logger().lines(),
        (Lines{"Zonaris started", known ? "Install ID is set - 42" : "Install ID is not set"}));
    EXPECT_EQ(simulation->scheduler().pending(), known ? 0u : 1u) << stored;
    if (!known)
      continue;
    manager->clearCalls();
    client->stop();
    EXPECT_FALSE(client->mUpdatingLocation());
    client->start();
    EXPECT_TRUE(client->mUpdatingLocation());
    EXPECT_EQ(manager->calls(), (Lines{"stopUpdatingLocation", sampling[0], sampling[1]}));
  }
}

TEST_F(ClientLifecycle, SetUUIDBuildsTheRegionAndRefusesTextThatIsNotAUUID) {
  auto client = make();
  EXPECT_TRUE(client->setUUID("f7826da6-4fa2-4e98-8024-bc5b71e0893e"));
  auto first = client->mBeaconRegion();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->uuid, "F7826DA6-4FA2-4E98-8024-BC5B71E0893E");
  EXPECT_EQ(client->mUUID(), "f7826da6-4fa2-4e98-8024-bc5b71e0893e");

  for (const char* bad : {"", "F7826DA6-4FA2-4E98-8024-BC5B71E0893"}) {
    EXPECT_FALSE(client->setUUID(bad)) << bad;
    EXPECT_EQ(client->mBeaconRegion(), first);
  }

  EXPECT_TRUE(client->setUUID("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"));
  EXPECT_EQ(client->mBeaconRegion()->uuid, "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
}

// The first accepted fix is the one callback the client core sends by itself; it exercises the
// delegate rule: weak reference, per-call test, nothing cached.
TEST_F(ClientLifecycle, DelegateRuleAbsentPartialReplacedAndReleased) {
  auto client = make();
  auto deliverFirstFix = [&] {
    client->setMInitLocation(nullptr);
    client->updateLocation();
    manager->delegate()->didUpdateLocations({{48.85, 2.35, -1.0, 5.0, sim::defaultStartTime()}});
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
  ASSERT_EQ(full->names(), (Lines{"updatedInitLocation"}));
  EXPECT_EQ(full->calls()[0]["args"][0]["latitude"], 48.85);

  // Replaced between the question and the call (another thread's setDelegate): the delegate
  // that was asked is the one called, never one that said no.
  struct Replaced : RecordingDelegate {
    mutable std::function<void()> onAsk;
    bool respondsTo(ZonarisCallback callback) const override {
      if (auto ask = std::exchange(onAsk, nullptr))
        ask();
      return RecordingDelegate::respondsTo(callback);
    }
  };
  auto asked = std::make_shared<Replaced>();
  asked->onAsk = [&] { client->setDelegate(partial); };
  client->setDelegate(asked);
  deliverFirstFix();
  EXPECT_EQ(asked->names(), (Lines{"updatedInitLocation"}));
  EXPECT_TRUE(partial->calls().empty());
  // The C API's delegate checks each pointer itself too: an empty struct is never called.
  capi::CallbackDelegate empty(zonaris_callbacks{}, nullptr);
  empty.updatedInitLocation({});
  empty.updatedSpeed(1.0f);
  empty.eventEnterCallback("Home");
  EXPECT_FALSE(empty.logLine("line"));

  std::weak_ptr<RecordingDelegate> watch = full;
  full.reset();
  EXPECT_TRUE(watch.expired()) << "the client must not keep its delegate alive";
  deliverFirstFix();
}

}  // namespace
}  // namespace zonaris
