// Distances to fence geometries, one evaluation pass, the confirmation of events and dwell
// timing, driven directly on the test's thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "fence_fixture.hpp"
#include "fences/geometry.hpp"

namespace zonaris {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using test::FenceDef;
using test::pointNorthOfOrigin;

// A beacon exactly 150 m from the device at (0, 0), found among the doubles themselves so that
// the boundary comparison sees the exact value.
std::string beaconAtExactly150() {
  double lat = 150.0 / test::kMetresPerDegree;
  for (double d; (d = fences::haversineMetres(0, lat, 0, 0)) != 150.0;)
    lat = std::nextafter(lat, d < 150.0 ? 1.0 : 0.0);
  return "POINT (0 " + json(lat).dump() + ")";
}

std::string repeat(const std::string& text, int times) {
  std::string out;
  while (times-- > 0)
    out += text;
  return out;
}

std::string nested(int levels) {
  return repeat("GEOMETRYCOLLECTION (", levels) + "POINT (0 0)" + std::string(levels, ')');
}

constexpr double kFar = 1.7976931348623157e308;    // the largest double
constexpr double kOneDegree = 111319.49079327357;  // metres of arc on the fence sphere

struct DistanceCase {
  const char* name;
  std::string fence, point;
  double metres;
  std::vector<const char*> unreadable = {};  // named once in a report, and then kFar away
};

class Distance : public test::FenceFixture, public ::testing::WithParamInterface<DistanceCase> {};

TEST_P(Distance, MeasuresFromTheNearestPointOfTheFenceOrReportsTheUnreadableText) {
  const auto& c = GetParam();
  EXPECT_NEAR(client->calculateDistanceFrom(c.fence, c.point), c.metres, 1e-6);
  json named = json::array();
  for (const char* name : c.unreadable)
    named.push_back({{"name", name}, {"value", "nil"}});
  const auto reports = errorReports();
  ASSERT_EQ(reports.size(), c.unreadable.empty() ? 0u : 1u);
  for (const auto& report : reports) {
    EXPECT_EQ(report["reason"], "Calculate distance error");
    EXPECT_EQ(report["variables_state"], named);
  }
}

// Along the equator the nearest point of each shape is exactly one degree away. Off it, Paris to
// London, worked out beforehand with the arcsine form of the haversine (an independent formula),
// catches a swapped latitude and longitude.
// clang-format off
const DistanceCase kDistances[] = {
    {.name = "SamePoint", .fence = "POINT (13.4 52.5)", .point = "POINT (13.4 52.5)", .metres = 0.0},
    {.name = "OneDegreeNorthAtTheEquator", .fence = "POINT (0 0)", .point = "POINT (0 1)", .metres = kOneDegree},
    {.name = "OneDegreeEastAtTheEquator", .fence = "POINT (0 0)", .point = "POINT (1 0)", .metres = kOneDegree},
    {.name = "InsideAPolygon", .fence = "POLYGON ((0 0, 1 0, 1 1, 0 1, 0 0))", .point = "POINT (0.5 0.5)", .metres = 0.0},
    {.name = "EastOfAPolygonsBoundary", .fence = "POLYGON ((0 -1, 1 -1, 1 1, 0 1, 0 -1))", .point = "POINT (2 0)", .metres = kOneDegree},
    {.name = "NearerPartOfAMultiPolygon", .fence = "MULTIPOLYGON (((0 -1, 1 -1, 1 1, 0 1, 0 -1)), ((5 -1, 6 -1, 6 1, 5 1, 5 -1)))", .point = "POINT (4 0)", .metres = kOneDegree},
    {.name = "BesideALine", .fence = "LINESTRING (0 -1, 0 2)", .point = "POINT (1 0)", .metres = kOneDegree},
    {.name = "InsideACollectionThirtyDeep", .fence = nested(30), .point = "POINT (0 0)", .metres = 0.0},
    {.name = "ParisToLondon", .fence = "POINT (2.3522 48.8566)", .point = "POINT (-0.1276 51.5072)", .metres = 343914.69874715415},
    {.name = "EmptyFence", .fence = "", .point = "POINT (0 0)", .metres = kFar, .unreadable = {"geometry1"}},
    {.name = "GarbageFence", .fence = "not a geometry", .point = "POINT (0 0)", .metres = kFar, .unreadable = {"geometry1"}},
    {.name = "NaNCoordinate", .fence = "POINT (nan 0)", .point = "POINT (0 0)", .metres = kFar, .unreadable = {"geometry1"}},
    {.name = "CollectionWithAnEmptyPoint", .fence = "GEOMETRYCOLLECTION (POINT (1 2), POINT EMPTY)", .point = "POINT (0 0)", .metres = kFar, .unreadable = {"geometry1"}},
    {.name = "DeeplyNestedFence", .fence = nested(100000), .point = "POINT (0 0)", .metres = kFar, .unreadable = {"geometry1"}},
    {.name = "LongBoundaryIsMeasured", .fence = "LINESTRING (1 0" + repeat(", 1.000001 0.000001", 60000) + ")", .point = "POINT (0 0)", .metres = kOneDegree},
    {.name = "FenceLargerThanAResponse", .fence = "POINT (0 0)" + std::string(std::size_t{16} << 20, ' '), .point = "POINT (0 0)", .metres = kFar, .unreadable = {"geometry1"}},
    {.name = "DevicePointIsALine", .fence = "POINT (0 0)", .point = "LINESTRING (0 0, 1 1)", .metres = kFar, .unreadable = {"geometry2"}},
    {.name = "BothBroken", .fence = "garbage", .point = "", .metres = kFar, .unreadable = {"geometry1", "geometry2"}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Texts, Distance, ::testing::ValuesIn(kDistances),
                         [](const auto& info) { return std::string(info.param.name); });

FenceDef point(std::int64_t id, double metresAway, float radius) {
  return {id, "P" + std::to_string(id), "point", pointNorthOfOrigin(metresAway), radius, {}};
}

FenceDef beacon(std::string location) {
  return {1, "B", "beacon", std::move(location), 0.0f, {}};
}

// One pass with the device at `latitude` on the prime meridian, every fence's flags as given.
struct PassCase {
  const char* name;
  std::vector<FenceDef> fences;
  double latitude = 0;
  bool entered = false, dwelled = false, reset = false;  // every fence's flags before the pass
  double nearest;
  bool inside = false, scanning = false, observation = false, enteredAfter = false;
};

class EvaluationPass : public test::FenceFixture, public ::testing::WithParamInterface<PassCase> {};

TEST_P(EvaluationPass, ReportsTheNearestFenceAndObservesExactlyWhenFlagsDisagree) {
  const auto& c = GetParam();
  answerObservationsWith();
  auto fences = publish(c.fences);
  for (const auto& fence : fences) {
    fence->setEntered(c.entered);
    fence->setDwelled(c.dwelled);
  }
  client->setMResetFences(c.reset);
  placeDevice(c.latitude);
  client->handleFences();

  const auto distance = delegate->calls("updatedDistanceToNearestFence").at(0);
  EXPECT_NEAR(distance[0].get<double>(), c.nearest, 1e-6);
  EXPECT_EQ(distance[1], c.inside);
  EXPECT_EQ(delegate->calls("updatedBeaconScan").at(0)[0], c.scanning);
  EXPECT_EQ(server.count("POST", "/observation"), c.observation ? 1u : 0u);
  EXPECT_EQ(fences[0]->entered(), c.enteredAfter);
  // A sent observation clears the reload marker; entering locally never tells the application.
  EXPECT_EQ(client->mResetFences(), c.reset && !c.observation);
  EXPECT_TRUE(delegate->calls("eventEnterCallback").empty());
}

// A fence 50 m north with radius 100: the device is inside at 0, outside 1 km south of it.
const FenceDef kNear = point(1, 50, 100);
const double kSouth = -0.01, kFromSouth = 1063.1949079327358;

// clang-format off
const PassCase kPasses[] = {
    {.name = "PointRadiusContainsTheDevice", .fences = {point(1, 30, 100)}, .nearest = 70, .inside = true, .observation = true},
    {.name = "ExactlyOnThePolygonBoundaryIsInside", .fences = {{1, "Edge", "polygon", "POLYGON ((-1 0, 1 0, 1 1, -1 1, -1 0))", 0.0f, {}}}, .nearest = 0, .inside = true, .observation = true},
    {.name = "OutsideAndInsideFencesGiveTheDepth", .fences = {point(1, 140, 100), point(2, 20, 30)}, .nearest = 10, .inside = true, .observation = true},
    {.name = "BeaconJustUnder150MetresStartsRanging", .fences = {beacon(pointNorthOfOrigin(149.9))}, .nearest = 79.9, .scanning = true},
    {.name = "BeaconAtExactly150MetresDoesNot", .fences = {beacon(beaconAtExactly150())}, .nearest = 80},
    {.name = "TypeIsCaseSensitive", .fences = {{1, "Shop", "Point", pointNorthOfOrigin(25), 100.0f, {}}}, .nearest = 25},
    {.name = "NaNRadiusCountsAsOutside", .fences = {{1, "Shop", "point", pointNorthOfOrigin(25), std::nanf(""), {}}, point(2, 500, 0)}, .nearest = 500},
    {.name = "UnreadableFenceNeverLowersTheMinimum", .fences = {{1, "Bad", "polygon", "POLYGON ((", 0.0f, {}}, point(2, 500, 0)}, .nearest = 500},
    {.name = "OutsideAndNotEntered", .fences = {kNear}, .latitude = kSouth, .nearest = kFromSouth},
    {.name = "InsideAndEntered", .fences = {kNear}, .entered = true, .nearest = 50, .inside = true, .enteredAfter = true},
    {.name = "InsideWithADwellPending", .fences = {kNear}, .entered = true, .dwelled = true, .nearest = 50, .inside = true, .observation = true, .enteredAfter = true},
    {.name = "OutsideButStillEntered", .fences = {kNear}, .latitude = kSouth, .entered = true, .nearest = kFromSouth, .observation = true, .enteredAfter = true},
    {.name = "OutsideWithOnlyAStaleDwell", .fences = {kNear}, .latitude = kSouth, .dwelled = true, .nearest = kFromSouth},
    {.name = "ReloadEntersAPointFenceLocally", .fences = {kNear}, .reset = true, .nearest = 50, .inside = true, .observation = true, .enteredAfter = true},
    {.name = "ReloadNeverEntersABeaconLocally", .fences = {beacon(pointNorthOfOrigin(50))}, .reset = true, .nearest = 20, .inside = true, .scanning = true, .observation = true},
    {.name = "ReloadObservesEvenWhenOutside", .fences = {kNear}, .latitude = kSouth, .reset = true, .nearest = kFromSouth, .observation = true},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Cases, EvaluationPass, ::testing::ValuesIn(kPasses),
                         [](const auto& info) { return std::string(info.param.name); });

using FencePass = test::FenceFixture;

TEST_F(FencePass, EmptyOrMissingCatalogueIsReportedWithoutADistance) {
  for (bool missing : {false, true}) {
    client->setMFences(missing ? nullptr : std::make_shared<const FenceList>());
    client->handleFences();
    EXPECT_TRUE(delegate->calls("updatedDistanceToNearestFence").empty());
    EXPECT_EQ(delegate->calls("updatedBeaconScan").back(), json{false});
    const auto report = errorReports().back();
    EXPECT_EQ(report["reason"], "Handle fences error");
    EXPECT_EQ(report["variables_state"],
              json::array({missing ? json{{"name", "fences"}, {"value", "nil"}}
                                   : json{{"name", "fences.length"}, {"value", 0}}}));
  }
}

// Inside a point fence's radius the distance line shows how deep the device is.
TEST_F(FencePass, AFailedObservationKeepsTheCatalogueNewSoTheNextPassSendsAgain) {
  auto fences = publish({point(1, 30, 100)});
  client->setMResetFences(true);
  client->setDevMode(true);
  placeDevice();
  server.stop();
  client->handleFences();
  client->handleFences();

  const auto lines = simulation->logger().lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Observation wasn't sent!"), 2);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Distance to P1 zone = -70.000000"), 2);
  EXPECT_TRUE(client->mResetFences());
  EXPECT_TRUE(fences[0]->entered());
}

struct ConfirmCase {
  const char* name;
  std::int64_t id;
  const char* type;
  bool enteredBefore = false, dwelledBefore = false, enteredAfter = false, dwelledAfter = false;
  const char* callback = nullptr;
};

class Confirmation : public test::FenceFixture,
                     public ::testing::WithParamInterface<ConfirmCase> {};

TEST_P(Confirmation, AppliesTheEventToTheFirstFenceWithTheIdThenTellsTheApplication) {
  const auto& c = GetParam();
  // Two fences share id 5: only the first one is touched.
  auto fences = publish({{4, "Other"}, {5, "Office"}, {5, "Shadow"}});
  for (const auto& fence : fences) {
    fence->setEntered(c.enteredBefore);
    fence->setDwelled(c.dwelledBefore);
  }
  client->confirmEventFor(c.id, c.type);

  for (std::size_t i : {0u, 1u, 2u}) {
    EXPECT_EQ(fences[i]->entered(), i == 1 ? c.enteredAfter : c.enteredBefore) << i;
    EXPECT_EQ(fences[i]->dwelled(), i == 1 ? c.dwelledAfter : c.dwelledBefore) << i;
  }
  std::vector<json> expected;
  if (c.callback)
    expected.push_back({{"name", c.callback}, {"args", {"Office"}}});
  EXPECT_EQ(delegate->calls(), expected);
}

// clang-format off
const ConfirmCase kConfirmations[] = {
    {.name = "Entry", .id = 5, .type = "entry", .enteredAfter = true, .callback = "eventEnterCallback"},
    {.name = "ExitKeepsAPendingDwell", .id = 5, .type = "exit", .enteredBefore = true, .dwelledBefore = true, .dwelledAfter = true, .callback = "eventExitCallback"},
    {.name = "DwellClearsOnlyTheDwellMarker", .id = 5, .type = "dwell", .enteredBefore = true, .dwelledBefore = true, .enteredAfter = true, .callback = "eventDwellCallback"},
    {.name = "DwellWithNothingPendingStillCallsBack", .id = 5, .type = "dwell", .enteredBefore = true, .enteredAfter = true, .callback = "eventDwellCallback"},
    {.name = "WrongCaseTypeDoesNothing", .id = 5, .type = "Entry"},
    {.name = "UnknownIdDoesNothing", .id = 99, .type = "entry"},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Events, Confirmation, ::testing::ValuesIn(kConfirmations),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- Dwell timing: counting seconds inside entered fences, firing windows, the time left ----

constexpr std::int32_t kNothingPending = INT32_MAX;
using DwellTiming = test::FenceFixture;
// The same script on a plain snapshot and on one with a geometry cache, whose ticks visit only
// the fences that are entered or still count.
class DwellScript : public test::FenceFixture, public ::testing::WithParamInterface<bool> {};

TEST_P(DwellScript, WindowsFireOnTheTickAfterTheyElapseAndRearmOnceTheFenceIsLeft) {
  auto fences = publish({{1, "A", "polygon", "", 0, {10}},
                         {2, "B", "polygon", "", 0, {0, 5}},
                         {3, "C", "polygon", "", 0, {INT32_MIN}},
                         {4, "D", "polygon", "", 0, {3}}},
                        GetParam());
  client->updateDwellTimes();
  fences[0]->setEntered(true);
  fences[1]->setEntered(true);
  client->updateDwellTimes();
  EXPECT_TRUE(fences[1]->dwelled()) << "a 0 s window fires on the first tick";
  EXPECT_EQ(client->getTimeBeforeDwell(), 4) << "the soonest armed window of an entered fence";
  fences[1]->setEntered(false);
  EXPECT_EQ(client->getTimeBeforeDwell(), 9);
  for (int tick = 2; tick <= 10; ++tick) {
    client->updateDwellTimes();
    ASSERT_FALSE(fences[0]->dwelled()) << "tick " << tick;
  }
  // The fence left after the first tick was reset on the next: count, marker and windows.
  EXPECT_EQ(fences[1]->dwell_time(), 0);
  EXPECT_FALSE(fences[1]->dwelled());
  EXPECT_TRUE(fences[1]->dwell_events()->at(0)->active());
  EXPECT_EQ(client->getTimeBeforeDwell(), 0);
  client->updateDwellTimes();
  EXPECT_TRUE(fences[0]->dwelled());
  EXPECT_EQ(client->getTimeBeforeDwell(), kNothingPending);

  // A window below the count reached (the lowest one, at the highest count) is due now, and
  // the count stays within range.
  fences[2]->setEntered(true);
  fences[2]->setDwell_time(kNothingPending);
  EXPECT_EQ(client->getTimeBeforeDwell(), 0);
  client->updateDwellTimes();
  EXPECT_EQ(fences[2]->dwell_time(), kNothingPending);

  // A count set on a fence that is not entered is cleared by the next tick.
  fences[3]->setDwell_time(7);
  fences[3]->setDwelled(true);
  client->updateDwellTimes();
  EXPECT_EQ(fences[3]->dwell_time(), 0);
  EXPECT_FALSE(fences[3]->dwelled());
}
INSTANTIATE_TEST_SUITE_P(Snapshots, DwellScript, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Cached" : "Plain"; });

TEST_F(DwellTiming, TheTimerTicksEverySecondUntilStoppedAndASecondStartReplacesIt) {
  auto fence = publish({{}})[0];
  fence->setEntered(true);
  client->startDwellTimer();
  simulation->runFor(500ms);
  client->startDwellTimer();
  simulation->runFor(10s);
  EXPECT_EQ(fence->dwell_time(), 10) << "one count per second: the first timer stopped";
  client->stopDwellTimer();
  simulation->runFor(5s);
  EXPECT_EQ(fence->dwell_time(), 10);
}

}  // namespace
}  // namespace zonaris
