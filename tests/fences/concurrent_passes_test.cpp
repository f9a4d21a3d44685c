// Overlapping passes, dwell ticks, confirmations and catalogue replacements on real threads.
// The point of this test is the ThreadSanitizer build: every field these paths share must be
// atomic or guarded, and a pass must keep walking the catalogue it started with.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "fence_fixture.hpp"
#include "zonaris/platform/production.hpp"

namespace zonaris {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

FenceList freshCatalogue() {
  FenceList list;
  list.push_back(test::makeFence(
      {1, "Square", "polygon", "POLYGON ((-1 -1, 1 -1, 1 1, -1 1, -1 -1))", 0.0f, {0, 2, 5}}));
  list.push_back(test::makeFence({2, "Near", "point", test::pointNorthOfOrigin(40), 100.0f, {1}}));
  list.push_back(test::makeFence({3, "Tag", "beacon", test::pointNorthOfOrigin(90), 0.0f, {}}));
  list.push_back(test::makeFence({4, "Broken", "polygon", "POLYGON ((", 0.0f, {}}));
  return list;
}

TEST(ConcurrentFenceWork, PassesTicksConfirmationsAndReloadsOverlapSafely) {
  test::RecordingServer server;
  server.respond("POST", "/install/error", {200, "{}"});
  // Every answer confirms something, so answer threads write the same flags passes read.
  server.respond("POST", "/observation",
                 {200, json{{"id", 1},
                            {"events",
                             {{{"location_id", 1}, {"event_type", "entry"}},
                              {{"location_id", 2}, {"event_type", "dwell"}},
                              {{"location_id", 1}, {"event_type", "exit"}}}}}
                           .dump()});

  auto dispatcher = std::make_shared<platform::ThreadDispatcher>();
  sim::SimulationOptions options;
  options.baseUrl = server.baseUrl();
  options.makeLocationManager = [](const std::shared_ptr<sim::Scheduler>&) {
    return std::make_shared<test::FakeLocationManager>();
  };
  sim::Simulation simulation(std::move(options));
  auto platform = simulation.platform();
  platform.dispatcher = dispatcher;

  auto delegate = std::make_shared<test::RecordingDelegate>(std::set<ZonarisCallback>{
      ZonarisCallback::updatedDistanceToNearestFence, ZonarisCallback::eventEnterCallback});
  {
    auto client = Zonaris::initWithAppKey("demo-key", platform);
    ASSERT_TRUE(client);
    client->setDelegate(delegate);
    client->setUUID("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
    auto here = std::make_shared<platform::Location>();
    client->setMCurrentLocation(here);
    client->setMFences(std::make_shared<const FenceList>(freshCatalogue()));
    client->setMResetFences(true);
    client->startDwellTimer();

    constexpr int kPasses = 12;
    for (int i = 0; i < kPasses; ++i) {
      dispatcher->detach([client] { client->handleFences(); });
      dispatcher->detach([client] {
        for (int n = 0; n < 50; ++n) {
          client->updateDwellTimes();
          (void)client->getTimeBeforeDwell();
        }
      });
      dispatcher->detach([client, i] {
        client->confirmEventFor(1 + i % 3, i % 2 ? "entry" : "exit");
        client->confirmEventFor(2, "dwell");
      });
    }
    // Meanwhile the catalogue is replaced and the timer restarted, as a download does.
    for (int i = 0; i < 20; ++i) {
      client->stopDwellTimer();
      client->setMFences(std::make_shared<const FenceList>(freshCatalogue()));
      client->setMResetFences(true);
      client->startDwellTimer();
    }
    ASSERT_TRUE(dispatcher->waitForDetachedTasks(60s));
    client->stopDwellTimer();
    EXPECT_FALSE(client->mDwellTimer());

    // Every pass saw a non-empty catalogue and measured it whole: the unreadable fence never
    // lowered the minimum below the depth inside the square (the device stands at its centre).
    const auto distances = delegate->calls("updatedDistanceToNearestFence");
    EXPECT_EQ(distances.size(), static_cast<std::size_t>(kPasses));
    for (const auto& args : distances) {
      EXPECT_TRUE(args[1].get<bool>());
      EXPECT_LT(args[0].get<double>(), 100.0);
    }
  }
  dispatcher->shutdown();
}

}  // namespace
}  // namespace zonaris
