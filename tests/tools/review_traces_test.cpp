// Short visits and departures that a sampling policy must not lose: standing near a small
// fence then walking in, a break outside an office, shops close by with coarse fixes, and
// leaving after a long stop. Each trace runs at ten start phases under the design's policy and
// under the efficient one with and without idle deliveries and a motion sensor, against the
// embedded service's default rules, and is scored against the truth.
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/process.hpp"

#ifdef ZONARIS_SIM_BIN

namespace zonaris::test {
namespace {

using nlohmann::json;

constexpr double kLatitude = 48.1, kLongitude = 11.5;
constexpr double kEarthRadius = 6378137.0;
constexpr double kDegrees = 180.0 / 3.14159265358979323846;

// Degrees of a point `east` and `north` metres from the origin.
double lat(double north) {
  return kLatitude + north / kEarthRadius * kDegrees;
}
double lon(double east) {
  return kLongitude + east / (kEarthRadius * std::cos(kLatitude / kDegrees)) * kDegrees;
}

json pointFence(int id, const std::string& name, double east, double north, double radius) {
  return json::parse(fmt::format(R"j({{"id": {}, "name": "{}", "type": "point", "radius": {},
      "location": "POINT ({:.8f} {:.8f})", "_event_types": ["entry", "exit"]}})j",
                                 id, name, radius, lon(east), lat(north)));
}

// A trace of stops and walks at 1.4 m/s, each point with the given accuracy.
class Walk {
 public:
  Walk(double east, double north, double accuracy) : accuracy_(accuracy) { point(east, north); }
  Walk& stay(double seconds) {
    t_ += seconds;
    point(east_, north_);
    return *this;
  }
  Walk& to(double east, double north) {
    t_ += std::hypot(east - east_, north - north_) / 1.4;
    point(east, north);
    return *this;
  }
  const std::string& csv() const { return csv_; }

 private:
  void point(double east, double north) {
    east_ = east;
    north_ = north;
    csv_ += fmt::format("{:.1f},{:.8f},{:.8f},{}\n", t_, lat(north), lon(east), accuracy_);
  }
  double accuracy_, t_ = 0.0, east_ = 0.0, north_ = 0.0;
  std::string csv_ = "t,lat,lon,accuracy\n";
};

struct Case {
  const char* name;
  json fences;
  Walk (*walk)(double stand);  // the first stop lasts `stand` seconds
  double stand;                // seconds of the first stop at phase 0; each phase adds 47 s
  std::size_t events;
  double latest;  // seconds: the largest latency allowed
};

TEST(ReviewTraces, NoPolicyLosesAVisitOrADeparture) {
  // clang-format off
  const Case cases[] = {
      // Standing 20 m from the centre of a point fence of 8 m, then 4 minutes inside.
      {.name = "near a small fence", .fences = json::array({pointFence(1, "Kiosk", 0, 0, 8)}),
       .walk = [](double stand) {
         return Walk(0, 20, 5).stay(stand).to(0, 0).stay(240).to(0, 20).stay(600); },
       .stand = 1500, .events = 2, .latest = 120},
      // A desk 10 m inside an office's north wall, then 5 minutes 15 m outside it (the first
      // event is the entry at the start).
      {.name = "a break outside the office", .fences = json::array({{{"id", 2}, {"name", "Office"},
           {"type", "building"}, {"radius", 0}, {"_event_types", {"entry", "exit"}},
           {"location", fmt::format("POLYGON (({0:.8f} {2:.8f}, {1:.8f} {2:.8f}, {1:.8f} {3:.8f}, "
                                    "{0:.8f} {3:.8f}, {0:.8f} {2:.8f}))",
                                    lon(-30), lon(30), lat(-30), lat(30))}}}),
       .walk = [](double stand) {
         return Walk(0, 20, 5).stay(stand).to(0, 45).stay(300).to(0, 20).stay(600); },
       .stand = 1500, .events = 3, .latest = 120},
      // Fixes of 40 m, shops 55 m east and west of home, 4 minutes in each.
      {.name = "shops nearby with coarse fixes", .fences = json::array(
           {pointFence(3, "East shop", 55, 0, 15), pointFence(4, "West shop", -55, 0, 15)}),
       .walk = [](double stand) {
         return Walk(0, 0, 40).stay(stand).to(55, 0).stay(240).to(-55, 0).stay(240).to(0, 0)
             .stay(600); },
       .stand = 1500, .events = 4, .latest = 120},
      // An hour at home, then away (entry at the start, exit).
      {.name = "leaving after a long stop",
       .fences = json::array({pointFence(5, "Home", 0, 0, 30)}),
       .walk = [](double stand) { return Walk(0, 0, 5).stay(stand).to(0, 400).stay(300); },
       .stand = 3600, .events = 2, .latest = 90},
  };
  // clang-format on
  const char* const settings[] = {
      "--sampling design --idle-fixes none",
      "--sampling design --idle-fixes network",
      "--sampling efficient --idle-fixes none",
      "--sampling efficient --idle-fixes network",
      "--sampling efficient --idle-fixes none --motion phone",
      "--sampling efficient --idle-fixes network --motion phone",
  };
  Scratch scratch;
  for (const Case& c : cases) {
    const std::string fences = scratch.file("fences.json", c.fences.dump());
    for (const char* setting : settings) {
      for (int phase = 0; phase < 10; ++phase) {
        SCOPED_TRACE(fmt::format("{}, {}, phase {}", c.name, setting, phase));
        const std::string trace = scratch.file("trace.csv", c.walk(c.stand + 47.0 * phase).csv());
        const std::string scoreFile = scratch.path("score.json");
        std::vector<std::string> args = {
            ZONARIS_SIM_BIN,           "--trace", trace,    "--fences", fences, "--seed",
            std::to_string(phase + 1), "--score", scoreFile};
        std::istringstream split(setting);
        for (std::string word; split >> word;)
          args.push_back(word);
        const Ran ran = run(args, scratch);
        ASSERT_EQ(ran.status, 0) << ran.err;
        const json score = json::parse(slurp(scoreFile));
        EXPECT_EQ(score["matched"].size(), c.events) << score["missed"].dump();
        EXPECT_EQ(score["false"].size(), 0u) << score["false"].dump();
        // A start the motion sensor missed is caught by the rest interval's end.
        const bool motion = std::string(setting).find("phone") != std::string::npos;
        for (const auto& m : score["matched"])
          EXPECT_LE(m["latency"].get<double>(), motion ? 660.0 : c.latest) << m.dump();
      }
    }
  }
}

}  // namespace
}  // namespace zonaris::test

#endif
