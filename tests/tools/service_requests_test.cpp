// Requests the service refuses, and fences it refuses to start with.
#include "tools/service_fixture.hpp"

namespace zonaris::service_tool::test {
namespace {

json oneFence() {
  return json::parse(R"j([{"id": 1, "type": "point", "location": "POINT (10 50)", "radius": 100,
                          "_event_types": ["entry"]}])j");
}

const json kGone(json::value_t::discarded);

// One bad request: a good one of its exchange with `key` (a JSON pointer into the body, or a
// query parameter) set to `value` or, when `value` is kGone, removed. An empty key sends
// `value`'s text as the whole body.
struct Bad {
  const char* name;
  const char* path;
  std::string key;
  json value;
};

std::ostream& operator<<(std::ostream& os, const Bad& b) {
  return os << b.name;
}

json goodBody(const std::string& path) {
  if (path == "/install")
    return {{"appKey", "demo"}};
  if (path == "/observation")
    return observationBody(1, 50.0, 10.0);
  return {{"intall_id", 1},
          {"data",
           {{"reason", "Get fences failed"},
            {"callstack", {"0 zonaris 0x1"}},
            {"variables_state", json::array({{{"name", "fences"}, {"value", "nil"}}})}}},
          {"version", "2.0.03.30"}};
}

ServiceResponse send(const ReferenceService& s, const Bad& bad) {
  if (std::string(bad.path) == "/install/location") {
    std::map<std::string, std::string> query = {
        {"install", "1"}, {"lat", "50.000000"}, {"long", "10.000000"}, {"radius", "10000"}};
    if (bad.value.is_discarded())
      query.erase(bad.key);
    else
      query[bad.key] = bad.value.get<std::string>();
    return s.handle("GET", bad.path, query, "");
  }
  std::string body = bad.key.empty() ? bad.value.get<std::string>() : "";
  if (!bad.key.empty()) {
    json doc = goodBody(bad.path);
    const json::json_pointer at(bad.key);
    if (bad.value.is_discarded())
      doc.at(at.parent_pointer()).erase(at.back());
    else
      doc[at] = bad.value;
    body = doc.dump();
  }
  return s.handle("POST", bad.path, {}, body);
}

class ServiceRefuses : public ServiceTest, public ::testing::WithParamInterface<Bad> {};

// A refused request answers 400 with a reason and changes nothing: the next install and report
// ids follow on, and the device's entry is still to come.
TEST_P(ServiceRefuses, BadInputWith400AndChangesNothing) {
  ReferenceService service(options(oneFence()));
  ASSERT_EQ(registerInstall(service), 1);
  const Bad goodReport{"", "/install/error", "/version", "x"};
  ASSERT_EQ(parsed(send(service, goodReport))["id"], 1);

  auto r = send(service, GetParam());
  EXPECT_EQ(r.status, 400) << r.body;
  auto doc = parsed(r);
  EXPECT_TRUE(doc.is_object() && doc.contains("error") && doc["error"].is_string()) << r.body;

  EXPECT_EQ(registerInstall(service), 2);
  EXPECT_EQ(parsed(send(service, goodReport))["id"], 2);
  EXPECT_EQ(observeAt(service, 1, 50.0, 10.0), (std::vector<Event>{{1, "entry"}}));
}

INSTANTIATE_TEST_SUITE_P(
    AllExchanges, ServiceRefuses,
    ::testing::Values(
        Bad{"InstallNotJson", "/install", "", "{appKey: demo"},
        Bad{"InstallNoKey", "/install", "/appKey", kGone},
        Bad{"InstallKeyNumber", "/install", "/appKey", 7},
        Bad{"QueryNoInstall", "/install/location", "install", kGone},
        Bad{"QueryUnknownInstall", "/install/location", "install", "9"},
        Bad{"QueryLatitude91", "/install/location", "lat", "91.0"},
        Bad{"QueryLatitudeTrailing", "/install/location", "lat", "50.0x"},
        Bad{"QueryRadiusHuge", "/install/location", "radius", "1e9"},
        Bad{"ObservationArray", "/observation", "", "[]"},
        Bad{"ObservationNoGps", "/observation", "/gps", kGone},
        Bad{"ObservationLatitude95", "/observation", "/gps/latitude", 95.0},
        Bad{"ObservationLongitude200", "/observation", "/gps/longitude", 200},
        Bad{"ObservationLatitudeText", "/observation", "/gps/latitude", "50"},
        Bad{"ObservationAccuracyNegative", "/observation", "/gps/radius", -1.0},
        Bad{"ObservationAccuracyHuge", "/observation", "/gps/radius", 1e300},
        Bad{"ObservationNoBeacons", "/observation", "/beacons", kGone},
        Bad{"ObservationBeaconMajorText", "/observation", "/beacons/0",
            json::parse(R"({"uuid": "u", "major": "1", "minor": 2, "proximity": "near"})")},
        Bad{"ObservationTagsText", "/observation", "/data", "tags"},
        Bad{"ObservationUnknownInstall", "/observation", "/install", 9},
        Bad{"ObservationInstallFraction", "/observation", "/install", 1.5},
        Bad{"ErrorNotJson", "/install/error", "", ""},
        Bad{"ErrorDataText", "/install/error", "/data", "boom"},
        Bad{"ErrorStackNumbers", "/install/error", "/data/callstack/0", 1},
        Bad{"ErrorNoVersion", "/install/error", "/version", kGone}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ServiceTest, UnknownPathsAndMethodsAreAnsweredInJson) {
  ReferenceService service(options(oneFence()));
  for (auto [method, path, status] :
       {std::tuple{"GET", "/fences", 404}, std::tuple{"GET", "/observation", 405}}) {
    auto r = service.handle(method, path, {}, "");
    EXPECT_EQ(r.status, status);
    EXPECT_TRUE(parsed(r).contains("error")) << r.body;
  }
}

struct BadFences {
  const char* name;
  const char* fences;
  const char* expected;  // part of the error line after "fences: "
};

std::ostream& operator<<(std::ostream& os, const BadFences& b) {
  return os << b.name;
}

class ServiceRejectsFences : public ServiceTest, public ::testing::WithParamInterface<BadFences> {};

TEST_P(ServiceRejectsFences, NamingTheElement) {
  ReferenceService service(options(json::parse(GetParam().fences)));
  EXPECT_FALSE(service.ok());
  EXPECT_NE(service.error().find(std::string("fences: ") + GetParam().expected), std::string::npos)
      << service.error();
  EXPECT_EQ(service.handle("POST", "/install", {}, R"({"appKey":"demo"})").status, 500);
}

#define POINT_FENCE R"j("type": "point", "location": "POINT (10 50)")j"
INSTANTIATE_TEST_SUITE_P(
    Validation, ServiceRejectsFences,
    ::testing::Values(
        BadFences{"NotAnArray", R"({"id": 1})", "the fences must be a JSON array"},
        BadFences{"ElementNotObject", "[1]", "element 0: not a JSON object"},
        BadFences{"IdText", R"([{"id": "1", )" POINT_FENCE "}]", "element 0: \"id\""},
        BadFences{"UnreadableWkt", R"j([{"id": 1, "location": "POINT (10"}])j",
                  "element 0: \"location\" is not WKT"},
        BadFences{"DuplicateId", R"([{"id": 1, )" POINT_FENCE "}, {\"id\": 1, " POINT_FENCE "}]",
                  "element 1: \"id\" 1 is already used by element 0"},
        BadFences{"BeaconWithoutUuid",
                  R"j([{"id": 1, "type": "beacon", "location": "POINT (1 1)", "major": 1,
                       "minor": 1}])j",
                  "element 0: a \"beacon\" fence needs a \"uuid\""},
        BadFences{"MessageForUnknownEvent",
                  R"([{"id": 1, "messages": {"enter": {}}, )" POINT_FENCE "}]",
                  "element 0: \"messages\" has \"enter\""}),
    [](const auto& info) { return std::string(info.param.name); });
#undef POINT_FENCE

}  // namespace
}  // namespace zonaris::service_tool::test
