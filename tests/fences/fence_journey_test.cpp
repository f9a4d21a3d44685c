// The fence state machine end to end: a replayed trip, real passes, observations to a local
// server that confirms events, and the callbacks the application receives.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/recording_delegate.hpp"
#include "support/recording_server.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/sim/trace.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

// A square fence east of the device's start; (0.005, 0.008) is about 220 m west of it and
// (0.005, 0.012) inside. Both stay within 1000 m of each other, so the catalogue is kept.
constexpr const char* kSquare = "POLYGON ((0.01 0, 0.02 0, 0.02 0.01, 0.01 0.01, 0.01 0))";
constexpr const char* kOutside = "0.005,0.008";
constexpr const char* kInside = "0.005,0.012";

// What the test's service knows of one observation.
struct Seen {
  double t;        // virtual seconds
  bool inside;     // where the observation says the device is
  bool confirmed;  // whether the service had confirmed an entry before this one
  int index;       // 0 for the first observation
};

using Decide = std::function<json(const Seen&)>;

// Confirms what an observation shows, as the service would: entry when first inside, exit
// when outside again, dwell when inside after an entry.
json followTheDevice(const Seen& seen) {
  if (seen.inside && !seen.confirmed)
    return {{{"location_id", 11},
             {"event_type", "entry"},
             {"data",
              {{"zr:msg:title", "Welcome"},
               {"zr:msg:body", "Hello"},
               {"zr:msg:image_url", "http://img"},
               {"coupon", "A1"}}}}};
  if (seen.inside)
    return {{{"location_id", 11}, {"event_type", "dwell"}}};
  if (seen.confirmed)
    return {{{"location_id", 11}, {"event_type", "exit"}}};
  return json::array();
}

class FenceJourney : public ::testing::Test {
 protected:
  void run(const std::string& csv, double seconds, std::vector<int> windows, Decide decide) {
    json fence = {{"id", 11},
                  {"name", "Office"},
                  {"type", "polygon"},
                  {"location", kSquare},
                  {"radius", 0},
                  {"_event_types", {"entry", "exit", "dwell"}},
                  {"_dwell_windows", windows}};
    server.respond("GET", "/install/location", {200, json::array({fence}).dump()});
    server.respond("POST", "/install/error", {200, "{}"});
    server.on("POST", "/observation", [this, decide](const test::RecordedRequest& request) {
      const json body = json::parse(request.body);
      const double lon = body["gps"]["longitude"];
      std::lock_guard lock(mutex_);
      Seen seen{simulation->elapsedSeconds(), lon > 0.01, confirmedEntry_, int(seen_.size())};
      seen_.push_back(seen);
      const json events = decide(seen);
      for (const auto& event : events) {
        if (event["event_type"] == "entry")
          confirmedEntry_ = true;
        if (event["event_type"] == "exit")
          confirmedEntry_ = false;
      }
      return test::ScriptedResponse{200, json{{"id", seen.index + 1}, {"events", events}}.dump()};
    });

    sim::SimulationOptions options;
    options.baseUrl = server.baseUrl();
    options.trace = std::make_shared<const sim::Trace>(sim::Trace::parseCsv(csv, "trip.csv"));
    simulation = std::make_unique<sim::Simulation>(std::move(options));
    ZonarisUserDefaults::setInstallId(simulation->store(), 7);
    client = Zonaris::initWithAppKey("demo-key", simulation->platform());
    client->setDelegate(delegate);
    client->setDevMode(true);
    client->start();
    simulation->runFor(
        std::chrono::duration_cast<platform::Duration>(std::chrono::duration<double>(seconds)));
  }

  void TearDown() override {
    if (HasFailure() && simulation) {
      for (const auto& line : simulation->logger().lines())
        std::cerr << line << "\n";
    }
    if (client)
      client->stopDwellTimer();
    if (simulation)
      simulation->scheduler().clear();
  }

  std::vector<std::string> events() const {
    std::vector<std::string> out;
    for (const auto& name : delegate->names()) {
      if (name.rfind("event", 0) == 0 || name.rfind("action", 0) == 0)
        out.push_back(name);
    }
    return out;
  }
  std::vector<Seen> seen() {
    std::lock_guard lock(mutex_);
    return seen_;
  }
  std::shared_ptr<ZonarisFence> office() const { return client->mFences()->at(0); }

  test::RecordingServer server;
  std::unique_ptr<sim::Simulation> simulation;
  std::shared_ptr<test::RecordingDelegate> delegate = std::make_shared<test::RecordingDelegate>();
  std::shared_ptr<Zonaris> client;

 private:
  std::mutex mutex_;
  std::vector<Seen> seen_;
  bool confirmedEntry_ = false;
};

std::string trip(std::vector<std::pair<int, const char*>> stops) {
  std::string csv = "t,lat,lon\n";
  for (const auto& [t, where] : stops)
    csv += std::to_string(t) + "," + where + "\n";
  return csv;
}

TEST_F(FenceJourney, EntryWithAMessageThenDwellThenExit) {
  run(trip({{0, kOutside}, {100, kOutside}, {101, kInside}, {240, kInside}, {241, kOutside}}), 400,
      {30}, followTheDevice);

  EXPECT_EQ(events(), (std::vector<std::string>{"eventEnterCallback", "actionBasicCallback",
                                                "actionDataCallback", "eventDwellCallback",
                                                "eventExitCallback"}));
  EXPECT_EQ(delegate->calls("actionBasicCallback").at(0)[0],
            (json{{"title", "Welcome"}, {"body", "Hello"}, {"url", "http://img"}}));
  EXPECT_EQ(delegate->calls("actionDataCallback").at(0)[0], (json{{"coupon", "A1"}}));
  EXPECT_EQ(delegate->calls("eventEnterCallback").at(0)[0], "Office");

  // One observation for the new catalogue, then one per disagreement and no more: the
  // confirmations bring the flags back in line with what the passes see.
  const auto observed = seen();
  ASSERT_EQ(observed.size(), 4u);
  EXPECT_FALSE(observed[0].inside);
  EXPECT_TRUE(observed[1].inside);
  EXPECT_TRUE(observed[2].inside);
  EXPECT_GE(observed[2].t - observed[1].t, 30.0);  // the dwell waited for its window
  EXPECT_FALSE(observed[3].inside);
  EXPECT_FALSE(office()->entered());
  EXPECT_FALSE(client->mResetFences());
}

TEST_F(FenceJourney, ReturningBeforeTheExitIsConfirmedCancelsIt) {
  // This service is slow to believe exits: it never confirms one.
  auto noExits = [](const Seen& seen) {
    return seen.inside && !seen.confirmed ? followTheDevice(seen) : json::array();
  };
  run(trip({{0, kInside}, {60, kInside}, {61, kOutside}, {80, kOutside}, {81, kInside}}), 300, {},
      noExits);

  EXPECT_EQ(events(), (std::vector<std::string>{"eventEnterCallback", "actionBasicCallback",
                                                "actionDataCallback"}));
  const auto observed = seen();
  ASSERT_GE(observed.size(), 2u);
  // The reload's observation (the fence entered locally) got the entry confirmed; after it
  // only the passes outside asked for an exit, and back inside nothing more was asked.
  EXPECT_TRUE(observed[0].inside);
  for (std::size_t i = 1; i < observed.size(); ++i)
    EXPECT_FALSE(observed[i].inside) << "observation " << i;
  EXPECT_LT(observed.back().t, 100.0);
  EXPECT_TRUE(office()->entered());
}

TEST_F(FenceJourney, AnEntryConfirmedWhileOutsideIsFollowedByAnExit) {
  auto entryFirst = [](const Seen& seen) {
    return seen.index == 0 ? json{{{"location_id", 11}, {"event_type", "entry"}}}
                           : followTheDevice(seen);
  };
  run(trip({{0, kOutside}}), 120, {}, entryFirst);

  EXPECT_EQ(events(), (std::vector<std::string>{"eventEnterCallback", "eventExitCallback"}));
  const auto observed = seen();
  ASSERT_EQ(observed.size(), 2u);
  EXPECT_FALSE(observed[1].inside);
  EXPECT_FALSE(office()->entered());
}

}  // namespace
}  // namespace zonaris
