// The fence state machine end to end: a replayed trip, real passes, observations to a local
// server that answers with scripted confirmations, and the callbacks the application receives.
// Then the same paths overlapping on the production dispatcher's threads.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "fence_fixture.hpp"
#include "zonaris/platform/production.hpp"

namespace zonaris {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

json event(const char* type, json data = nullptr) {
  return {{"location_id", 11}, {"event_type", type}, {"data", data}};
}

using FenceJourney = test::FenceFixture;

// A square fence east of the device's start: outside for 100 s (about 220 m west of it), 140 s
// inside, then out again; the two places are within 1000 m, so the catalogue is kept. The n-th
// observation is answered with the n-th list of events.
TEST_F(FenceJourney, EntryWithAMessageThenDwellThenExit) {
  server.respond("GET", "/install/location", {200, R"j([{"id": 11, "name": "Office",
      "type": "polygon", "radius": 0, "_event_types": ["entry", "exit", "dwell"],
      "location": "POLYGON ((0.01 0, 0.02 0, 0.02 0.01, 0.01 0.01, 0.01 0))",
      "_dwell_windows": [30]}])j"});
  const json welcome = {{"zr:msg:title", "Welcome"},
                        {"zr:msg:body", "Hello"},
                        {"zr:msg:image_url", "http://img"},
                        {"coupon", "A1"}};
  answerObservationsWith(
      {json::array(), {event("entry", welcome)}, {event("dwell")}, {event("exit")}});
  // The application hears only of events and messages here.
  delegate = std::make_shared<test::RecordingDelegate>(std::set<ZonarisCallback>{
      ZonarisCallback::eventEnterCallback, ZonarisCallback::eventExitCallback,
      ZonarisCallback::eventDwellCallback, ZonarisCallback::actionBasicCallback,
      ZonarisCallback::actionDataCallback});
  boot(std::make_shared<const sim::Trace>(sim::Trace::parseCsv(
      "0,0.005,0.008\n100,0.005,0.008\n101,0.005,0.012\n240,0.005,0.012\n241,0.005,0.008\n",
      "trip.csv")));
  client->start();
  simulation->runFor(400s);

  // One entry yields both action callbacks, right after the entry and in this order.
  const auto call = [](const char* name, json arg) {
    return json{{"name", name}, {"args", json::array({arg})}};
  };
  EXPECT_EQ(delegate->calls(),
            (std::vector<json>{
                call("eventEnterCallback", "Office"),
                call("actionBasicCallback",
                     {{"title", "Welcome"}, {"body", "Hello"}, {"url", "http://img"}}),
                call("actionDataCallback", {{"coupon", "A1"}}),
                call("eventDwellCallback", "Office"), call("eventExitCallback", "Office")}));
  // One observation for the new catalogue, then one per disagreement and no more: the
  // confirmations bring the flags back in line with what the passes see.
  std::vector<bool> inside;
  for (const auto& request : server.requests("POST", "/observation"))
    inside.push_back(json::parse(request.body)["gps"]["longitude"].get<double>() > 0.01);
  EXPECT_EQ(inside, (std::vector<bool>{false, true, true, false}));
  EXPECT_FALSE(client->mFences()->at(0)->entered());
  EXPECT_FALSE(client->mResetFences());
}

// Meant for the ThreadSanitizer build: every field these paths share must be atomic or
// guarded, and a pass must keep walking the catalogue it started with.
TEST_F(FenceJourney, PassesTicksConfirmationsAndReloadsOverlapSafelyOnRealThreads) {
  // Every answer confirms something, so answer threads write the same flags passes read.
  answerObservationsWith({json::array({event("entry"), event("dwell"), event("exit")})});
  auto dispatcher = std::make_shared<platform::ThreadDispatcher>();
  boot(nullptr, dispatcher);
  const std::vector<test::FenceDef> catalogue = {
      {11, "Square", "polygon", "POLYGON ((-1 -1, 1 -1, 1 1, -1 1, -1 -1))", 0.0f, {0, 2, 5}},
      {12, "Near", "point", test::pointNorthOfOrigin(40), 100.0f, {1}},
      {13, "Tag", "beacon", test::pointNorthOfOrigin(90), 0.0f, {}},
      {14, "Broken", "polygon", "POLYGON ((", 0.0f, {}}};
  placeDevice();
  publish(catalogue);
  client->setMResetFences(true);
  client->startDwellTimer();
  constexpr int kPasses = 12;
  for (int i = 0; i < kPasses; ++i) {
    dispatcher->detach([c = client] { c->handleFences(); });
    dispatcher->detach([c = client] {
      for (int n = 0; n < 50; ++n) {
        c->updateDwellTimes();
        (void)c->getTimeBeforeDwell();
      }
    });
    dispatcher->detach([c = client, i] {
      c->confirmEventFor(11 + i % 3, i % 2 ? "entry" : "exit");
      c->confirmEventFor(12, "dwell");
    });
  }
  // Meanwhile the catalogue is replaced and the timer restarted, as a download does.
  for (int i = 0; i < 20; ++i) {
    client->stopDwellTimer();
    publish(catalogue);
    client->setMResetFences(true);
    client->startDwellTimer();
  }
  ASSERT_TRUE(dispatcher->waitForDetachedTasks(60s));
  client->stopDwellTimer();
  dispatcher->shutdown();

  // Every pass measured a whole catalogue: the unreadable fence never lowered the minimum
  // below the depth inside the square (the device stands at its centre).
  const auto distances = delegate->calls("updatedDistanceToNearestFence");
  ASSERT_EQ(distances.size(), static_cast<std::size_t>(kPasses));
  for (const auto& args : distances) {
    EXPECT_TRUE(args[1].get<bool>());
    EXPECT_LT(args[0].get<double>(), 100.0);
  }
}

}  // namespace
}  // namespace zonaris
