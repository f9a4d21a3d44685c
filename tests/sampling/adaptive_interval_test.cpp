// The interval computation: speed averaging, the interval and its bounds, the init-location
// radius, the callbacks, and the next sample in virtual time.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>

#include <GeographicLib/Geodesic.hpp>

#include "sampling/sampling_fixture.hpp"

namespace zonaris::test {
namespace {

using namespace std::chrono_literals;

class AdaptiveInterval : public SamplingTest {
 protected:
  /// Sets what the computation reads: the speeds, the nearest distance, and optionally an
  /// entered fence whose dwell window falls due in `dwellIn` seconds.
  void prepare(float speed, float average, double minDist,
               std::optional<std::int32_t> dwellIn = std::nullopt) {
    client->setMSpeed(speed);
    client->setMAverageSpeed(average);
    client->setMMinDist(minDist);
    if (dwellIn) {
      auto fence = std::make_shared<ZonarisFence>();
      fence->setEntered(true);
      fence->setDwell_time(0);
      fence->setDwell_events({std::make_shared<ZonarisDwell>(*dwellIn)});
      client->setMFences(std::make_shared<const FenceList>(FenceList{fence}));
    }
  }
  bool logged(const std::string& line) const { return !timesOf(line).empty(); }
};

TEST_F(AdaptiveInterval, AverageHalvesTowardsTheFloorAndStaysThere) {
  client->setMSpeed(-3.0f);  // a negative speed counts as standing still
  std::vector<float> averages;
  for (int i = 0; i < 7; ++i) {
    client->calculateIntervalAndAccuracy();
    averages.push_back(client->mAverageSpeed());
  }
  EXPECT_EQ(client->mSpeed(), 0.0f);
  EXPECT_EQ(averages[0], 14.0001f);
  EXPECT_FLOAT_EQ(averages[4], 0.87519375f);
  EXPECT_EQ(averages[5], 0.5f);
  EXPECT_EQ(averages[6], 0.5f);
}

TEST_F(AdaptiveInterval, DeveloperLogAndCallbacksOfOnePass) {
  prepare(0.0f, 28.0f, Zonaris::kNoDistance);
  client->setMCurrentLocation(std::make_shared<const platform::Location>(fixAt(1, 2, 0, 12.5)));
  client->calculateIntervalAndAccuracy();

  // The distance is printed in full, as printf's "%f" prints the largest double.
  char minDist[400];
  std::snprintf(minDist, sizeof minDist, "Min Dist        = %fm", Zonaris::kNoDistance);
  EXPECT_EQ(simulation->logger().lines(), (std::vector<std::string>{
                                              "Speed           = 0.000000m/s",
                                              "Avr Speed       = 14.000100m/s",
                                              minDist,
                                              "Interval(sp)    = 2147483647",
                                              "Interval(dw)    = 2147483647",
                                              "Interval is too big. Set to MAX_INTERVAL = 600",
                                              "Update location after 600 second(s)",
                                          }));
  EXPECT_EQ(delegate->names(), (std::vector<std::string>{"updatedSpeed", "updatedAvgSpeed",
                                                         "updatedInterval", "updatedGPSAccuracy"}));
  EXPECT_EQ(delegate->calls("updatedAvgSpeed")[0][0].get<float>(), 14.0001f);
  EXPECT_EQ(delegate->calls("updatedInterval")[0][0], 600);
  EXPECT_EQ(delegate->calls("updatedGPSAccuracy")[0][0].get<float>(), 12.5f);
}

struct IntervalCase {
  double minDist;
  std::optional<std::int32_t> dwellIn;
  std::int32_t interval;
  const char* boundLine;  // or null
};

class IntervalBounds : public AdaptiveInterval,
                       public ::testing::WithParamInterface<IntervalCase> {};

// Average speed 2.0 m/s after smoothing, so S = floor(minDist / 4).
TEST_P(IntervalBounds, IntervalIsHalfTheTimeToTheFenceCutToTheDwellAndBounded) {
  const auto& c = GetParam();
  prepare(1.9999f, 1.9999f, c.minDist, c.dwellIn);
  client->calculateIntervalAndAccuracy();
  ASSERT_EQ(client->mAverageSpeed(), 2.0f);

  ASSERT_EQ(delegate->calls("updatedInterval").size(), 1u);
  EXPECT_EQ(delegate->calls("updatedInterval")[0][0], c.interval);
  EXPECT_TRUE(logged("Update location after " + std::to_string(c.interval) + " second(s)"));
  for (const char* bound : {"Interval is too big. Set to MAX_INTERVAL = 600",
                            "Interval is too small. Set to MIN_INTERVAL = 15"}) {
    const bool expected = c.boundLine && std::string(c.boundLine) == bound;
    EXPECT_EQ(logged(bound), expected) << bound;
  }

  // The next sample is armed exactly `interval` virtual seconds later.
  simulation->runFor(std::chrono::seconds(c.interval) - 1ms);
  EXPECT_FALSE(client->mUpdatingLocation());
  simulation->runFor(1ms);
  EXPECT_TRUE(client->mUpdatingLocation());
}

constexpr const char* kTooBig = "Interval is too big. Set to MAX_INTERVAL = 600";
constexpr const char* kTooSmall = "Interval is too small. Set to MIN_INTERVAL = 15";

INSTANTIATE_TEST_SUITE_P(
    Sampling, IntervalBounds,
    ::testing::Values(IntervalCase{1000.0, std::nullopt, 250, nullptr},
                      IntervalCase{1000.0, 100, 100, nullptr},  // S = 250 cut to the dwell
                      IntervalCase{Zonaris::kNoDistance, 100, 100, nullptr},
                      IntervalCase{Zonaris::kNoDistance, 601, 600, kTooBig},
                      IntervalCase{20.0, std::nullopt, 15, kTooSmall},      // 5
                      IntervalCase{2404.0, std::nullopt, 600, kTooBig},     // 601
                      IntervalCase{2400.0, std::nullopt, 600, nullptr},     // exactly 600
                      IntervalCase{60.0, std::nullopt, 15, nullptr},        // exactly 15
                      IntervalCase{1000.0, 0, 15, kTooSmall},               // dwell due now
                      IntervalCase{-1e300, std::nullopt, 15, kTooSmall}));  // saturates low

class InitLocationRadius : public AdaptiveInterval,
                           public ::testing::WithParamInterface<std::pair<double, bool>> {};

// The distance is compared in single precision: 1000.00002 m reads as 1000 m and is kept.
TEST_P(InitLocationRadius, InitLocationIsDroppedOnlyBeyondOneKilometre) {
  const auto [metres, dropped] = GetParam();
  const auto init = fixAt(48.1, 11.5);
  auto current = init;
  GeographicLib::Geodesic::WGS84().Direct(init.latitude, init.longitude, 37.0, metres,
                                          current.latitude, current.longitude);
  ASSERT_NEAR(current.distanceFrom(init), metres, 1e-6);
  client->setMInitLocation(std::make_shared<const platform::Location>(init));
  client->setMCurrentLocation(std::make_shared<const platform::Location>(current));
  client->calculateIntervalAndAccuracy();
  EXPECT_EQ(!client->mInitLocation(), dropped);
  EXPECT_TRUE(client->mCurrentLocation());
  EXPECT_EQ(delegate->calls("updatedInterval").size(), 1u);  // the interval is still computed
}

INSTANTIATE_TEST_SUITE_P(Sampling, InitLocationRadius,
                         ::testing::Values(std::pair{999.0, false}, std::pair{1000.0, false},
                                           std::pair{1000.00002, false}, std::pair{1000.5, true}));

class FaultyAverage : public AdaptiveInterval,
                      public ::testing::WithParamInterface<std::pair<float, nlohmann::json>> {};

// A speed that makes the average NaN or infinite is reported with both values (a value JSON
// cannot hold is sent as null), and the interval is computed from the floor of 0.5 m/s.
TEST_P(FaultyAverage, IsReportedAndReplacedByTheFloor) {
  const auto [speed, speedInReport] = GetParam();
  prepare(speed, speed, 100.0);
  client->calculateIntervalAndAccuracy();

  const auto sent = server.requests("POST", "/install/error");
  ASSERT_EQ(sent.size(), 1u);
  const auto report = nlohmann::json::parse(sent[0].body, nullptr, false);
  EXPECT_EQ(report["data"]["reason"], "Calculate avg speed error");
  EXPECT_EQ(report["data"]["variables_state"],
            nlohmann::json::array({{{"name", "mSpeed"}, {"value", speedInReport}},
                                   {{"name", "mAverageSpeed"}, {"value", nullptr}}}));
  EXPECT_EQ(client->mAverageSpeed(), 0.5f);
  EXPECT_EQ(delegate->calls("updatedAvgSpeed")[0][0].get<float>(), 0.5f);
  EXPECT_EQ(delegate->calls("updatedInterval")[0][0], 100);  // floor(100 / 0.5 * 0.5)
}

INSTANTIATE_TEST_SUITE_P(
    Sampling, FaultyAverage,
    ::testing::Values(std::pair{std::numeric_limits<float>::quiet_NaN(), nlohmann::json()},
                      // the sum overflows: the average is infinite, the speed finite
                      std::pair{3.0e38f, nlohmann::json(static_cast<double>(3.0e38f))}));

}  // namespace
}  // namespace zonaris::test
