// Arming samples and accepting fixes: the sampling chain as the simulated device walks, and
// the rules for the one fix each sample takes.
#include <gtest/gtest.h>

#include <limits>

#include "sampling/sampling_fixture.hpp"

namespace zonaris::test {
namespace {

using namespace std::chrono_literals;

std::shared_ptr<const sim::Trace> northWalk() {
  return std::make_shared<const sim::Trace>(
      sim::Trace::load(ZONARIS_TEST_DATA_DIR "/north_walk.csv"));
}

class SamplingChain : public SamplingTest {
 protected:
  SamplingChain() : SamplingTest(northWalk()) {
    // An empty catalogue: every pass measures no distance, so the interval is MAX_INTERVAL.
    server.respond("GET", "/install/location", {200, "[]"});
    simulation->store().setLong("installId", 7);
  }
};

TEST_F(SamplingChain, FirstFixBecomesTheInitLocationAndNothingElse) {
  server.respond("GET", "/install/location", {500, ""});  // the download keeps failing
  client->start();
  simulation->runFor(10s);

  EXPECT_EQ(fixTimes(), std::vector<double>{1.0});
  EXPECT_EQ(delegate->names(), std::vector<std::string>{"updatedInitLocation"});
  EXPECT_EQ(client->mInitLocation()->latitude, northWalk()->at(1.0).latitude);
  EXPECT_FALSE(client->mCurrentLocation());
  EXPECT_TRUE(timesOf("Set new current location").empty());
  // Back in the idle setting, and no further sample armed while the download fails.
  EXPECT_EQ(simulation->simLocationManager()->distanceFilter(), 99999.0);
  EXPECT_FALSE(client->mUpdatingLocation());
}

TEST_F(SamplingChain, SamplesFollowTheIntervalAndARefetchFollowsAKilometreOfWalking) {
  client->start();
  simulation->runFor(1900s);

  // 1: init location, download, armed at once; 2: first pass, 600 s to the next arming; the
  // sample after that comes one second after arming. At 1204 s the device is 1.8 km from the
  // init location: it is dropped, so the fix at 1805 s starts a new download.
  EXPECT_EQ(fixTimes(), (std::vector<double>{1, 2, 603, 1204, 1805, 1806}));
  EXPECT_EQ(timesOf("Set new init location"), (std::vector<double>{1, 1805}));
  EXPECT_EQ(server.count("GET", "/install/location"), 2u);

  // The speed after the new download is measured against the last current fix (1204 s), not
  // the new init location: the device has stood still since 1300 s.
  const auto speeds = delegate->calls("updatedSpeed");
  ASSERT_EQ(speeds.size(), 4u);
  const auto walk = northWalk();
  EXPECT_FLOAT_EQ(speeds[3][0].get<float>(),
                  static_cast<float>(walk->at(1806).distanceFrom(walk->at(1204)) / 602.0));
  // The accuracy reported is that of the current fix.
  EXPECT_EQ(delegate->calls("updatedGPSAccuracy").back()[0].get<float>(), 8.0f);
}

TEST_F(SamplingChain, StopThenStartArmsASampleThatNoFixAnswers) {
  client->start();
  simulation->runFor(5s);
  ASSERT_EQ(fixTimes(), (std::vector<double>{1, 2}));
  client->stop();
  client->start();
  simulation->runFor(1300s);  // past the timer the last pass set
  EXPECT_EQ(fixTimes(), (std::vector<double>{1, 2}));
  EXPECT_TRUE(client->mUpdatingLocation());
}

// Fixes handed to the client directly: the location service itself delivers nothing here.
class AcceptingFixes : public SamplingTest {};

TEST_F(AcceptingFixes, OnlyTheFirstFixAfterArmingIsTaken) {
  client->setMInitLocation(std::make_shared<const platform::Location>(fixAt(45.0, 7.0)));
  client->didUpdateLocations({fixAt(45.001, 7.0, 10)});  // not armed: dropped silently
  EXPECT_TRUE(simulation->logger().lines().empty());

  client->updateLocation();
  client->updateLocation();  // a timer and a download arming at the same time
  client->didUpdateLocations({fixAt(45.002, 7.0, 20), fixAt(45.003, 7.0, 20)});
  client->didUpdateLocations({fixAt(45.004, 7.0, 30)});
  // The last fix of the one delivery taken, the later delivery dropped.
  EXPECT_EQ(
      simulation->logger().lines(),
      (std::vector<std::string>{"-----------------------------------------------------------------",
                                "New location: 45.003000, 7.000000, -1.000000, 5.000000",
                                "Set new current location"}));
}

// Seconds between the reference fix and the new one, and the divisor the speed must use:
// anything not positive counts as one second.
class SpeedOverTime : public AcceptingFixes, public ::testing::WithParamInterface<double> {};

TEST_P(SpeedOverTime, ZeroOrNegativeTimeCountsAsOneSecond) {
  const double seconds = GetParam();
  const auto reference = fixAt(45.0, 7.0, 100);
  // 30 m east, along the ellipsoid.
  const auto fix = fixAt(45.0, 7.0 + 30.0 / 78846.8, 100 + seconds);
  const double metres = fix.distanceFrom(reference);
  ASSERT_NEAR(metres, 30.0, 0.1);
  client->setMInitLocation(std::make_shared<const platform::Location>(reference));
  client->updateLocation();
  client->didUpdateLocations({fix});
  EXPECT_EQ(client->mSpeed(), static_cast<float>(seconds > 0 ? metres / seconds : metres));
}

INSTANTIATE_TEST_SUITE_P(Sampling, SpeedOverTime, ::testing::Values(0.0, -5.0, 10.0, 0.25));

}  // namespace
}  // namespace zonaris::test
