// The sampling policies in virtual time against a recording server: the design's policy is the
// default to the byte, and the efficient one samples right after every dwell deadline, wakes
// when a still device moves off, and takes far fewer fixes.
#include <gtest/gtest.h>

#include <mutex>
#include <optional>
#include <set>

#include "sampling/efficient_policy.hpp"
#include "support/recording_delegate.hpp"
#include "support/recording_server.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

// A square of about 222 m around (0, 0) on the equator, and a point fence of 60 m at (0, 0).
constexpr const char* kCatalogue = R"j([
    {"id": 1, "name": "Square", "type": "polygon", "radius": 0,
    "location": "POLYGON ((-0.001 -0.001, 0.001 -0.001, 0.001 0.001, -0.001 0.001, -0.001 -0.001))",
     "_event_types": ["entry", "exit", "dwell"], "_dwell_windows": [20, 45, 100, 250, 700, 1900]},
    {"id": 2, "name": "Disc", "type": "point", "radius": 60, "location": "POINT (0 0)",
     "_event_types": ["entry", "exit", "dwell"], "_dwell_windows": [30, 400]}])j";

using Stamped = std::vector<std::pair<double, std::string>>;

struct Day {
  Stamped log;                    // every line with its virtual time, developer mode on
  std::vector<json> callbacks;    // every delegate call
  std::vector<std::string> sent;  // every request: method, target and body
  std::vector<double> firings;    // when a dwell window fired (within a quarter second)
  int fixes = 0;

  // The virtual time of the first line starting with `prefix` at or after `t`, or -1.
  double first(const std::string& prefix, double t) const {
    for (const auto& [at, line] : log) {
      if (at >= t && line.rfind(prefix, 0) == 0)
        return at;
    }
    return -1.0;
  }
};

// Runs a client on a CSV trace for `seconds`; with `policy` unset the client keeps its default.
// Every observation is answered with a "dwell" for each fence. Notes when each dwell window
// fires by watching the fences' counts every quarter second.
Day run(const std::string& csv, int seconds, std::optional<SamplingPolicy> policy,
        platform::Duration fixDelay = 1s) {
  RecordingServer server;
  server.respond("POST", "/install/error", {200, ""});
  server.respond("GET", "/install/location", {200, kCatalogue});
  server.respond("POST", "/observation",
                 {200, R"({"id": 1, "events": [{"location_id": 1, "event_type": "dwell"},
                                               {"location_id": 2, "event_type": "dwell"}]})"});
  Day day;
  std::mutex mutex;
  sim::SimulationOptions options;
  options.baseUrl = server.baseUrl();
  options.trace = std::make_shared<const sim::Trace>(sim::Trace::parseCsv(csv, "trace.csv"));
  options.device.fixDelay = fixDelay;
  sim::Simulation* clock = nullptr;
  options.logSink = [&](std::string_view line) {
    std::lock_guard lock(mutex);
    day.log.emplace_back(clock ? clock->elapsedSeconds() : 0.0, std::string(line));
    if (line.rfind("New location: ", 0) == 0)
      ++day.fixes;
  };
  sim::Simulation simulation(std::move(options));
  clock = &simulation;
  simulation.store().setLong("installId", 7);
  auto delegate = std::make_shared<RecordingDelegate>();
  auto client = Zonaris::initWithAppKey("demo-key", simulation.platform());
  client->setDevMode(true);
  client->setDelegate(delegate);
  if (policy)
    client->setSamplingPolicy(*policy);
  client->start();

  // A window of D seconds fires on the tick that brings the fence's count to D + 1.
  std::set<std::pair<std::int64_t, std::int32_t>> fired;
  for (int quarter = 0; quarter < seconds * 4; ++quarter) {
    simulation.runFor(250ms);
    for (const auto& fence : *client->mFences()) {
      for (const auto& window : *fence->dwell_events()) {
        if (fence->dwell_time() > window->dwell_time() &&
            fired.emplace(fence->id(), window->dwell_time()).second)
          day.firings.push_back(simulation.elapsedSeconds());
      }
    }
  }
  client->stop();
  day.callbacks = delegate->calls();
  for (const auto& r : server.requests())
    day.sent.push_back(r.method + " " + r.target + " " + r.body);
  return day;
}

// Still for 40 minutes, then a walk east at 1.4 m/s, out of the disc after 43 s and out of the
// square after 79 s.
constexpr const char* kStayThenLeave = "0,0,0\n2400,0,0\n2700,0,0.003777\n";

TEST(SamplingPolicy, DesignIsTheDefaultToTheByte) {
  const Day byDefault = run(kStayThenLeave, 2900, std::nullopt);
  const Day design = run(kStayThenLeave, 2900, SamplingPolicy::Design);
  EXPECT_EQ(design.log, byDefault.log);
  EXPECT_EQ(design.callbacks, byDefault.callbacks);
  EXPECT_EQ(design.sent, byDefault.sent);
  EXPECT_EQ(design.firings, byDefault.firings);

  // The same day under the efficient policy: every window fires, with a fraction of the fixes,
  // and the departure wakes a sample well before the walk leaves the square.
  const Day efficient = run(kStayThenLeave, 2900, SamplingPolicy::Efficient);
  EXPECT_EQ(efficient.firings.size(), design.firings.size());
  EXPECT_LE(efficient.fixes * 3, design.fixes);
  const double departureSample = efficient.first("New location: ", 2400.0);
  EXPECT_GT(departureSample, 2400.0);
  EXPECT_LT(departureSample, 2400.0 + 60.0);
}

// Every window of both fences fires during a 35-minute stay; each is reported by the next pass,
// which the efficient policy takes right after the firing tick whatever the stay looks like.
TEST(DwellDeadlines, EveryFiredWindowIsReportedInTime) {
  struct Stay {
    const char* name;
    std::string csv = "0,0,0\n3000,0,0\n";  // where the device is: deep in both fences
    SamplingPolicy policy = SamplingPolicy::Efficient;
    int fixDelay = 1;      // seconds
    double latest = 2.25;  // seconds from a window firing to the pass that reports it
  };
  const Stay stays[] = {
      // The design's rule caps the interval at the deadline but not below 15 s.
      {.name = "DesignDeep", .policy = SamplingPolicy::Design, .latest = 17.0},
      {.name = "EfficientDeep"},
      {.name = "EfficientSlowFix", .fixDelay = 5, .latest = 6.25},
      // 5 m inside the square's east edge, outside the disc.
      {.name = "EfficientNearEdge", .csv = "0,0,0.00095\n3000,0,0.00095\n"},
      // Pacing up and down inside both fences.
      {.name = "EfficientPacing", .csv = "0,0,0\n30,0,0.0003\n60,0,0\n90,0,0.0003\n3000,0,0\n"}};
  for (const Stay& c : stays) {
    SCOPED_TRACE(c.name);
    const Day day = run(c.csv, 2100, c.policy, std::chrono::seconds(c.fixDelay));
    // All six windows of the square, and both of the disc when the device is in it.
    const bool inDisc = c.csv.find("0.00095") == std::string::npos;
    ASSERT_EQ(day.firings.size(), inDisc ? 8u : 6u);
    for (const double fired : day.firings) {
      // The count is read a quarter second late at most; the pass comes after the tick.
      const double pass = day.first("Handle fences", fired - 0.25);
      ASSERT_GE(pass, 0.0) << "no pass after the window that fired at " << fired;
      EXPECT_LE(pass - fired, c.latest) << "window fired at " << fired;
    }
  }
}

// The policy's reading of a stop on its own: what noise, a break, an outlier, a cached fix and
// a crossing the service left undecided do to the next interval. A stop of 20 fixes a minute
// (or 5 s) apart, exact or scattered by about 14 m (the realistic device's noise), then one
// more fix, and as many passes again at that fix as the row says.
TEST(EfficientPolicy, StopsTellNoiseFromMovement) {
  using sampling::EfficientPolicy;
  constexpr double kMetre = 1.0 / 111319.49;  // degrees on the equator
  const auto at = [&](double east, double north, double accuracy, int index, int step = 60) {
    platform::Location fix;
    fix.longitude = east * kMetre;
    fix.latitude = north * kMetre;
    fix.horizontalAccuracy = accuracy;
    fix.timestamp = platform::TimePoint{} + std::chrono::seconds(index * step);
    return fix;
  };
  struct Row {
    const char* name;
    double scatter = 10;         // metres east and north of each stop fix, alternating in sign
    double east, accuracy = 65;  // the last fix
    bool unconfirmed = false;    // its observation got no confirmation
    double clearance, centre;    // metres to the nearest boundary from the fix and the centre
    std::int32_t least, most;    // the interval allowed after the last pass
    bool stationary = false;     // the motion sensor reported the device at rest before the stop
    int step = 60;               // seconds between the stop's fixes
    int passes = 0;              // passes at the last fix after its own
  };
  using sampling::kDoubtfulRest;
  using sampling::kDoubtfulRests;
  using sampling::kRestInterval;
  // clang-format off
  const Row rows[] = {
      // 25 m from the centre, within the scatter: a noisy fix near a wall, no quick passes.
      {.name = "NoiseNearAWall", .east = 25, .accuracy = 18, .unconfirmed = true, .clearance = 5, .centre = 8, .least = 60, .most = 70},
      // 25 m from an exact stop: a break outside, sampled again after 12 s.
      {.name = "BreakFromAnExactStop", .scatter = 0, .east = 25, .accuracy = 5, .unconfirmed = true, .clearance = 30, .centre = 8, .least = 0, .most = sampling::kRetryAfter},
      // A fix claiming a cached 65 m, within the scatter, 40 m from the boundary: measured from
      // the centre, a walker needs 23 s more than the minute.
      {.name = "CachedFixAtTheCentre", .east = 10, .clearance = 40, .centre = 40, .least = 80, .most = 90},
      {.name = "CachedFixBeyondTheScatter", .east = 60, .clearance = 40, .centre = 40, .least = 0, .most = 60},
      // At rest, the quick passes after an unconfirmed entry all fell just outside the wall: the
      // rest stays short for a few rests, then is whole again.
      {.name = "UndecidedAtRest", .east = 5, .unconfirmed = true, .clearance = 3, .centre = 8, .least = kDoubtfulRest, .most = kDoubtfulRest, .stationary = true, .passes = 4},
      {.name = "UndecidedAtRestTooLong", .east = 5, .unconfirmed = true, .clearance = 3, .centre = 8, .least = kRestInterval, .most = kRestInterval, .stationary = true, .passes = 4 + kDoubtfulRests},
      {.name = "ClearOfTheWallAtRest", .east = 5, .unconfirmed = true, .clearance = 80, .centre = 80, .least = kRestInterval, .most = kRestInterval, .stationary = true, .passes = 4},
      // A young stop at rest whose fixes fell just outside the wall and sent nothing.
      {.name = "YoungStopAtTheWallAtRest", .east = 5, .clearance = 5, .centre = 5, .least = kDoubtfulRest, .most = kDoubtfulRest, .stationary = true, .step = 5},
      // A stop of 100 s just outside a wall may be a visit that started across it: sampled as
      // soon as the distance says; 30 m from the wall, a walker's time to it and the minute apply.
      {.name = "YoungStopAtTheWall", .east = 5, .clearance = 5, .centre = 5, .least = 0, .most = 5, .step = 5},
      {.name = "YoungStopNearTheWall", .east = 5, .clearance = 30, .centre = 30, .least = 60, .most = 100, .step = 5},
  };
  // clang-format on
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    EfficientPolicy policy;
    if (r.stationary)
      policy.motion({platform::Motion::Stationary, platform::TimePoint{}});
    for (int i = 0; i < 20; ++i) {
      const double sign = i % 2 == 0 ? 1.0 : -1.0;
      policy.acceptFix(at(sign * r.scatter, (i % 4 < 2 ? 1.0 : -1.0) * r.scatter, 18, i, r.step));
    }
    sampling::PassFacts facts;
    facts.clearance = r.clearance;
    facts.centreClearance = r.centre;
    facts.accuracy = r.accuracy;
    std::int32_t spacing = 0;
    for (int pass = 0; pass <= r.passes; ++pass) {
      policy.acceptFix(at(r.east, 0, r.accuracy, 20 + pass, r.step));
      if (pass == 0)
        policy.observed(!r.unconfirmed);
      spacing = policy.spacing(facts);
    }
    EXPECT_GE(spacing, r.least);
    EXPECT_LE(spacing, r.most);
  }

  // One fix 400 m off, then one back: the stop goes on, and only the far fix is doubted.
  EfficientPolicy policy;
  for (int i = 0; i < 20; ++i)
    policy.acceptFix(at(0, 0, 5, i));
  policy.acceptFix(at(400, 0, 5, 20));
  EXPECT_TRUE(policy.jumped());
  EXPECT_EQ(policy.stillFor(), 0.0);
  policy.acceptFix(at(0, 0, 5, 21));
  EXPECT_FALSE(policy.jumped());
  EXPECT_EQ(policy.stillFor(), 21 * 60.0);
}

}  // namespace
}  // namespace zonaris::test
