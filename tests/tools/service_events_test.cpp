// Event confirmation as a device walking in and out of fences sees it.
#include <unistd.h>

#include <filesystem>

#include "tools/service_fixture.hpp"

namespace zonaris::service_tool::test {
namespace {

using namespace std::chrono_literals;

constexpr double kLat = 50.0;
constexpr double kPointLon = 10.0;    // centre of the point fence, radius 100 m
constexpr double kPolygonLon = 11.0;  // centre of the polygon, about 1.4 km across
constexpr double kFarLat = 50.1;      // 11 km north of everything
const char* const kUuid = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";

json fences() {
  return json::parse(R"j([
    {"id": 1, "name": "Cafe", "type": "point", "location": "POINT (10 50)", "radius": 100,
     "_event_types": ["entry", "exit"], "_dwell_windows": [60, 120],
     "messages": {"entry": {"zr:msg:title": "Hi", "zr:msg:body": "Come in", "coupon": "X1"},
                  "dwell": {"stay": "long"}}},
    {"id": 2, "name": "Park", "type": "polygon", "radius": 500,
     "location": "POLYGON ((10.99 49.99, 11.01 49.99, 11.01 50.01, 10.99 50.01, 10.99 49.99))",
     "_event_types": ["entry"]},
    {"id": 3, "name": "Desk", "type": "beacon", "location": "POINT (12 50)",
     "uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": 1, "minor": 2,
     "_event_types": ["entry"]},
    {"id": 4, "name": "Silent", "type": "point", "location": "POINT (10 50)", "radius": 100,
     "_event_types": []}
  ])j");
}

class ServiceEvents : public ServiceTest {
 protected:
  ReferenceService service{options(fences())};
  std::int64_t install = 0;
  void SetUp() override {
    ASSERT_TRUE(service.ok()) << service.error();
    install = registerInstall(service);
  }
};

TEST_F(ServiceEvents, EntryOnceWhileInsideThenExitThenEntryAgain) {
  EXPECT_EQ(observeAt(service, install, kLat, kPointLon), (std::vector<Event>{{1, "entry"}}));
  EXPECT_TRUE(observeAt(service, install, kLat, kPointLon).empty());
  EXPECT_EQ(observeAt(service, install, kFarLat, kPointLon), (std::vector<Event>{{1, "exit"}}));
  EXPECT_TRUE(observeAt(service, install, kFarLat, kPointLon).empty());
  EXPECT_EQ(observeAt(service, install, kLat, kPointLon), (std::vector<Event>{{1, "entry"}}));
}

TEST_F(ServiceEvents, PointFencesCountTheirRadiusOtherGeometriesDoNot) {
  // 0.0008 degrees of latitude is about 89 m, 0.0010 about 111 m.
  EXPECT_EQ(observeAt(service, install, kLat + 0.0008, kPointLon),
            (std::vector<Event>{{1, "entry"}}));
  EXPECT_EQ(observeAt(service, install, kLat + 0.0010, kPointLon),
            (std::vector<Event>{{1, "exit"}}));
  // The polygon's edge is at 50.01: 89 m beyond it is outside despite the fence's radius key.
  EXPECT_TRUE(observeAt(service, install, 50.0108, kPolygonLon).empty());
  EXPECT_EQ(observeAt(service, install, 50.0099, kPolygonLon), (std::vector<Event>{{2, "entry"}}));
}

TEST_F(ServiceEvents, DwellOncePerWindowCountedFromTheEntry) {
  EXPECT_EQ(observeAt(service, install, kLat, kPointLon), (std::vector<Event>{{1, "entry"}}));
  advance(59'999ms);
  EXPECT_TRUE(observeAt(service, install, kLat, kPointLon).empty());
  advance(1ms);
  EXPECT_EQ(observeAt(service, install, kLat, kPointLon), (std::vector<Event>{{1, "dwell"}}));
  advance(30s);
  EXPECT_TRUE(observeAt(service, install, kLat, kPointLon).empty());
  advance(300s);  // well past the second window: it fires once, not again
  EXPECT_EQ(observeAt(service, install, kLat, kPointLon), (std::vector<Event>{{1, "dwell"}}));
  EXPECT_TRUE(observeAt(service, install, kLat, kPointLon).empty());

  // A new stay arms the windows again and measures from its own entry.
  EXPECT_EQ(observeAt(service, install, kFarLat, kPointLon), (std::vector<Event>{{1, "exit"}}));
  advance(600s);
  EXPECT_EQ(observeAt(service, install, kLat, kPointLon), (std::vector<Event>{{1, "entry"}}));
  advance(59s);
  EXPECT_TRUE(observeAt(service, install, kLat, kPointLon).empty());
  advance(70s);  // both windows have elapsed since the last observation
  EXPECT_EQ(observeAt(service, install, kLat, kPointLon),
            (std::vector<Event>{{1, "dwell"}, {1, "dwell"}}));
}

TEST_F(ServiceEvents, BeaconFencesFollowTheBeaconsNotThePosition) {
  // Far from the beacon fence's location, yet its beacon is heard: inside.
  const auto heard = json::array({beacon("e2c56db5-dffb-48d2-b060-d0f5a71096e0", 1, 2)});
  EXPECT_EQ(observeAt(service, install, kFarLat, kPointLon, heard),
            (std::vector<Event>{{3, "entry"}}));
  // Standing on its location without hearing it: outside.
  EXPECT_EQ(observeAt(service, install, kLat, 12.0), (std::vector<Event>{{3, "exit"}}));
  for (const auto& other : {beacon(kUuid, 1, 3), beacon(kUuid, 2, 2),
                            beacon("E2C56DB5-DFFB-48D2-B060-D0F5A71096E1", 1, 2)}) {
    EXPECT_TRUE(observeAt(service, install, kFarLat, kPointLon, json::array({other})).empty())
        << other;
  }
}

TEST_F(ServiceEvents, EventsCarryTheFenceMessageForTheirTypeInFenceFileOrder) {
  // Inside the point fence and hearing the beacon: fence 1 comes first in the file.
  auto r = service.handle(
      "POST", "/observation", {},
      observationBody(install, kLat, kPointLon, json::array({beacon(kUuid, 1, 2)})).dump());
  ASSERT_EQ(r.status, 201);
  const auto events = parsed(r)["events"];
  ASSERT_EQ(events.size(), 2u) << r.body;
  EXPECT_EQ(events[0], json::parse(R"({"location_id": 1, "event_type": "entry",
      "data": {"zr:msg:title": "Hi", "zr:msg:body": "Come in", "coupon": "X1"}})"));
  EXPECT_EQ(events[1], json::parse(R"({"location_id": 3, "event_type": "entry"})"));

  advance(60s);
  EXPECT_EQ(parsed(service.handle("POST", "/observation", {},
                                  observationBody(install, kLat, kPointLon).dump()))["events"],
            json::parse(R"([{"location_id": 1, "event_type": "dwell", "data": {"stay": "long"}},
                            {"location_id": 3, "event_type": "exit"}])"));
}

TEST_F(ServiceEvents, FenceQueryAnswersTheFencesWithinTheRadiusWithoutTheirMessages) {
  auto query = [&](double lat, double lon, int radius) {
    auto r = service.handle("GET", "/install/location",
                            {{"install", std::to_string(install)},
                             {"lat", std::to_string(lat)},
                             {"long", std::to_string(lon)},
                             {"radius", std::to_string(radius)}},
                            "");
    EXPECT_EQ(r.status, 200) << r.body;
    std::vector<std::int64_t> ids;
    for (const auto& f : parsed(r)) {
      EXPECT_FALSE(f.contains("messages")) << f;
      ids.push_back(f["id"].get<std::int64_t>());
    }
    return ids;
  };
  // The polygon's west edge is 0.99 degrees of longitude (about 71 km) east of the point.
  EXPECT_EQ(query(kLat, kPointLon, 10000), (std::vector<std::int64_t>{1, 4}));
  EXPECT_EQ(query(kLat, 10.5, 10000), (std::vector<std::int64_t>{}));
  EXPECT_EQ(query(kLat, 11.5, 40000), (std::vector<std::int64_t>{2, 3}));
}

TEST_F(ServiceTest, FenceStateSurvivesARestartOnTheSameDatabase) {
  const auto db = std::filesystem::temp_directory_path() /
                  ("zonaris-service-" + std::to_string(::getpid()) + ".sqlite");
  std::filesystem::remove(db);
  std::int64_t install = 0;
  {
    ReferenceService first(options(fences(), db.string()));
    ASSERT_TRUE(first.ok()) << first.error();
    install = registerInstall(first);
    EXPECT_EQ(observeAt(first, install, kLat, kPointLon), (std::vector<Event>{{1, "entry"}}));
  }
  {
    ReferenceService second(options(fences(), db.string()));
    ASSERT_TRUE(second.ok()) << second.error();
    advance(60s);
    EXPECT_EQ(observeAt(second, install, kLat, kPointLon), (std::vector<Event>{{1, "dwell"}}));
    EXPECT_GT(registerInstall(second), install);
  }
  std::filesystem::remove(db);
}

}  // namespace
}  // namespace zonaris::service_tool::test
