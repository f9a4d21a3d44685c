// The robust confirmation rules as transcripts: one device on a line north-south, a fence
// covering everything south of the line's origin, and what each observation yields.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zonaris/service/event_rules.hpp"

namespace zonaris::service_tool::test {
namespace {

constexpr double kMetresPerDegree = 6378137.0 * 0.017453292519943295;

struct Step {
  double t;          ///< seconds
  double north;      ///< metres north of the boundary: inside at 0 and below (beacon: heard)
  double accuracy;   ///< metres
  const char* want;  ///< events, space-separated
  bool fencesServed = false;  ///< a fence query was answered just before
};

struct Transcript {
  const char* name;
  bool beacon = false;
  std::vector<Step> steps;
  std::vector<std::int32_t> dwellWindows = {};
};

// Entered at once (the accuracy disc lies inside), then `then`.
std::vector<Step> entered(std::vector<Step> then) {
  then.insert(then.begin(), {0, -40, 5, "entry"});
  return then;
}

class RobustRules : public ::testing::TestWithParam<Transcript> {};

TEST_P(RobustRules, YieldTheEventsOfTheTranscript) {
  const RobustParams params;  // the defaults
  InstallTrack track;
  FenceState state;
  for (const Step& step : GetParam().steps) {
    track.fencesServed = step.fencesServed;
    const ObservationFix fix{static_cast<std::int64_t>(step.t * 1000),
                             50.0 + step.north / kMetresPerDegree, 10.0, step.accuracy};
    const Judgement judgement = judge(track, fix, params);
    const FenceSighting sighting{step.north <= 0.0, step.north, GetParam().beacon};
    std::string got;
    for (const auto& e :
         advanceRobust(state, sighting, fix, judgement, GetParam().dwellWindows, params))
      got += (got.empty() ? "" : " ") + e;
    EXPECT_EQ(got, step.want) << "at " << step.t << " s, " << step.north << " m north";
  }
}

// clang-format off
const Transcript kTranscripts[] = {
    // Sitting 3 m inside a wall with 10 m noise: single fixes outside, or pairs too close to the
    // boundary to count, confirm nothing.
    {.name = "NoiseAtTheEdge", .steps = entered({{15, 12, 18, ""}, {30, 17, 18, ""},
        {45, -3, 18, ""}, {60, 25, 18, ""}, {75, -1, 18, ""}, {90, 8, 18, ""}, {105, 19, 18, ""}})},
    // Walking out: the first fix beyond the margin makes it pending, the next confirms.
    {.name = "ARealExit",
     .steps = entered({{15, 6, 18, ""}, {30, 24, 18, ""}, {45, 44, 18, "exit"}})},
    // Stopping 25 to 35 m out with 40 m accuracy (the shop next door): short of the exit margin
    // but past the near one, three in a row confirm.
    {.name = "AShopNextDoor",
     .steps = entered({{15, 25, 40, ""}, {30, 35, 40, ""}, {45, 35, 40, "exit"}})},
    // A desk at the wall with 25 m noise (39 m accuracy): after two fixes outside were given up,
    // three in a row beyond the disc are still noise; the fourth confirms.
    {.name = "AnUnsettledEdgeNeedsFour", .steps = entered({{32, 10, 39, ""}, {64, 15, 39, ""},
        {96, 45, 39, ""}, {128, 50, 39, ""}, {160, 48, 39, ""}, {192, 52, 39, "exit"}})},
    // A fix 400 m off after 15 s is an outlier; so is one that would complete a pair.
    {.name = "AnOutlier", .steps = entered({{15, 400, 5, ""}, {30, -38, 5, ""}, {45, 25, 18, ""},
        {60, 420, 5, ""}, {75, -30, 5, ""}, {90, 21, 18, ""}})},
    // A fix too coarse to tell confirms nothing and does not drop a pending crossing.
    {.name = "ACoarseFix", .steps = {{0, -300, 1500, ""}, {15, -10, 18, ""}, {30, -200, 1500, ""},
        {45, -22, 18, "entry"}}},
    // Heard, missed once, heard again, then missed twice: one entry, one exit.
    {.name = "ABeaconThatFlickers", .beacon = true, .steps = {{0, -1, 65, "entry"},
        {15, 1, 65, ""}, {30, -1, 65, ""}, {45, 1, 65, ""}, {60, 1, 65, "exit"}}},
    // Through a small fence in 75 s: both crossings are confirmed.
    {.name = "AShortRealVisit", .steps = {{0, 30, 5, ""}, {15, -8, 5, "entry"}, {30, -12, 5, ""},
        {45, -6, 5, ""}, {60, 9, 5, ""}, {75, 27, 5, "exit"}}},
    // The stay counts from the first observation of its entry; an exit seen once and never
    // confirmed does not restart it.
    {.name = "DwellFromTheConfirmedEntry", .steps = {{0, -10, 18, ""}, {15, -12, 18, "entry"},
        {30, 25, 18, ""}, {45, -5, 18, ""}, {59, -5, 18, ""}, {60, -5, 18, "dwell"}},
     .dwellWindows = {60}},
    // A gap longer than the expiry lets the device have come back unseen: start again. Far past
    // the boundary (driving away) the device could not have, so the pair holds.
    {.name = "APendingCrossingLapses", .steps = entered({{15, 25, 18, ""}, {75, 26, 18, ""},
        {90, 30, 18, "exit"}, {200, -20, 5, "entry"}, {215, 150, 5, ""}, {260, 760, 5, "exit"}})},
    // After a fence query the client resets its flags from the next observation and will not
    // report a disagreement about it again: that observation decides alone, unless it lies
    // within the margin of the boundary.
    {.name = "AfterAFenceQueryOneObservationDecides", .steps = entered({{15, 3, 18, "", true},
        {30, 30, 18, "exit", true}, {45, -2, 18, "entry", true}})},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Table, RobustRules, ::testing::ValuesIn(kTranscripts),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace zonaris::service_tool::test
