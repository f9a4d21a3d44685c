// Observation reports: the body on the wire, what counts as sent, and how the answer's events
// and messages reach the application.
#include "service/service_fixture.hpp"

namespace zonaris::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Names = std::vector<std::string>;

constexpr const char* kPath = "/observation";

json call(const char* name, json args) {
  return {{"name", name}, {"args", std::move(args)}};
}
json basic(const char* title, const char* body, const char* url) {
  return call("actionBasicCallback", {{{"title", title}, {"body", body}, {"url", url}}});
}

class Observation : public ServiceTest {
 protected:
  explicit Observation(platform::TimePoint start = sim::defaultStartTime()) : ServiceTest(start) {
    client->setMCurrentLocation(std::make_shared<const platform::Location>(
        platform::Location{52.5200066, 13.404954, -1.0, 12.5}));
    FenceList fences;
    for (const char* name : {"Office", "Shop", "Park"}) {
      fences.push_back(std::make_shared<ZonarisFence>());
      fences.back()->setId(static_cast<std::int64_t>(fences.size()));
      fences.back()->setName(name);
    }
    client->setMFences(std::make_shared<const FenceList>(std::move(fences)));
    client->setMResetFences(true);
  }
  void answer(const std::string& body, int status = 200) {
    server.respond("POST", kPath, {status, body});
  }
};

TEST_F(Observation, SendsPositionBeaconsTagsAndInstallId) {
  answer("{}");
  client->sendObservation();  // no tags yet: an empty object
  const json beacons = json::array({{{"uuid", "F7826DA6-4FA2-4E98-8024-BC5B71E0893E"},
                                     {"major", 7},
                                     {"minor", 9},
                                     {"proximity", "near"}}});
  client->setMBeacons(std::make_shared<const json>(beacons));
  auto tags = std::make_shared<ZonarisTags>(json{{"tier", "gold"}});
  client->setTags(tags);
  tags->set("name", "caf\xC3");  // kept by reference; invalid UTF-8 is replaced, not thrown
  client->sendObservation();

  const auto sent = server.requests("POST", kPath);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(json::parse(sent[0].body)["data"], json::object());
  EXPECT_EQ(sent[1].header("Content-Type"), "application/json; charset=UTF-8");
  EXPECT_EQ(json::parse(sent[1].body),
            json({{"gps", {{"latitude", 52.5200066}, {"longitude", 13.404954}, {"radius", 12.5}}},
                  {"beacons", beacons},
                  {"data", {{"tier", "gold"}, {"name", "caf\xEF\xBF\xBD"}}},
                  {"install", 42}}));
}

TEST_F(Observation, AFailedSendReportsKeepsTheCatalogueFreshAndDoesNotRetry) {
  server.stop();
  client->sendObservation();
  simulation->runFor(5min);
  EXPECT_TRUE(delegate->calls().empty());
  EXPECT_TRUE(client->mResetFences());
  EXPECT_TRUE(logged("Observation wasn't sent!"));
  EXPECT_EQ(logCount("Sending exception..."), 1);
  EXPECT_EQ(logCount("Sending to server..."), 1);
}

TEST_F(Observation, DeliversEachEventThenItsMessagesInTheAnswersOrder) {
  answer(R"({"id": 7, "events": [
    {"location_id": 1, "event_type": "entry", "data": {"zr:msg:title": "A", "zr:msg:body": "B"}},
    {"location_id": 2, "event_type": "exit", "data": {"coupon": "X"}},
    {"location_id": 3, "event_type": "dwell", "data": {}},
    {"location_id": 3, "data": {"zr:msg:title": 12.5, "zr:msg:body": {"a": [1, true]},
                                "zr:msg:image_url": null, "level": 2}}]})");
  client->sendObservation();

  EXPECT_EQ(
      delegate->calls(),
      (std::vector<json>{
          call("reportSent", json::array()), call("eventEnterCallback", {"Office"}),
          basic("A", "B", "(null)"), call("eventExitCallback", {"Shop"}),
          basic("(null)", "(null)", "(null)"), call("actionDataCallback", {{{"coupon", "X"}}}),
          call("eventDwellCallback", {"Park"}), basic("12.5", R"({"a":[1,true]})", "(null)"),
          call("actionDataCallback", {{{"level", 2}}})}));
  EXPECT_FALSE(client->mResetFences());
  EXPECT_TRUE(logged("Observation id = 7"));
  EXPECT_TRUE(logged(R"(    Message data    = {"zr:msg:body":"B","zr:msg:title":"A"})"));
}

// Whatever arrives counts as sent and its body is read, a 500 included. In the body a null is
// a missing key, a value of the wrong type is missing too, and a number may be a string.
class ArrivedAnswer : public Observation,
                      public ::testing::WithParamInterface<std::pair<const char*, Names>> {};

TEST_P(ArrivedAnswer, CountsAsSentAndDeliversOnlyWhatCanBeRead) {
  answer(GetParam().first, 500);
  client->sendObservation();
  EXPECT_EQ(delegate->names(), GetParam().second);
  EXPECT_FALSE(client->mResetFences());
  EXPECT_TRUE(errorReports().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Bodies, ArrivedAnswer,
    ::testing::Values(
        std::pair{"", Names{"reportSent"}},
        std::pair{R"([{"location_id": 1, "event_type": "entry"}])", Names{"reportSent"}},
        std::pair{R"({"events": {"location_id": 1, "event_type": "entry"}})", Names{"reportSent"}},
        std::pair{R"({"events": [{"location_id": 1, "event_type": null, "data": null}, 5]})",
                  Names{"reportSent"}},
        std::pair{R"({"events": [{"location_id": "1", "event_type": "entry", "data": ["x"]},
                                 {"location_id": 2, "event_type": 1, "data": {"k": 1}}]})",
                  Names{"reportSent", "eventEnterCallback", "actionBasicCallback",
                        "actionDataCallback"}}));

// checkSilenceTime at the hour the simulation starts in: {start, stop, hour, silent}.
class SilenceWindow : public ::testing::TestWithParam<std::array<int, 4>> {};

TEST_P(SilenceWindow, ExcludesTheEndsWithinADayAndIncludesThemAcrossMidnight) {
  const auto [start, stop, hour, silent] = GetParam();
  sim::SimulationOptions options;
  options.start = sim::defaultStartTime() + std::chrono::hours(hour - 12) + 30min;
  sim::Simulation simulation(std::move(options));
  auto client = Zonaris::initWithAppKey("demo-key", simulation.platform());
  client->setSilenceWindowStart(start, stop);
  EXPECT_EQ(client->checkSilenceTime(), silent != 0);
}

INSTANTIATE_TEST_SUITE_P(Hours, SilenceWindow,
                         ::testing::ValuesIn(std::vector<std::array<int, 4>>{{9, 17, 9, 0},
                                                                             {9, 17, 10, 1},
                                                                             {9, 17, 16, 1},
                                                                             {9, 17, 17, 0},
                                                                             {22, 6, 21, 0},
                                                                             {22, 6, 22, 1},
                                                                             {22, 6, 0, 1},
                                                                             {22, 6, 6, 1},
                                                                             {22, 6, 7, 0},
                                                                             {5, 5, 5, 0},
                                                                             {0, 0, 0, 0}}));

class ObservationInSilence : public Observation {
 protected:
  ObservationInSilence() : Observation(sim::defaultStartTime() + 11h) {}  // 23:00
};

TEST_F(ObservationInSilence, ConfirmsEventsButDropsTheirMessages) {
  client->setSilenceWindowStart(22, 6);
  answer(R"({"events": [{"location_id": 1, "event_type": "entry", "data": {"coupon": "X"}}]})");
  client->sendObservation();
  simulation->runFor(8h);
  EXPECT_EQ(delegate->names(), (Names{"reportSent", "eventEnterCallback"}));
  EXPECT_TRUE(logged("Silence time: YES (ignoring messages)"));
  EXPECT_FALSE(client->mResetFences());
}

}  // namespace
}  // namespace zonaris::test
