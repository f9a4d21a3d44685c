// Whole-client transcripts in virtual time against a recording server: every developer-mode
// text in its order, the four progress callbacks, and what is written outside developer mode.
#include <gtest/gtest.h>

#include <stdexcept>

#include "support/recording_delegate.hpp"
#include "support/recording_server.hpp"
#include "zonaris/sim/location_manager.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Lines = std::vector<std::string>;

// The door of a point fence, written with more digits than "%f" keeps: the device point must
// carry them all ("%.16g") for the distance to come out as exactly 0.
constexpr double kDoorLat = 48.137123456789;
constexpr double kDoorLon = 11.576123456789;

class Transcript : public ::testing::Test {
 protected:
  Transcript() {
    server.respond("POST", "/install", {201, R"({"id": 42})"});
    server.respond("POST", "/install/error", {200, ""});
    sim::SimulationOptions options;
    options.baseUrl = server.baseUrl();
    simulation = std::make_unique<sim::Simulation>(std::move(options));
    client = Zonaris::initWithAppKey("demo-key", simulation->platform());
    client->setDelegate(delegate);
  }

  // A fix `north` metres north of the door, taken now, handed over as the location service
  // does; then everything it started runs.
  platform::Location fix(double north, double accuracy = 8.0) {
    platform::Location l;
    l.latitude = kDoorLat + north / 111200.0;
    l.longitude = kDoorLon;
    l.horizontalAccuracy = accuracy;
    l.timestamp = simulation->now();
    client->didUpdateLocations({l});
    simulation->runFor(0s);
    return l;
  }

  // The lines of `lines` that are in `expected`, keeping their order and repetitions.
  static Lines only(const Lines& lines, const Lines& expected) {
    Lines out;
    for (const auto& line : lines) {
      if (std::find(expected.begin(), expected.end(), line) != expected.end())
        out.push_back(line);
    }
    return out;
  }

  RecordingServer server;
  std::unique_ptr<sim::Simulation> simulation;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<Zonaris> client;
};

TEST_F(Transcript, DeveloperModeDayWritesEveryTextInOrder) {
  client->setDevMode(true);
  server.respondSequence(
      "GET", "/install/location",
      {{500, ""},
       {200, json::array({{{"id", 1},
                           {"name", "Door"},
                           {"type", "point"},
                           {"radius", 0},
                           {"location", "POINT (11.576123456789 48.137123456789)"},
                           {"_event_types", {"entry", "exit"}}}})
                 .dump()},
       {500, ""}});
  server.respondSequence("POST", "/observation",
                         {{200, R"({"id": 5, "events": [{"location_id": 1, "event_type": "entry",
                  "data": {"zr:msg:title": "Hi", "zr:msg:body": "Welcome"}}]})"},
                          {200, R"({"id": 6, "events": []})"}});
  const auto& manager = *simulation->simLocationManager();

  client->start();
  simulation->runFor(1s);  // registered, a sample armed
  EXPECT_EQ(manager.desiredAccuracy(), platform::Accuracy::BestForNavigation);
  const auto a = fix(-30.0);  // the reference position; its download fails
  EXPECT_EQ(manager.desiredAccuracy(), platform::Accuracy::ThreeKilometers);
  EXPECT_EQ(manager.distanceFilter(), 99999.0);
  simulation->runFor(30s);  // the retry gets the catalogue and arms a sample

  delegate->clear();
  const auto b = fix(0.0, 8.0);  // at the door: entry, message, progress
  const float speedB = static_cast<float>(b.distanceFrom(a) / 30.0);
  const float averageB = (speedB + 28.0f) * 0.5f + 0.0001f;
  const auto names = delegate->names();
  ASSERT_GE(names.size(), 4u);
  EXPECT_EQ(Lines(names.end() - 4, names.end()),
            (Lines{"updatedSpeed", "updatedAvgSpeed", "updatedInterval", "updatedGPSAccuracy"}));
  EXPECT_EQ(delegate->calls("updatedDistanceToNearestFence"),
            std::vector<json>{json::array({0.0, true})});
  EXPECT_EQ(delegate->calls("updatedSpeed"), std::vector<json>{json::array({speedB})});
  EXPECT_EQ(delegate->calls("updatedAvgSpeed"), std::vector<json>{json::array({averageB})});
  EXPECT_EQ(delegate->calls("updatedInterval"), std::vector<json>{json::array({15})});
  EXPECT_EQ(delegate->calls("updatedGPSAccuracy"), std::vector<json>{json::array({8.0f})});
  EXPECT_EQ(
      delegate->calls("actionBasicCallback"),
      std::vector<json>{json::array({{{"title", "Hi"}, {"body", "Welcome"}, {"url", "(null)"}}})});

  // Speed is the distance from the current location over the seconds since it, not from the
  // reference position.
  simulation->runFor(15s);
  delegate->clear();
  const auto c = fix(20.0);
  EXPECT_EQ(delegate->calls("updatedSpeed"),
            std::vector<json>{json::array({static_cast<float>(c.distanceFrom(b) / 15.0)})});

  // A failed download leaves the catalogue, its freshness and the dwell timer as they were.
  const auto fences = client->mFences();
  const auto timer = client->mDwellTimer();
  const bool fresh = client->mResetFences();
  client->setMInitLocation(nullptr);
  simulation->runFor(15s);
  fix(25.0);
  EXPECT_EQ(client->mFences(), fences);
  EXPECT_EQ(client->mDwellTimer(), timer);
  EXPECT_EQ(client->mResetFences(), fresh);

  // With the service gone, the observation and its error report both fail.
  server.stop();
  client->updateLocation();
  fix(30.0);

  const Lines texts = {"Get install ID...",
                       "Get install ID succesed!",
                       "Get fences failed!",
                       "Get fences: Send request error - 500",
                       "Sending exception...",
                       "Exception was sent successfully!",
                       "Get fences succesed!",
                       "Response size = 1",
                       "Name = Door",
                       "Type = point",
                       "Loc  = POINT (11.576123456789 48.137123456789)",
                       "Handle fences",
                       "Distance to Door zone = 0.000000",
                       "Sending to server...",
                       "Observation was sent successfully!",
                       "Observation id = 5",
                       "    Event id        = 1",
                       "    Event type      = entry",
                       R"(    Message data    = {"zr:msg:body":"Welcome","zr:msg:title":"Hi"})",
                       "Confirmed entry for 1",
                       "Silence time: NO",
                       "Observation id = 6",
                       "Observation wasn't sent!",
                       "Exception wasn't sent!"};
  EXPECT_EQ(only(simulation->logger().lines(), texts),
            (Lines{texts[0],  texts[1],  texts[2],  texts[3],  texts[4],  texts[5],  texts[6],
                   texts[7],  texts[8],  texts[9],  texts[10], texts[11], texts[12], texts[13],
                   texts[14], texts[15], texts[16], texts[17], texts[18], texts[19], texts[20],
                   texts[11], texts[13], texts[14], texts[21], texts[2],  texts[3],  texts[4],
                   texts[5],  texts[11], texts[13], texts[22], texts[4],  texts[23]}));
  const auto lines = simulation->logger().lines();
  EXPECT_NE(std::find_if(lines.begin(), lines.end(),
                         [](const std::string& l) {
                           return l.find(R"("reason":"Send observatnion failed")") != l.npos;
                         }),
            lines.end());
}

// A delegate whose beacon-scan callback throws: the guard turns that into an error report.
struct ThrowingDelegate final : RecordingDelegate {
  void updatedBeaconScan(bool) override { throw std::runtime_error("delegate failed"); }
};

TEST_F(Transcript, OutsideDeveloperModeOnlyTheFiveBeaconLinesAreWritten) {
  server.respond("GET", "/install/location", {200, "[]"});
  server.respond("POST", "/observation", {200, "{}"});
  auto throwing = std::make_shared<ThrowingDelegate>();
  client->setDelegate(throwing);
  client->setUUID("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
  client->start();
  simulation->runFor(1s);
  fix(0.0);
  simulation->runFor(20s);
  fix(5.0);  // a pass over the empty catalogue, whose callback throws
  const auto reports = server.requests("POST", "/install/error");
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(json::parse(reports[0].body)["data"]["reason"], "Unexpected failure");

  client->startUpdateBeacons();
  for (double accuracy : {3.2, 1.5, 2.0})
    client->didRangeBeacons({{"E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", 1, 2, accuracy, 2}},
                            *client->mBeaconRegion());
  simulation->runFor(10s);
  client->stop();
  EXPECT_EQ(simulation->logger().lines(),
            (Lines{"Started scan", "    Beacon added", "    Replace old beacon", "    Beacon added",
                   "    Accuracy is worst or same then old one", "Stopped scan"}));
}

}  // namespace
}  // namespace zonaris::test
