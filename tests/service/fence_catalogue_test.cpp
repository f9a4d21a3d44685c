// The fence download: the query on the wire, the catalogue built from the answer, and what a
// failed or hostile answer leaves behind.
#include <cfloat>
#include <limits>

#include "service/service_fixture.hpp"

namespace zonaris::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr const char* kPath = "/install/location";

// [id, name, type, location, radius, uuid, major, minor, time_zone, windows], null for no text.
json digest(const FenceList& fences) {
  auto text = [](const ZonarisFence::Text& t) { return t ? json(*t) : json(); };
  json out = json::array();
  for (const auto& f : fences) {
    json windows = json::array();
    for (const auto& w : *f->dwell_events())
      windows.push_back(w->active() ? w->dwell_time() : -999);
    out.push_back({f->id(), text(f->name()), text(f->type()), text(f->location()), f->radius(),
                   text(f->uuid()), f->major(), f->minor(), text(f->time_zone()), windows});
  }
  return out;
}

class FenceCatalogue : public ServiceTest {
 protected:
  FenceCatalogue() {
    client->setMInitLocation(
        std::make_shared<const platform::Location>(platform::Location{-33.8688197, 151.2092956}));
  }
};

TEST_F(FenceCatalogue, AsksForTheFencesAroundTheReferencePositionWithAPlainGet) {
  server.respond("GET", kPath, {200, "[]"});
  client->getFences();
  const auto sent = server.requests("GET", kPath);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].target,
            "/install/location?install=42&lat=-33.868820&long=151.209296&radius=10000");
  EXPECT_FALSE(sent[0].hasHeader("Content-Type"));
}

// One answer holding a realistic fence and one of each kind of odd element. The choices for
// the odd ones are documented next to the code that reads them.
TEST_F(FenceCatalogue, BuildsTheCatalogueFromWhatEachElementHolds) {
  server.respond("GET", kPath, {200, R"json([
    {"id": 11, "name": "Office", "type": "point", "location": "POINT (1 2)", "radius": 50.5,
     "uuid": "", "major": 0, "minor": 0, "time_zone_id": "Europe/Paris",
     "_event_types": ["entry", "exit"], "_dwell_windows": [300, 600], "extra": 1},
    {"id": 12, "_event_types": []},
    {"_event_types": ["entry"]},
    1, "x", null, [],
    {"id": 13, "_event_types": {"entry": true}},
    {"id": "14", "name": null, "type": 7, "radius": "12.5", "major": " 3 ", "minor": "many",
     "_event_types": ["entry"], "_dwell_windows": ["300", "abc", null, 45.9, {}]},
    {"id": 1e30, "major": 4294967296, "minor": -1e12, "radius": 1e300,
     "_event_types": ["entry"], "_dwell_windows": {"a": 1}},
    {"id": 18446744073709551615, "_event_types": [1], "_dwell_windows": [1e12]}
  ])json"});
  client->getFences();

  const json none;
  constexpr auto kI32 = std::numeric_limits<std::int32_t>::max();
  constexpr auto kI64 = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(digest(*client->mFences()),
            json::array({
                {11, "Office", "point", "POINT (1 2)", 50.5, "", 0, 0, "Europe/Paris", {300, 600}},
                {0, none, none, none, 0.0, none, 0, 0, none, json::array()},
                {14, none, none, none, 12.5, none, 3, 0, none, {300, 45}},
                {kI64, none, none, none, FLT_MAX, none, kI32, -kI32 - 1, none, json::array()},
                {kI64, none, none, none, 0.0, none, 0, 0, none, {kI32}},
            }));
  EXPECT_TRUE(client->mResetFences());
  EXPECT_TRUE(client->mDwellTimer()) << "the dwell tick restarts after a download";
  EXPECT_TRUE(client->mUpdatingLocation()) << "the next sample is armed at once";
  EXPECT_TRUE(logged("Response size = 11"));
  EXPECT_TRUE(logged("Loc  = POINT (1 2)"));
  EXPECT_EQ(logCount("There is no events for this location"), 6);
}

// A 200 always replaces the catalogue; a body that is not a list of fences gives an empty,
// fresh one, and readers of the old snapshot keep theirs.
class UnreadableFenceList : public FenceCatalogue,
                            public ::testing::WithParamInterface<std::string> {};

TEST_P(UnreadableFenceList, ReplacesTheCatalogueWithAnEmptyFreshOne) {
  auto old = std::make_shared<ZonarisFence>();
  old->setEntered(true);
  client->setMFences(std::make_shared<const FenceList>(FenceList{old}));
  const auto before = client->mFences();
  server.respond("GET", kPath, {200, GetParam()});
  client->getFences();
  EXPECT_TRUE(client->mFences()->empty());
  EXPECT_TRUE(client->mResetFences());
  EXPECT_TRUE(before->front()->entered());
}

INSTANTIATE_TEST_SUITE_P(Bodies, UnreadableFenceList,
                         ::testing::Values("<html>", "", R"({"id": 1, "_event_types": [1]})",
                                           std::string(100000, '[') + std::string(100000, ']'),
                                           R"([{"_event_types": [1], "x": )" +
                                               std::string(300, '[') + std::string(300, ']') +
                                               "}]"));

// Anything but a 200 keeps the old catalogue, reports once per attempt and retries every 30 s.
// "Oversized" is a 200 over the 16 MiB body cap, "NoService" a closed port.
class FenceDownloadFailure : public FenceCatalogue,
                             public ::testing::WithParamInterface<std::string> {};

TEST_P(FenceDownloadFailure, KeepsTheOldCatalogueReportsAndRetriesEveryThirtySeconds) {
  const std::string kind = GetParam();
  const bool noAnswer = kind == "NoService" || kind == "Oversized";
  const std::string good = R"([{"id": 5, "_event_types": ["entry"]}])";
  if (kind == "Oversized")
    server.respond("GET", kPath, {200, std::string(17u << 20, ' ') + "[]"});
  else if (!noAnswer)
    server.respondSequence("GET", kPath, {{std::stoi(kind), good}, {200, good}});
  if (kind == "NoService")
    server.stop();
  const auto old = client->mFences();

  client->getFences();
  EXPECT_EQ(client->mFences(), old);
  EXPECT_FALSE(client->mResetFences());
  EXPECT_FALSE(client->mDwellTimer());
  EXPECT_TRUE(logged("Get fences: Send request error - " + (noAnswer ? "0" : kind)));
  simulation->runFor(29999ms);
  EXPECT_EQ(logCount("Get fences..."), 1);
  simulation->runFor(1ms);
  EXPECT_EQ(logCount("Get fences..."), 2);
  EXPECT_EQ(logCount("Sending exception..."), noAnswer ? 2 : 1);
  if (noAnswer)
    return;
  EXPECT_EQ(client->mFences()->size(), 1u);
  ASSERT_EQ(errorReports().size(), 1u);
  EXPECT_EQ(errorReports()[0]["data"]["reason"], "Get fences failed");
}

INSTANTIATE_TEST_SUITE_P(Answers, FenceDownloadFailure,
                         ::testing::Values("201", "204", "500", "NoService", "Oversized"));

}  // namespace
}  // namespace zonaris::test
