#include "zonaris/sim/beacon_sightings.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "zonaris/sim/input_error.hpp"

namespace zonaris::sim {
namespace {

constexpr const char* kShop = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";

std::vector<int> minorsAt(const BeaconSightings& s, double t, const std::string& uuid = kShop) {
  std::vector<int> minors;
  for (const auto& b : s.at(t, uuid))
    minors.push_back(b.minor);
  return minors;
}

TEST(BeaconSightings, ReadsAFileAndShowsEachSightingFromItsStartUntilBeforeItsEnd) {
  const auto s = BeaconSightings::load(ZONARIS_TEST_DATA_DIR "/beacon_sightings.csv");
  ASSERT_EQ(s.sightings().size(), 3u);
  const auto& first = s.sightings()[0].beacon;
  EXPECT_EQ(first.uuid, kShop);  // written in lower case
  EXPECT_EQ(first.major, 1);
  EXPECT_EQ(first.accuracy, 3.5);
  EXPECT_EQ(first.proximity, 2);
  EXPECT_EQ(s.sightings()[1].tEnd, 20.0);
  EXPECT_EQ(s.sightings()[1].beacon.accuracy, -1.0);

  EXPECT_EQ(minorsAt(s, 0.0), (std::vector<int>{2}));
  EXPECT_EQ(minorsAt(s, 5.0), (std::vector<int>{2, 3}));  // file order
  EXPECT_EQ(minorsAt(s, 9.999), (std::vector<int>{2, 3}));
  EXPECT_EQ(minorsAt(s, 10.0), (std::vector<int>{3}));
  EXPECT_EQ(minorsAt(s, 20.0), (std::vector<int>{}));
  EXPECT_EQ(minorsAt(s, 1.0, "74278bda-b644-4520-8f0c-720eaf059935"), (std::vector<int>{7}));
}

class MalformedSightings : public ::testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(MalformedSightings, NameTheFileAndLine) {
  const auto [text, message] = GetParam();
  try {
    BeaconSightings::parseCsv(text, "walk.csv");
    FAIL() << "accepted: " << text;
  } catch (const InputError& e) {
    EXPECT_EQ(std::string(e.what()), message);
  }
}

#define UUID "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"
INSTANTIATE_TEST_SUITE_P(
    Inputs, MalformedSightings,
    ::testing::Values(
        std::pair{"# c\n\n0,10," UUID ",1,2,1.0",
                  "walk.csv:3: expected 7 fields (t_start,t_end,uuid,major,minor,accuracy,"
                  "proximity), found 6"},
        std::pair{"0,10," UUID ",1,2,1.0,2\nx,10," UUID ",1,2,1.0,2",
                  "walk.csv:2: t_start is not a number: \"x\""},
        std::pair{"10,10," UUID ",1,2,1.0,2", "walk.csv:1: t_end must be later than t_start"},
        std::pair{"0,10,shop,1,2,1.0,2", "walk.csv:1: uuid is not a UUID: \"shop\""},
        std::pair{"0,10," UUID ",65536,2,1.0,2",
                  "walk.csv:1: major must be between 0 and 65535: 65536"},
        std::pair{"0,10," UUID ",1,2,nan,2", "walk.csv:1: accuracy is not a number: \"nan\""},
        std::pair{"0,10," UUID ",1,2,1.0,4", "walk.csv:1: proximity must be between 0 and 3: 4"}));
#undef UUID

TEST(BeaconSightings, AMissingFileIsAnInputError) {
  EXPECT_THROW(BeaconSightings::load(ZONARIS_TEST_DATA_DIR "/no_such_file.csv"), InputError);
}

}  // namespace
}  // namespace zonaris::sim
