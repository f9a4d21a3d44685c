// The client against a recording server on 127.0.0.1 over the production libcurl client, in
// virtual time: registration, error reports, the fence download and observation reports.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <thread>

#include "service/request.hpp"
#include "support/fake_location_manager.hpp"
#include "support/recording_delegate.hpp"
#include "support/recording_server.hpp"
#include "zonaris/platform/curl_http.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr const char* kJson = "application/json; charset=UTF-8";
constexpr const char* kFences = "/install/location";

class ServiceTest : public ::testing::Test {
 protected:
  explicit ServiceTest(platform::TimePoint start = sim::defaultStartTime()) {
    sim::SimulationOptions options;
    options.start = start;
    options.baseUrl = server.baseUrl();
    options.makeLocationManager = [](const auto&) {
      return std::make_shared<FakeLocationManager>();
    };
    simulation = std::make_unique<sim::Simulation>(std::move(options));
    client = Zonaris::initWithAppKey("demo-key", simulation->platform());
    client->setDevMode(true);
    client->setDelegate(delegate);
    client->setMInstallId(42);
    client->setMInitLocation(
        std::make_shared<const platform::Location>(platform::Location{-33.8688197, 151.2092956}));
    server.respond("POST", "/install/error", {200, ""});
  }

  long logCount(const std::string& line) const {
    const auto lines = simulation->logger().lines();
    return std::count(lines.begin(), lines.end(), line);
  }

  RecordingServer server;
  std::unique_ptr<sim::Simulation> simulation;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<Zonaris> client;
};

// The request carries the app key alone. What a 201 carries is not checked: without a usable
// "id" the install id is 0 and sampling starts anyway.
using P = std::pair<const char*, long>;
class RegistrationAnswer : public ServiceTest, public ::testing::WithParamInterface<P> {};

TEST_P(RegistrationAnswer, A201StoresWhatTheIdReadsAsAndArmsASample) {
  client->setMInstallId(0);
  server.respond("POST", "/install", {201, GetParam().first});
  simulation->store().setLong("installId", 99);
  client->getInstallID();

  const auto sent = server.requests("POST", "/install").at(0);  // throws when none was sent
  EXPECT_EQ(json::parse(sent.body), json({{"appKey", "demo-key"}}));
  EXPECT_EQ(sent.header("Content-Type"), kJson);
  EXPECT_EQ(client->mInstallId(), GetParam().second);
  EXPECT_EQ(simulation->store().getLong("installId"), GetParam().second);
  EXPECT_TRUE(client->mUpdatingLocation());
}

INSTANTIATE_TEST_SUITE_P(Bodies, RegistrationAnswer,
                         ::testing::Values(P{R"({"id": 57, "other": "ignored"})", 57L}, P{"", 0L},
                                           P{"not json", 0L}));

// Registration (anything but a 201) and the fence download (anything but a 200, or a 200 over
// the 16 MiB body cap) fail: the state stays, one error report per attempt, and a new attempt
// every 30 s until one succeeds. Status 0 is no service at all, -1 the oversized 200.
using F = std::pair<bool, int>;  // {registration or fence download, status}
class FailedRequest : public ServiceTest, public ::testing::WithParamInterface<F> {};

TEST_P(FailedRequest, KeepsTheStateReportsEachAttemptAndRetriesEveryThirtySeconds) {
  const auto [install, status] = GetParam();
  const std::string method = install ? "POST" : "GET", path = install ? "/install" : kFences;
  const std::string good = install ? R"({"id": 8})" : R"([{"id": 5, "_event_types": ["entry"]}])";
  const std::string first = status < 0 ? std::string(17u << 20, ' ') : good;
  server.respondSequence(method, path,
                         {{std::max(status, 200), first}, {install ? 201 : 200, good}});
  if (status == 0)
    server.stop();
  client->setMInstallId(install ? 0 : 42);
  const auto old = client->mFences();
  auto succeeded = [&] { return client->mInstallId() == 8 || client->mFences()->size() == 1; };

  install ? client->getInstallID() : client->getFences();
  EXPECT_EQ(client->mFences(), old);
  EXPECT_FALSE(client->mResetFences() || client->mDwellTimer() || client->mUpdatingLocation());
  simulation->runFor(29999ms);
  EXPECT_FALSE(succeeded());
  EXPECT_EQ(logCount("Sending exception..."), 1);
  simulation->runFor(1ms);
  EXPECT_EQ(succeeded(), status != 0);
  if (status == 0) {
    simulation->runFor(60s);
    EXPECT_EQ(logCount("Sending exception..."), 4);
    return;
  }
  const auto reports = server.requests("POST", "/install/error");
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(json::parse(reports[0].body)["data"]["reason"],
            install ? "Get install id failed" : "Get fences failed");
  simulation->runFor(2min);
  EXPECT_EQ(server.count(method, path), 2u) << "a success ends the retries";
}

INSTANTIATE_TEST_SUITE_P(Answers, FailedRequest,
                         ::testing::Values(F{true, 200}, F{true, 500}, F{true, 0}, F{false, 201},
                                           F{false, 500}, F{false, 0}, F{false, -1}));

TEST_F(ServiceTest, ErrorReportsCarryReasonStackVariablesInstallIdAndVersion) {
  server.respond("POST", "/install/error", {500, "oops"});
  client->setMInstallId(-3);
  client->sendException("Handle fences error", {"0 frame", "1 frame"},
                        json::array({{{"name", "fences"}, {"value", "nil"}}}));

  const auto sent = server.requests("POST", "/install/error").at(0);
  EXPECT_EQ(sent.header("Content-Type"), kJson);
  EXPECT_EQ(json::parse(sent.body), json::parse(R"({"intall_id": -3, "version": "2.0.03.30",
      "data": {"reason": "Handle fences error", "callstack": ["0 frame", "1 frame"],
               "variables_state": [{"name": "fences", "value": "nil"}]}})"));
}

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

// A plain GET around the reference position; one answer holding a realistic fence, one without
// event types and one with every key missing. (That odd values never crash the reader is the
// fence-catalogue fuzz harness's job.)
TEST_F(ServiceTest, AsksForTheFencesAroundAndBuildsTheCatalogueFromWhatEachElementHolds) {
  server.respond("GET", kFences, {200, R"json([
    {"id": 11, "name": "Office", "type": "point", "location": "POINT (1 2)", "radius": 50.5,
     "uuid": "", "major": 0, "minor": 0, "time_zone_id": "Europe/Paris",
     "_event_types": ["entry", "exit"], "_dwell_windows": [300, 600], "extra": 1},
    {"id": 12, "_event_types": []},
    {"_event_types": ["entry"]}
  ])json"});
  client->getFences();
  const auto sent = server.requests("GET", kFences);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].target,
            "/install/location?install=42&lat=-33.868820&long=151.209296&radius=10000");
  EXPECT_FALSE(sent[0].hasHeader("Content-Type"));

  const json none;
  EXPECT_EQ(digest(*client->mFences()),
            json::array({
                {11, "Office", "point", "POINT (1 2)", 50.5, "", 0, 0, "Europe/Paris", {300, 600}},
                {0, none, none, none, 0.0, none, 0, 0, none, json::array()},
            }));
  EXPECT_TRUE(client->mResetFences());
  EXPECT_TRUE(client->mDwellTimer()) << "the dwell tick restarts after a download";
  EXPECT_TRUE(client->mUpdatingLocation()) << "the next sample is armed at once";
}

// A 200 always replaces the catalogue; a body that is not a list of fences gives an empty,
// fresh one, and readers of the old snapshot keep theirs.
TEST_F(ServiceTest, AnUnreadableFenceListGivesAnEmptyFreshCatalogue) {
  for (const std::string& body :
       {std::string("<html>"), std::string(R"({"id": 1, "_event_types": [1]})"),
        std::string(100000, '[') + std::string(100000, ']')}) {
    auto old = std::make_shared<ZonarisFence>();
    old->setEntered(true);
    client->setMFences(std::make_shared<const FenceList>(FenceList{old}));
    client->setMResetFences(false);
    server.respond("GET", kFences, {200, body});
    client->getFences();
    EXPECT_TRUE(client->mFences()->empty());
    EXPECT_TRUE(client->mResetFences());
    EXPECT_TRUE(old->entered()) << "readers of the old snapshot keep theirs";
  }
}

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
};

TEST_F(Observation, AFailedSendReportsKeepsTheCatalogueFreshAndDoesNotRetry) {
  server.stop();
  client->sendObservation();
  simulation->runFor(5min);
  EXPECT_TRUE(delegate->calls().empty());
  EXPECT_TRUE(client->mResetFences());
  EXPECT_EQ(logCount("Sending exception..."), 1);
  EXPECT_EQ(logCount("Sending to server..."), 1);
}

// The body carries position, beacons, tags and install id. Whatever arrives counts as sent and
// its body is read, a 500 included. Each event comes with its messages; a null is a missing
// key, a value of the wrong type is missing too, and a number may be a string.
TEST_F(Observation, SendsTheStateAndDeliversEachEventThenItsMessages) {
  server.respondSequence("POST", "/observation",
                         {{500, R"({"id": 7, "events": [
    {"location_id": 1, "event_type": "entry", "data": {"zr:msg:title": "A", "zr:msg:body": "B"}},
    {"location_id": "2", "event_type": "exit", "data": {"coupon": "X"}},
    {"location_id": 1, "event_type": null, "data": null}, 5,
    {"location_id": 3, "event_type": "dwell", "data": {}},
    {"location_id": 3, "data": {"zr:msg:title": 12.5, "zr:msg:body": {"a": [1, true]},
                                "zr:msg:image_url": null, "level": 2}}]})"},
                          {200, "{}"}});
  client->sendObservation();  // no tags yet: an empty object
  EXPECT_FALSE(client->mResetFences());
  const auto beacons = json::parse(
      R"([{"uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "major": 7, "minor": 9,
           "proximity": "near"}])");
  client->setMBeacons(std::make_shared<const json>(beacons));
  auto tags = std::make_shared<ZonarisTags>(json{{"tier", "gold"}});
  client->setTags(tags);
  tags->set("name", "caf\xC3");  // kept by reference; invalid UTF-8 is replaced, not thrown
  client->sendObservation();

  const auto sent = server.requests("POST", "/observation");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(json::parse(sent[0].body)["data"], json::object());
  EXPECT_EQ(sent[1].header("Content-Type"), kJson);
  EXPECT_EQ(json::parse(sent[1].body),
            json({{"gps", {{"latitude", 52.5200066}, {"longitude", 13.404954}, {"radius", 12.5}}},
                  {"beacons", beacons},
                  {"data", {{"tier", "gold"}, {"name", "caf\xEF\xBF\xBD"}}},
                  {"install", 42}}));
  EXPECT_EQ(
      delegate->calls(),
      (std::vector<json>{
          call("reportSent", json::array()), call("eventEnterCallback", {"Office"}),
          basic("A", "B", "(null)"), call("eventExitCallback", {"Shop"}),
          basic("(null)", "(null)", "(null)"), call("actionDataCallback", {{{"coupon", "X"}}}),
          call("eventDwellCallback", {"Park"}), basic("12.5", R"({"a":[1,true]})", "(null)"),
          call("actionDataCallback", {{{"level", 2}}}), call("reportSent", json::array())}));
}

// The silence window at the hour the client starts in: {start, stop, hour, silent}. In it events
// are still confirmed but their messages are dropped, not deferred.
class SilenceWindow : public Observation, public ::testing::WithParamInterface<std::array<int, 4>> {
 protected:
  SilenceWindow()
      : Observation(sim::defaultStartTime() + std::chrono::hours(GetParam()[2] - 12) + 30min) {}
};

TEST_P(SilenceWindow, ExcludesTheEndsWithinADayAndIncludesThemAcrossMidnight) {
  const auto [start, stop, hour, silent] = GetParam();
  client->setSilenceWindowStart(start, stop);
  server.respond(
      "POST", "/observation",
      {200, R"({"events": [{"location_id": 1, "event_type": "entry", "data": {"c": 1}}]})"});
  client->sendObservation();
  simulation->runFor(8h);
  // reportSent, the entry, and out of the silence window its message.
  EXPECT_EQ(delegate->names().size(), silent ? 2u : 4u) << hour;
}

const std::array<int, 4> kHours[] = {{9, 17, 9, 0},  {9, 17, 10, 1}, {9, 17, 16, 1}, {9, 17, 17, 0},
                                     {22, 6, 21, 0}, {22, 6, 22, 1}, {22, 6, 0, 1},  {22, 6, 6, 1},
                                     {22, 6, 7, 0},  {5, 5, 5, 0},   {0, 0, 0, 0}};
INSTANTIATE_TEST_SUITE_P(Hours, SilenceWindow, ::testing::ValuesIn(kHours));

// An application that leaves the base URL empty reaches the service built into the library
// (the build's default, which nothing outside the library sees).
TEST(ServiceUrl, AnEmptyBaseUrlMeansTheBuiltInOne) {
  platform::Platform platform;
  EXPECT_EQ(service::serviceUrl(platform, "/install"), "https://api.zonaris.io/v2/install");
  platform.baseUrl = "http://127.0.0.1:9";
  EXPECT_EQ(service::serviceUrl(platform, "/install"), "http://127.0.0.1:9/install");
}

// The libcurl adapter alone: what arrives comes back as is; no complete answer (too slow, over
// the body cap, cancelled, no server) is a transport error with status 0 and no body. A request
// that accepts compression says so, gets the body decoded and learns its size on the wire; one
// that does not sends no Accept-Encoding.
TEST(CurlHttpClient, ReturnsWhatArrivesAndStatusZeroWithoutACompleteAnswer) {
  RecordingServer server;
  server.respond("GET", "/a", {500, std::string(1024, 'a')});
  server.respond("GET", "/slow", {200, "late", "text/plain", 1000ms});
  platform::CurlHttpOptions fits, over, shortTimeout;
  fits.maxBodyBytes = 1024;
  over.maxBodyBytes = 1023;
  shortTimeout.timeout = 100ms;
  auto get = [&](const char* path, const platform::CurlHttpOptions& options) {
    const auto r =
        platform::makeCurlHttpClient(options)->send({"GET", server.baseUrl() + path, {}, {}});
    return std::tuple(r.transportError, r.status, r.body);
  };
  const auto none = std::tuple(true, 0, std::string());
  EXPECT_EQ(get("/a", fits), std::tuple(false, 500, std::string(1024, 'a')));
  EXPECT_EQ(get("/a", over), none);
  EXPECT_EQ(get("/slow", shortTimeout), none);
  // A cancel ends the exchange in flight, and no later one is sent.
  platform::CurlHttpOptions cancellable;
  cancellable.cancel = std::make_shared<platform::CurlCancel>();
  std::thread canceller([&] {
    while (server.requests("GET", "/slow").size() < 2)
      std::this_thread::sleep_for(1ms);
    cancellable.cancel->cancel();
  });
  EXPECT_EQ(get("/slow", cancellable), none);
  canceller.join();
  EXPECT_EQ(get("/a", cancellable), none);
  EXPECT_EQ(server.requests("GET", "/a").size(), 2u);
  server.respond("GET", "/big", {200, std::string(100000, 'x')});  // JSON: the server gzips it
  platform::HttpRequest plain{"GET", server.baseUrl() + "/big", {}, {}};
  platform::HttpRequest compressed = plain;
  compressed.acceptCompressed = true;
  const auto asIs = platform::makeCurlHttpClient()->send(plain);
  const auto gzipped = platform::makeCurlHttpClient()->send(compressed);
  EXPECT_EQ(gzipped.body, asIs.body);
  EXPECT_EQ(asIs.wireBodyBytes, 100000u);
  EXPECT_GT(gzipped.wireBodyBytes, 0u);
  EXPECT_LT(gzipped.wireBodyBytes, 1000u);
  const auto sent = server.requests("GET", "/big");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_FALSE(sent[0].hasHeader("Accept-Encoding"));
  EXPECT_EQ(sent[1].header("Accept-Encoding"), "gzip");
  server.stop();
  EXPECT_EQ(get("/a", fits), none);
}

}  // namespace
}  // namespace zonaris::test
