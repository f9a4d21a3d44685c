// The reference service: its event rules on a fake clock, the input it refuses, real HTTP on
// 127.0.0.1, and the zonaris-service program refusing to start.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "support/process.hpp"
#include "zonaris/service/reference_service.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::service_tool::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Events = std::vector<std::pair<std::int64_t, std::string>>;  // (location id, event type)

constexpr double kLat = 50.0;
constexpr double kPointLon = 10.0;  // centre of the point fences, radius 100 m
constexpr double kFarLat = 50.1;    // 11 km north of everything
constexpr const char* kUuid = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";
const json kGone(json::value_t::discarded);

json beacon(const std::string& uuid, int major, int minor) {
  return {{"uuid", uuid}, {"major", major}, {"minor", minor}, {"proximity", "near"}};
}

json observation(std::int64_t install, double lat, double lon, json beacons = json::array()) {
  return {{"gps", {{"latitude", lat}, {"longitude", lon}, {"radius", 5.0}}},
          {"beacons", std::move(beacons)},
          {"data", {{"tier", "gold"}}},
          {"install", install}};
}

// A good request of each exchange (for the fence query its parameters), with the value at `key`
// (a JSON pointer) set to `value` or, when `value` is kGone, removed. An empty key with a value
// sends the value's text as the whole body.
ServiceResponse send(const ReferenceService& s, const std::string& path,
                     const std::string& key = "", const json& value = kGone) {
  json doc = {{"appKey", "demo"}};
  if (path == "/observation")
    doc = observation(1, kLat, kPointLon, json::array({beacon(kUuid, 9, 9)}));
  else if (path == "/install/error")
    doc = json::parse(R"({"intall_id": 1, "version": "2.0.03.30", "data": {"reason": "r",
                          "callstack": ["0 zonaris 0x1"], "variables_state": []}})");
  else if (path == "/install/location")
    doc = {{"install", "1"}, {"lat", "50.000000"}, {"long", "10.000000"}, {"radius", "10000"}};
  if (!key.empty() && value.is_discarded())
    doc.at(json::json_pointer(key).parent_pointer()).erase(json::json_pointer(key).back());
  else if (!key.empty())
    doc[json::json_pointer(key)] = value;
  if (path == "/install/location")
    return s.handle("GET", path, doc.get<std::map<std::string, std::string>>(), "");
  return s.handle("POST", path, {},
                  key.empty() && value.is_string() ? value.get<std::string>() : doc.dump());
}

json parsed(const ServiceResponse& r) {
  return json::parse(r.body, nullptr, false);
}

// A point fence with dwell windows and messages, a polygon, a beacon fence and a point fence
// with no events, on a fake clock, under the exact rule; install 1 is registered.
class ServiceTest : public ::testing::Test {
 protected:
  std::atomic<std::int64_t> clockMs{1'767'268'800'000};
  ReferenceService service{options()};

  ServiceOptions options() {
    ServiceOptions o;
    o.fences = json::parse(R"j([
      {"id": 1, "name": "Cafe", "type": "point", "location": "POINT (10 50)", "radius": 100,
       "_event_types": ["entry", "exit"], "_dwell_windows": [60, 120],
       "messages": {"entry": {"zr:msg:title": "Hi", "coupon": "X1"}, "dwell": {"stay": "long"}}},
      {"id": 2, "name": "Park", "type": "polygon", "radius": 500,
       "location": "POLYGON ((10.99 49.99, 11.01 49.99, 11.01 50.01, 10.99 50.01, 10.99 49.99))",
       "_event_types": ["entry"]},
      {"id": 3, "name": "Desk", "type": "beacon", "location": "POINT (12 50)", "major": 1,
       "minor": 2, "uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "_event_types": ["entry"]},
      {"id": 4, "type": "point", "location": "POINT (10 50)", "radius": 100, "_event_types": []}
    ])j");
    o.now = [this] { return std::chrono::system_clock::time_point(clockMs.load() * 1ms); };
    o.confirm = ConfirmRule::Exact;  // one observation decides
    return o;
  }
  void SetUp() override {
    ASSERT_TRUE(service.ok()) << service.error();
    ASSERT_EQ(parsed(send(service, "/install")), json({{"id", 1}}));
  }
  void advance(std::chrono::milliseconds by) { clockMs += by.count(); }

  json events(double lat, double lon, json beacons = json::array()) {
    auto r = service.handle("POST", "/observation", {}, observation(1, lat, lon, beacons).dump());
    EXPECT_EQ(r.status, 201) << r.body;
    return parsed(r).value("events", json::array());
  }
  Events observeAt(double lat, double lon, json beacons = json::array()) {
    Events out;
    for (const auto& e : events(lat, lon, std::move(beacons)))
      out.emplace_back(e["location_id"], e["event_type"]);
    return out;
  }
};

TEST_F(ServiceTest, EntryOnceWhileInsideThenExitThenEntryAgain) {
  // 0.0008 degrees of latitude is about 89 m, 0.0010 about 111 m.
  EXPECT_EQ(observeAt(kLat + 0.0008, kPointLon), (Events{{1, "entry"}}));
  EXPECT_EQ(observeAt(kLat, kPointLon), Events{});
  EXPECT_EQ(observeAt(kLat + 0.0010, kPointLon), (Events{{1, "exit"}}));
  EXPECT_EQ(observeAt(kFarLat, kPointLon), Events{});
  EXPECT_EQ(observeAt(kLat, kPointLon), (Events{{1, "entry"}}));
  // The polygon (about 1.4 km across, around 50, 11) ends at 50.01: 89 m beyond is outside
  // despite the fence's radius key.
  EXPECT_EQ(observeAt(50.0108, 11.0), (Events{{1, "exit"}}));
  EXPECT_EQ(observeAt(50.0099, 11.0), (Events{{2, "entry"}}));
}

TEST_F(ServiceTest, DwellOncePerWindowCountedFromTheEntry) {
  EXPECT_EQ(observeAt(kLat, kPointLon), (Events{{1, "entry"}}));
  advance(59'999ms);
  EXPECT_EQ(observeAt(kLat, kPointLon), Events{});
  advance(1ms);
  EXPECT_EQ(observeAt(kLat, kPointLon), (Events{{1, "dwell"}}));
  advance(330s);  // well past the second window: it fires once, not again
  EXPECT_EQ(observeAt(kLat, kPointLon), (Events{{1, "dwell"}}));
  EXPECT_EQ(observeAt(kLat, kPointLon), Events{});

  // A new stay arms the windows again and measures from its own entry.
  EXPECT_EQ(observeAt(kFarLat, kPointLon), (Events{{1, "exit"}}));
  advance(600s);
  EXPECT_EQ(observeAt(kLat, kPointLon), (Events{{1, "entry"}}));
  advance(59s);
  EXPECT_EQ(observeAt(kLat, kPointLon), Events{});
  advance(70s);  // both windows have elapsed since the last observation
  EXPECT_EQ(observeAt(kLat, kPointLon), (Events{{1, "dwell"}, {1, "dwell"}}));
}

TEST_F(ServiceTest, BeaconFencesFollowTheBeaconsNotThePosition) {
  const auto heard = json::array({beacon("e2c56db5-dffb-48d2-b060-d0f5a71096e0", 1, 2)});
  EXPECT_EQ(observeAt(kFarLat, kPointLon, heard), (Events{{3, "entry"}}));
  EXPECT_EQ(observeAt(kLat, 12.0), (Events{{3, "exit"}})) << "on its location, not hearing it";
  for (const auto& other : {beacon(kUuid, 1, 3), beacon(kUuid, 2, 2),
                            beacon("E2C56DB5-DFFB-48D2-B060-D0F5A71096E1", 1, 2)})
    EXPECT_EQ(observeAt(kFarLat, kPointLon, json::array({other})), Events{}) << other;
}

TEST_F(ServiceTest, EventsCarryTheFenceMessageForTheirTypeInFenceFileOrder) {
  EXPECT_EQ(events(kLat, kPointLon, json::array({beacon(kUuid, 1, 2)})), json::parse(R"([
      {"location_id": 1, "event_type": "entry", "data": {"zr:msg:title": "Hi", "coupon": "X1"}},
      {"location_id": 3, "event_type": "entry"}])"));
  advance(60s);
  EXPECT_EQ(events(kLat, kPointLon),
            json::parse(R"([{"location_id": 1, "event_type": "dwell", "data": {"stay": "long"}},
                            {"location_id": 3, "event_type": "exit"}])"));
}

// A refused request answers 400 with a reason and changes nothing: the next install and report
// ids follow on, and the device's entry is still to come.
struct Bad {
  const char *name, *path, *key;
  json value;
};

class ServiceRefuses : public ServiceTest, public ::testing::WithParamInterface<Bad> {};

TEST_P(ServiceRefuses, BadInputWith400AndChangesNothing) {
  auto r = send(service, GetParam().path, GetParam().key, GetParam().value);
  EXPECT_EQ(r.status, 400) << r.body;
  EXPECT_TRUE(parsed(r).value("error", json()).is_string()) << r.body;

  EXPECT_EQ(parsed(send(service, "/install")), json({{"id", 2}}));
  EXPECT_EQ(parsed(send(service, "/install/error")), json({{"id", 1}}));
  EXPECT_EQ(observeAt(kLat, kPointLon), (Events{{1, "entry"}}));
}

INSTANTIATE_TEST_SUITE_P(
    AllExchanges, ServiceRefuses,
    ::testing::Values(Bad{"InstallNotJson", "/install", "", "{appKey: demo"},
                      Bad{"InstallNoKey", "/install", "/appKey", kGone},
                      Bad{"QueryNoInstall", "/install/location", "/install", kGone},
                      Bad{"QueryUnissuedInstall", "/install/location", "/install", "0"},
                      Bad{"QueryLatitude91", "/install/location", "/lat", "91.0"},
                      Bad{"QueryLatitudeTrailing", "/install/location", "/lat", "50.0x"},
                      Bad{"QueryRadiusHuge", "/install/location", "/radius", "1e9"},
                      Bad{"ObservationArray", "/observation", "", "[]"},
                      Bad{"ObservationNoGps", "/observation", "/gps", kGone},
                      Bad{"ObservationLongitude200", "/observation", "/gps/longitude", 200},
                      Bad{"ObservationLatitudeText", "/observation", "/gps/latitude", "50"},
                      Bad{"ObservationAccuracyNegative", "/observation", "/gps/radius", -1.0},
                      Bad{"ObservationNoBeacons", "/observation", "/beacons", kGone},
                      Bad{"ObservationBeaconMajorText", "/observation", "/beacons/0/major", "1"},
                      Bad{"ObservationTagsText", "/observation", "/data", "tags"},
                      Bad{"ObservationUnissuedInstall", "/observation", "/install", -3},
                      Bad{"ObservationInstallFraction", "/observation", "/install", 1.5},
                      Bad{"ErrorNotJson", "/install/error", "", ""},
                      Bad{"ErrorDataText", "/install/error", "/data", "boom"},
                      Bad{"ErrorStackNumbers", "/install/error", "/data/callstack/0", 1},
                      Bad{"ErrorNoVersion", "/install/error", "/version", kGone}),
    [](const auto& test) { return std::string(test.param.name); });

// A device whose store outlived the service's state keeps working under its old id.
TEST_F(ServiceTest, AdoptsAnInstallIdItDidNotIssue) {
  EXPECT_EQ(send(service, "/install/location", "/install", "9").status, 200);
  EXPECT_EQ(parsed(send(service, "/install")), json({{"id", 10}}));
}

TEST_F(ServiceTest, ServesTheExchangesOverHttpOn127001) {
  const int port = service.start(0);
  ASSERT_GT(port, 0) << service.error();
  EXPECT_EQ(service.baseUrl(), "http://127.0.0.1:" + std::to_string(port));
  httplib::Client http("127.0.0.1", port);
  auto post = [&](const char* path, const std::string& body) {
    auto r = http.Post(path, body, "application/json; charset=UTF-8");
    return r ? std::pair(r->status, json::parse(r->body, nullptr, false)) : std::pair(0, json());
  };

  EXPECT_EQ(post("/install", R"({"appKey":"demo"})"), std::pair(201, json({{"id", 2}})));
  // A report sent before registration carries an install id below 1; it is kept all the same.
  EXPECT_EQ(post("/install/error", R"({"intall_id": -1, "data": {"reason": "x", "callstack": [],
                 "variables_state": []}, "version": "2.0.03.30"})"),
            std::pair(201, json({{"id", 1}})));
  EXPECT_EQ(post("/observation", "not json").first, 400);
  EXPECT_EQ(http.Get("/fences")->status, 404);
  EXPECT_EQ(http.Get("/observation")->status, 405);

  service.stop();
  EXPECT_EQ(post("/install", R"({"appKey":"demo"})").first, 0);
}

// The robust rules keep a crossing pending in the database: a service restarted on the same
// file confirms it with the next observation. After a fence query, one observation decides.
TEST(RobustService, KeepsAPendingCrossingAcrossARestartAndLetsTheReloadDecide) {
  zonaris::test::Scratch scratch("zonaris-service-test");
  std::atomic<std::int64_t> clockMs{1'767'268'800'000};
  auto open = [&] {
    ServiceOptions o;
    o.fences = json::parse(R"j([{"id": 1, "type": "point", "location": "POINT (10 50)",
                                 "radius": 100, "_event_types": ["entry", "exit"]}])j");
    o.dbPath = scratch.path("state.db");
    o.now = [&] { return std::chrono::system_clock::time_point(clockMs.load() * 1ms); };
    return std::make_unique<ReferenceService>(std::move(o));
  };
  auto observe = [&](const ReferenceService& s, double northMetres, double accuracy) {
    json o = observation(1, kLat + northMetres / 111'195.0, kPointLon);
    o["gps"]["radius"] = accuracy;
    clockMs += 15'000;
    std::string got;
    const json answer = parsed(s.handle("POST", "/observation", {}, o.dump()));
    for (const auto& e : answer.value("events", json::array()))
      got += e.at("event_type").get<std::string>() + " ";
    return got;
  };

  auto service = open();
  ASSERT_TRUE(service->ok()) << service->error();
  EXPECT_EQ(observe(*service, 0, 5), "entry ") << "the accuracy disc lies inside";
  EXPECT_EQ(observe(*service, 130, 5), "") << "an exit waits for a second observation";
  service = open();
  EXPECT_EQ(observe(*service, 150, 5), "exit ");

  EXPECT_EQ(observe(*service, 90, 18), "") << "an entry with the disc across the boundary waits";
  EXPECT_EQ(send(*service, "/install/location", "/install", "1").status, 200);
  EXPECT_EQ(observe(*service, 95, 18), "entry ") << "the client counts itself inside now";
  EXPECT_EQ(observe(*service, 101, 18), "") << "and the next one waits again";
}

// A drive at 14 m/s through 1,000 polygons over 24 x 6 km, twice as dense as the catalogue the
// default cap was chosen on: the nearest fences answered confirm the same events at the same
// moments as every fence within 10 km in file order, and a gzip answer is the same bytes.
TEST(CappedFenceQuery, ADenseDriveConfirmsWhatTheUncappedAnswerConfirms) {
  constexpr double kMetresPerDegree = 6378137.0 * 0.017453292519943295;
  const double cosLat = std::cos(52.5 / 180.0 * std::acos(-1.0));
  auto lonLat = [&](double east, double north) {
    return std::pair(13.4 + east / (kMetresPerDegree * cosLat), 52.5 + north / kMetresPerDegree);
  };
  std::mt19937_64 random(23);
  auto uniform = [&](double lo, double hi) {
    return std::uniform_real_distribution<>(lo, hi)(random);
  };
  // The last 14 lie on the road, 600 m apart, so that the drive has events to lose.
  json fences = json::array();
  for (int id = 1; id <= 1000; ++id) {
    const bool onRoad = id > 986;
    const auto [lon, lat] = onRoad ? lonLat(-3900 + 600 * (id - 987), 0)
                                   : lonLat(uniform(-12000, 12000), uniform(-3000, 3000));
    const double r = (onRoad ? 75 : uniform(10, 75)) / kMetresPerDegree;
    std::string ring;
    for (int k = 0; k <= 32; ++k) {
      const double a = 2 * std::acos(-1.0) * (k % 32) / 32;
      ring += fmt::format("{}{:.7f} {:.7f}", k ? ", " : "", lon + r / cosLat * std::cos(a),
                          lat + r * std::sin(a));
    }
    fences.push_back(json::parse(fmt::format(R"j({{"id": {0}, "name": "Zone {0}", "type": "polygon",
        "location": "POLYGON (({1}))", "_event_types": ["entry", "exit"]}})j",
                                             id, ring)));
  }
  // Ten minutes east along the middle.
  const auto [startLon, startLat] = lonLat(-4200, 0);
  const auto [endLon, endLat] = lonLat(4200, 0);
  const auto trace = std::make_shared<const sim::Trace>(sim::Trace::parseCsv(
      fmt::format("0,{:.7f},{:.7f}\n600,{:.7f},{:.7f}\n", startLat, startLon, endLat, endLon),
      "drive.csv"));

  struct Heard final : ZonarisDelegate {
    explicit Heard(const sim::Scheduler& clock) : s(clock) {}
    void record(const std::optional<std::string>& name, const char* type) {
      std::lock_guard lock(mutex);
      events += fmt::format("{:.0f} {} {}\n", std::chrono::duration<double>(s.elapsed()).count(),
                            type, name.value_or(""));
    }
    void eventEnterCallback(const std::optional<std::string>& n) override { record(n, "entry"); }
    void eventExitCallback(const std::optional<std::string>& n) override { record(n, "exit"); }
    const sim::Scheduler& s;
    std::mutex mutex;
    std::string events;
  };
  auto drive = [&](std::size_t maxFences) {
    auto scheduler = std::make_shared<sim::Scheduler>(*sim::parseLocalTime("2026-01-05T09:00:00"));
    ServiceOptions o;
    o.fences = fences;
    o.maxFences = maxFences;
    o.now = [scheduler] { return scheduler->now(); };
    ReferenceService service(std::move(o));
    const int port = service.start(0);
    EXPECT_GT(port, 0) << service.error();
    const auto query = fmt::format(
        "/install/location?install=1&lat={:.6f}&long={:.6f}&radius=10000", startLat, startLon);
    httplib::Client http("127.0.0.1", port);
    const auto plain = http.Get(query);
    const auto gzip = http.Get(query, {{"Accept-Encoding", "gzip"}});
    if (!plain || !gzip || plain->status != 200 || gzip->status != 200) {
      ADD_FAILURE() << "the fence query failed";
      return std::pair(std::size_t{0}, std::string());
    }
    EXPECT_EQ(plain->get_header_value("Content-Encoding"), "");
    EXPECT_EQ(gzip->get_header_value("Content-Encoding"), "gzip");
    EXPECT_LT(std::stoul(gzip->get_header_value("Content-Length")) * 3, plain->body.size());
    EXPECT_TRUE(gzip->body == plain->body) << "the gzip answer unpacks to other bytes";

    auto heard = std::make_shared<Heard>(*scheduler);
    {
      sim::SimulationOptions options;
      options.scheduler = scheduler;
      options.baseUrl = service.baseUrl();
      options.trace = trace;
      sim::Simulation simulation(std::move(options));
      auto client = Zonaris::initWithAppKey("drive", simulation.platform());
      client->setDelegate(heard);
      client->start();
      simulation.runFor(std::chrono::minutes(11));
    }
    return std::pair(json::parse(plain->body).size(), heard->events);
  };
  const auto [answered, events] = drive(0);
  const auto [capped, cappedEvents] = drive(kDefaultMaxFences);
  EXPECT_GT(answered, 3 * kDefaultMaxFences) << "the cap does not bite";
  EXPECT_EQ(capped, kDefaultMaxFences);
  EXPECT_GE(std::count(events.begin(), events.end(), '\n'), 16) << events;
  EXPECT_EQ(cappedEvents, events);
}

#ifdef ZONARIS_SERVICE_BIN
// No fences, or fences it cannot use: exit status 2 and one line on standard error naming the
// problem (for a file, the element).
TEST(ServiceProgram, ExitsWithTwoAndOneLineNamingTheProblem) {
  zonaris::test::Scratch scratch("zonaris-service-test");
  const std::string file = scratch.path("fences.json");
  const std::pair<const char*, std::string> cases[] = {
      {nullptr, "--fences"},         // no --fences argument
      {"", file + ": cannot open"},  // no such file
      {R"({"id": 1})", "the fences must be a JSON array"},
      {"[1]", "element 0: not a JSON object"},
      {R"j([{"id": "1", "type": "point", "location": "POINT (1 1)"}])j", "element 0: \"id\""},
      {R"j([{"id": 1, "location": "POINT (1"}])j", "element 0: \"location\" is not WKT"},
      {R"j([{"id": 1, "type": "point", "location": "POINT (1 1)"},
           {"id": 1, "type": "point", "location": "POINT (1 1)"}])j",
       "element 1: \"id\" 1 is already used by element 0"},
      {R"j([{"id": 1, "type": "beacon", "location": "POINT (1 1)", "major": 1, "minor": 1}])j",
       "element 0: a \"beacon\" fence needs a \"uuid\""},
      {R"j([{"id": 1, "type": "point", "location": "POINT (1 1)", "messages": {"enter": {}}}])j",
       "element 0: \"messages\" has \"enter\""}};
  for (const auto& [fences, expected] : cases) {
    std::filesystem::remove(file);
    if (fences && *fences)
      scratch.file("fences.json", fences);
    const auto ran = zonaris::test::run(
        {ZONARIS_SERVICE_BIN, fences ? "--fences" : "--port", fences ? file : "1"}, scratch,
        std::chrono::seconds(20));
    EXPECT_EQ(ran.status, 2) << expected;
    EXPECT_EQ(std::count(ran.err.begin(), ran.err.end(), '\n'), 1) << ran.err;
    EXPECT_NE(ran.err.find(expected), std::string::npos) << ran.err;
  }
}
#endif

}  // namespace
}  // namespace zonaris::service_tool::test
