// One evaluation pass and the confirmation of events, driven directly on the test's thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "fence_fixture.hpp"
#include "fences/geometry.hpp"

namespace zonaris {
namespace {

using nlohmann::json;
using test::FenceSpec;
using test::pointNorthOfOrigin;

// The fence latitude at which the device at (0, 0) is exactly `metres` away, found among the
// doubles themselves so that the boundary comparison is tested on the exact value.
double latitudeAtExactly(double metres) {
  double lat = metres / test::kMetresPerDegree;
  for (int i = 0; i < 100000; ++i) {
    const double d = fences::haversineMetres(0, lat, 0, 0);
    if (d == metres)
      return lat;
    lat = std::nextafter(lat, d < metres ? 1.0 : 0.0);
  }
  return std::numeric_limits<double>::quiet_NaN();
}

std::string exactPointAt(double metres) {
  char text[64];
  std::snprintf(text, sizeof text, "POINT (0 %.17g)", latitudeAtExactly(metres));
  return text;
}

FenceSpec point(std::int64_t id, double metresAway, float radius) {
  return {id, "P" + std::to_string(id), "point", pointNorthOfOrigin(metresAway), radius, {}};
}

FenceSpec beacon(std::int64_t id, std::string location) {
  return {id, "B" + std::to_string(id), "beacon", std::move(location), 0.0f, {}};
}

struct PassCase {
  const char* name;
  std::vector<FenceSpec> fences;
  double nearest;
  bool inside;
  bool scanning;
};

class EvaluationPass : public test::FenceFixture, public ::testing::WithParamInterface<PassCase> {};

// The device stands at (0, 0) for every case.
TEST_P(EvaluationPass, ReportsTheNearestFenceAndWhetherTheDeviceIsInsideOne) {
  answerObservationsWith();
  publish(GetParam().fences);
  placeDevice(0, 0);
  client->handleFences();

  EXPECT_NEAR(client->mMinDist(), GetParam().nearest, 1e-6);
  // No fence is entered yet, so being inside any of them asks the service for an entry.
  std::vector<std::string> expected = {"updatedDistanceToNearestFence", "updatedBeaconScan"};
  if (GetParam().inside)
    expected.push_back("reportSent");
  EXPECT_EQ(delegate->names(), expected);
  EXPECT_EQ(observations(), GetParam().inside ? 1u : 0u);
  const auto distance = delegate->calls("updatedDistanceToNearestFence").at(0);
  EXPECT_NEAR(distance[0].get<double>(), GetParam().nearest, 1e-6);
  EXPECT_EQ(distance[1], GetParam().inside);
  EXPECT_EQ(delegate->calls("updatedBeaconScan").at(0)[0], GetParam().scanning);
  EXPECT_EQ(client->mBeaconEnabled(), GetParam().scanning);
}

// clang-format off
const PassCase kPasses[] = {
    {"PointRadiusContainsTheDevice", {point(1, 30, 100)}, 70, true, false},
    {"PointOutsideItsRadius", {point(1, 250, 100)}, 150, false, false},
    {"ExactlyOnThePolygonBoundaryIsInside", {{1, "Edge", "polygon", "POLYGON ((-1 0, 1 0, 1 1, -1 1, -1 0))", 0.0f, {}}}, 0, true, false},
    {"OutsideAndInsideFencesGiveTheDepth", {point(1, 140, 100), point(2, 20, 30)}, 10, true, false},
    {"BeaconJustUnder150MetresStartsRanging", {beacon(1, pointNorthOfOrigin(149.9))}, 79.9, false, true},
    {"BeaconAtExactly150MetresDoesNot", {beacon(1, exactPointAt(150.0))}, 80, false, false},
    {"BeaconWithin70MetresIsInside", {beacon(1, pointNorthOfOrigin(60))}, 10, true, true},
    {"TypeIsCaseSensitive", {{1, "Shop", "Point", pointNorthOfOrigin(25), 100.0f, {}}}, 25, false, false},
    {"NullTypeMatchesNothing", {{1, "Shop", std::nullopt, pointNorthOfOrigin(25), 100.0f, {}}}, 25, false, false},
    {"NaNRadiusCountsAsOutside", {{1, "Shop", "point", pointNorthOfOrigin(25), std::nanf(""), {}}, point(2, 500, 0)}, 500, false, false},
    {"UnreadableFenceNeverLowersTheMinimum", {{1, "Bad", "polygon", "POLYGON ((", 0.0f, {}}, point(2, 500, 0)}, 500, false, false},
    {"NullLocationIsUnreadable", {{1, "Bad", "polygon", std::nullopt, 0.0f, {}}}, std::numeric_limits<double>::max(), false, false},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Cases, EvaluationPass, ::testing::ValuesIn(kPasses),
                         [](const auto& info) { return std::string(info.param.name); });

// An empty or missing catalogue: ranging off, a report naming the list, no distance.
using FencePass = test::FenceFixture;
using FenceConfirmation = test::FenceFixture;

TEST_F(FencePass, EmptyOrMissingCatalogueIsReportedWithoutADistance) {
  for (bool missing : {false, true}) {
    SCOPED_TRACE(missing ? "missing" : "empty");
    delegate->clear();
    client->setMFences(missing ? nullptr : std::make_shared<const FenceList>());
    client->setMMinDist(5.0);
    client->handleFences();
    EXPECT_EQ(client->mMinDist(), std::numeric_limits<double>::max());
    EXPECT_EQ(delegate->calls(),
              (std::vector<json>{{{"name", "updatedBeaconScan"}, {"args", {false}}}}));
    const auto report = errorReports().back();
    EXPECT_EQ(report["reason"], "Handle fences error");
    EXPECT_EQ(report["variables_state"],
              missing ? json::parse(R"([{"name":"fences","value":"nil"}])")
                      : json::parse(R"([{"name":"fences.length","value":0}])"));
  }
  EXPECT_EQ(errorReports().size(), 2u);
  EXPECT_EQ(observations(), 0u);
}

// Which flag combinations ask the service for a confirmation.
struct FlagCase {
  const char* name;
  bool inside;
  bool entered;
  bool dwelled;
  bool reset;
  const char* type;
  bool observation;
  bool enteredAfter;
};

class ReportRule : public test::FenceFixture, public ::testing::WithParamInterface<FlagCase> {};

TEST_P(ReportRule, ObservesExactlyWhenFlagsDisagreeOrTheCatalogueIsNew) {
  const auto& c = GetParam();
  answerObservationsWith();
  // A fence 50 m north with radius 100: inside at (0, 0), outside 1 km south of it.
  auto fences = publish({{1, "F", c.type, pointNorthOfOrigin(50), 100.0f, {}}});
  fences[0]->setEntered(c.entered);
  fences[0]->setDwelled(c.dwelled);
  client->setMResetFences(c.reset);
  placeDevice(c.inside ? 0.0 : -0.01, 0);
  client->handleFences();

  EXPECT_EQ(observations(), c.observation ? 1u : 0u);
  EXPECT_EQ(fences[0]->entered(), c.enteredAfter);
  // A sent observation clears the reload marker; nothing else touches it.
  EXPECT_EQ(client->mResetFences(), c.reset && !c.observation);
  // Entering locally after a reload never tells the application.
  EXPECT_TRUE(delegate->calls("eventEnterCallback").empty());
}

const FlagCase kFlags[] = {
    {"OutsideAndNotEntered", false, false, false, false, "point", false, false},
    {"InsideNotYetEntered", true, false, false, false, "point", true, false},
    {"InsideAndEntered", true, true, false, false, "point", false, true},
    {"InsideWithADwellPending", true, true, true, false, "point", true, true},
    {"OutsideButStillEntered", false, true, false, false, "point", true, true},
    {"OutsideWithOnlyAStaleDwell", false, false, true, false, "point", false, false},
    {"ReloadEntersAPointFenceLocally", true, false, false, true, "point", true, true},
    {"ReloadNeverEntersABeaconLocally", true, false, false, true, "beacon", true, false},
    {"ReloadObservesEvenWhenOutside", false, false, false, true, "point", true, false},
};

INSTANTIATE_TEST_SUITE_P(Flags, ReportRule, ::testing::ValuesIn(kFlags),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(FencePass, AFailedObservationKeepsTheCatalogueNewSoTheNextPassSendsAgain) {
  auto fences = publish({point(1, 10, 100)});
  client->setMResetFences(true);
  client->setDevMode(true);
  placeDevice(0, 0);
  server.stop();
  for (int pass = 0; pass < 2; ++pass)
    client->handleFences();

  const auto lines = simulation->logger().lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Observation wasn't sent!"), 2);
  EXPECT_TRUE(client->mResetFences());
  EXPECT_TRUE(fences[0]->entered());
  EXPECT_EQ(delegate->names(),
            (std::vector<std::string>{"updatedDistanceToNearestFence", "updatedBeaconScan",
                                      "updatedDistanceToNearestFence", "updatedBeaconScan"}));
}

TEST_F(FencePass, DeveloperModeLogsEachFenceWithItsAdjustedDistance) {
  answerObservationsWith();
  client->setDevMode(true);
  publish({point(1, 30, 100), {2, std::nullopt, "polygon", "", 0.0f, {}}});
  placeDevice(0, 0);
  simulation->logger().clear();
  client->handleFences();

  std::vector<std::string> distanceLines;
  for (const auto& line : simulation->logger().lines()) {
    if (line.rfind("Distance to ", 0) == 0)
      distanceLines.push_back(line);
  }
  ASSERT_EQ(distanceLines.size(), 2u);
  EXPECT_EQ(simulation->logger().lines().front(), "Handle fences");
  const std::string prefix = "Distance to P1 zone = ";
  ASSERT_EQ(distanceLines[0].substr(0, prefix.size()), prefix);
  const std::string number = distanceLines[0].substr(prefix.size());
  EXPECT_NEAR(std::stod(number), -70.0, 1e-5);
  EXPECT_EQ(number.size() - number.find('.'), 7u) << "six decimals";
  char farAway[400];
  std::snprintf(farAway, sizeof farAway, "Distance to (null) zone = %f", 1.7976931348623157e308);
  EXPECT_EQ(distanceLines[1], farAway);
}

// ---- Confirmation ---------------------------------------------------------------------------

struct ConfirmCase {
  const char* name;
  std::int64_t id;
  const char* type;
  bool enteredBefore, dwelledBefore;
  bool enteredAfter, dwelledAfter;
  std::vector<std::string> callbacks;
  std::vector<std::string> logs;
};

class Confirmation : public test::FenceFixture,
                     public ::testing::WithParamInterface<ConfirmCase> {};

TEST_P(Confirmation, AppliesTheEventToTheFirstFenceWithTheIdThenTellsTheApplication) {
  const auto& c = GetParam();
  client->setDevMode(true);
  // Two fences share id 5: only the first one is touched.
  auto fences = publish({{4, "Other", "polygon", "", 0, {}},
                         {5, "Office", "polygon", "", 0, {}},
                         {5, "Shadow", "polygon", "", 0, {}}});
  for (const auto& fence : fences) {
    fence->setEntered(c.enteredBefore);
    fence->setDwelled(c.dwelledBefore);
  }
  simulation->logger().clear();
  client->confirmEventFor(c.id, c.type);

  EXPECT_EQ(fences[1]->entered(), c.enteredAfter);
  EXPECT_EQ(fences[1]->dwelled(), c.dwelledAfter);
  for (std::size_t i : {0u, 2u}) {
    EXPECT_EQ(fences[i]->entered(), c.enteredBefore);
    EXPECT_EQ(fences[i]->dwelled(), c.dwelledBefore);
  }
  std::vector<json> expected;
  for (const auto& name : c.callbacks)
    expected.push_back({{"name", name}, {"args", {"Office"}}});
  EXPECT_EQ(delegate->calls(), expected);
  EXPECT_EQ(simulation->logger().lines(), c.logs);
}

// clang-format off
const ConfirmCase kConfirmations[] = {
    {"Entry", 5, "entry", false, false, true, false, {"eventEnterCallback"}, {"Confirmed entry for 5"}},
    {"ExitKeepsAPendingDwell", 5, "exit", true, true, false, true, {"eventExitCallback"}, {"Confirmed exit for 5"}},
    {"DwellClearsOnlyTheDwellMarker", 5, "dwell", true, true, true, false, {"eventDwellCallback"}, {"Confirmed dwell for 5"}},
    {"DwellWithNothingPendingStillCallsBack", 5, "dwell", true, false, true, false, {"eventDwellCallback"}, {"Confirmed dwell for 5"}},
    {"WrongCaseTypeDoesNothing", 5, "Entry", false, false, false, false, {}, {}},
    {"UnknownIdDoesNothing", 99, "entry", false, false, false, false, {}, {}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Events, Confirmation, ::testing::ValuesIn(kConfirmations),
                         [](const auto& info) { return std::string(info.param.name); });

// The flag has already changed when the application hears of the event, so a delegate that
// looks at the fence sees the confirmed state.
class FlagReadingDelegate : public ZonarisDelegate {
 public:
  std::shared_ptr<ZonarisFence> fence;
  std::vector<bool> seen;
  void eventEnterCallback(const std::optional<std::string>&) override {
    seen.push_back(fence->entered());
  }
  void eventExitCallback(const std::optional<std::string>&) override {
    seen.push_back(fence->entered());
  }
};

TEST_F(FenceConfirmation, TheFlagChangesBeforeTheCallback) {
  auto fences = publish({{5, "Office", "polygon", "", 0, {}}});
  auto reader = std::make_shared<FlagReadingDelegate>();
  reader->fence = fences[0];
  client->setDelegate(reader);
  client->confirmEventFor(5, "entry");
  client->confirmEventFor(5, "exit");
  EXPECT_EQ(reader->seen, (std::vector<bool>{true, false}));
}

}  // namespace
}  // namespace zonaris
