// Requests the service refuses, and fences files it refuses to start with.
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tools/service_fixture.hpp"

namespace zonaris::service_tool::test {
namespace {

json oneFence() {
  return json::parse(R"j([{"id": 1, "type": "point", "location": "POINT (10 50)", "radius": 100,
                          "_event_types": ["entry"]}])j");
}

struct BadRequest {
  const char* name;
  const char* method;
  const char* path;
  std::map<std::string, std::string> query;
  std::string body;
};

std::ostream& operator<<(std::ostream& os, const BadRequest& b) {
  return os << b.name;
}

// An observation inside the fence, with one change applied.
std::string observationWith(const char* pointer, json value) {
  json body = observationBody(1, 50.0, 10.0);
  if (value.is_discarded())
    body.erase(json::json_pointer(pointer).back());  // only used for top-level keys
  else
    body[json::json_pointer(pointer)] = std::move(value);
  return body.dump();
}

json missing() {
  return json(json::value_t::discarded);
}

std::map<std::string, std::string> queryWith(const std::string& key, const char* value) {
  std::map<std::string, std::string> q = {
      {"install", "1"}, {"lat", "50.000000"}, {"long", "10.000000"}, {"radius", "10000"}};
  if (value)
    q[key] = value;
  else
    q.erase(key);
  return q;
}

std::string errorReportWith(const char* pointer, json value) {
  json body = {{"intall_id", 1},
               {"data",
                {{"reason", "Get fences failed"},
                 {"callstack", {"0 zonaris 0x1"}},
                 {"variables_state", json::array({{{"name", "fences"}, {"value", "nil"}}})}}},
               {"version", "2.0.03.30"}};
  if (value.is_discarded())
    body.erase(json::json_pointer(pointer).back());
  else
    body[json::json_pointer(pointer)] = std::move(value);
  return body.dump();
}

class ServiceRefuses : public ServiceTest, public ::testing::WithParamInterface<BadRequest> {};

// A refused request answers 400 with a reason and leaves every table as it was: the next
// install, observation and report ids follow on, and the device's entry is still to come.
TEST_P(ServiceRefuses, BadInputWith400AndChangesNothing) {
  ReferenceService service(options(oneFence()));
  ASSERT_TRUE(service.ok()) << service.error();
  ASSERT_EQ(registerInstall(service), 1);
  auto reportId = [&] {
    return parsed(
        service.handle("POST", "/install/error", {}, errorReportWith("/version", "x")))["id"];
  };
  ASSERT_EQ(reportId(), 1);

  const auto& bad = GetParam();
  auto r = service.handle(bad.method, bad.path, bad.query, bad.body);
  EXPECT_EQ(r.status, 400) << r.body;
  auto doc = parsed(r);
  ASSERT_TRUE(doc.is_object() && doc.contains("error") && doc["error"].is_string()) << r.body;
  EXPECT_FALSE(doc["error"].get<std::string>().empty());

  EXPECT_EQ(registerInstall(service), 2);
  EXPECT_EQ(reportId(), 2);
  auto accepted = service.handle("POST", "/observation", {}, observationWith("/install", 1));
  EXPECT_EQ(parsed(accepted), json::parse(R"({"id": 1, "events": [
      {"location_id": 1, "event_type": "entry"}]})"));
}

INSTANTIATE_TEST_SUITE_P(
    AllExchanges, ServiceRefuses,
    ::testing::Values(
        BadRequest{"InstallNotJson", "POST", "/install", {}, "{appKey: demo"},
        BadRequest{"InstallArray", "POST", "/install", {}, R"(["demo"])"},
        BadRequest{"InstallNoKey", "POST", "/install", {}, "{}"},
        BadRequest{"InstallKeyNumber", "POST", "/install", {}, R"({"appKey": 7})"},
        BadRequest{"InstallKeyEmpty", "POST", "/install", {}, R"({"appKey": ""})"},
        BadRequest{"QueryNoInstall", "GET", "/install/location", queryWith("install", nullptr), ""},
        BadRequest{"QueryInstallText", "GET", "/install/location", queryWith("install", "one"), ""},
        BadRequest{"QueryUnknownInstall", "GET", "/install/location", queryWith("install", "9"),
                   ""},
        BadRequest{"QueryLatitude91", "GET", "/install/location", queryWith("lat", "91.0"), ""},
        BadRequest{"QueryLongitude181", "GET", "/install/location", queryWith("long", "-180.5"),
                   ""},
        BadRequest{"QueryLatitudeNaN", "GET", "/install/location", queryWith("lat", "nan"), ""},
        BadRequest{"QueryLatitudeTrailing", "GET", "/install/location", queryWith("lat", "50.0x"),
                   ""},
        BadRequest{"QueryRadiusNegative", "GET", "/install/location", queryWith("radius", "-1"),
                   ""},
        BadRequest{"QueryRadiusHuge", "GET", "/install/location", queryWith("radius", "1e9"), ""},
        BadRequest{"ObservationNotJson", "POST", "/observation", {}, "gps=1"},
        BadRequest{"ObservationArray", "POST", "/observation", {}, "[]"},
        BadRequest{
            "ObservationNoGps", "POST", "/observation", {}, observationWith("/gps", missing())},
        BadRequest{"ObservationLatitude95",
                   "POST",
                   "/observation",
                   {},
                   observationWith("/gps/latitude", 95.0)},
        BadRequest{"ObservationLongitude200",
                   "POST",
                   "/observation",
                   {},
                   observationWith("/gps/longitude", 200)},
        BadRequest{"ObservationLatitudeText",
                   "POST",
                   "/observation",
                   {},
                   observationWith("/gps/latitude", "50")},
        BadRequest{"ObservationAccuracyNegative",
                   "POST",
                   "/observation",
                   {},
                   observationWith("/gps/radius", -1.0)},
        BadRequest{"ObservationAccuracyHuge",
                   "POST",
                   "/observation",
                   {},
                   observationWith("/gps/radius", 1e300)},
        BadRequest{"ObservationNoBeacons",
                   "POST",
                   "/observation",
                   {},
                   observationWith("/beacons", missing())},
        BadRequest{"ObservationBeaconMajorText",
                   "POST",
                   "/observation",
                   {},
                   observationWith("/beacons", json::parse(R"([{"uuid": "u", "major": "1",
                                                     "minor": 2, "proximity": "near"}])"))},
        BadRequest{"ObservationBeaconMinorHuge",
                   "POST",
                   "/observation",
                   {},
                   observationWith("/beacons", json::array({beacon("u", 1, 70000)}))},
        BadRequest{
            "ObservationTagsText", "POST", "/observation", {}, observationWith("/data", "tags")},
        BadRequest{"ObservationNoInstall",
                   "POST",
                   "/observation",
                   {},
                   observationWith("/install", missing())},
        BadRequest{"ObservationUnknownInstall",
                   "POST",
                   "/observation",
                   {},
                   observationWith("/install", 9)},
        BadRequest{"ObservationInstallFraction",
                   "POST",
                   "/observation",
                   {},
                   observationWith("/install", 1.5)},
        BadRequest{"ErrorNotJson", "POST", "/install/error", {}, ""},
        BadRequest{"ErrorNoInstall",
                   "POST",
                   "/install/error",
                   {},
                   errorReportWith("/intall_id", missing())},
        BadRequest{"ErrorDataText", "POST", "/install/error", {}, errorReportWith("/data", "boom")},
        BadRequest{"ErrorStackNumbers",
                   "POST",
                   "/install/error",
                   {},
                   errorReportWith("/data/callstack", json::array({1, 2}))},
        BadRequest{"ErrorVariableNameless",
                   "POST",
                   "/install/error",
                   {},
                   errorReportWith("/data/variables_state", json::parse(R"([{"value": 1}])"))},
        BadRequest{"ErrorNoVersion",
                   "POST",
                   "/install/error",
                   {},
                   errorReportWith("/version", missing())}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ServiceTest, UnknownPathsAndMethodsAreAnsweredInJson) {
  ReferenceService service(options(oneFence()));
  auto notFound = service.handle("GET", "/fences", {}, "");
  EXPECT_EQ(notFound.status, 404);
  EXPECT_TRUE(parsed(notFound).contains("error"));
  auto wrongMethod = service.handle("GET", "/observation", {}, "");
  EXPECT_EQ(wrongMethod.status, 405);
  EXPECT_TRUE(parsed(wrongMethod).contains("error"));
}

TEST_F(ServiceTest, ErrorReportsBeforeRegistrationAreKept) {
  ReferenceService service(options(oneFence()));
  auto r = service.handle("POST", "/install/error", {}, errorReportWith("/intall_id", -1));
  EXPECT_EQ(r.status, 201) << r.body;
  EXPECT_EQ(parsed(r), json::parse(R"({"id": 1})"));
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
        BadFences{"NoId", "[{" POINT_FENCE "}]", "element 0: \"id\" is missing"},
        BadFences{"IdText", R"([{"id": "1", )" POINT_FENCE "}]", "element 0: \"id\""},
        BadFences{"NoLocation", R"([{"id": 1}])", "element 0: \"location\""},
        BadFences{"UnreadableWkt", R"j([{"id": 1, "location": "POINT (10"}])j",
                  "element 0: \"location\" is not WKT"},
        BadFences{"DuplicateId", R"([{"id": 1, )" POINT_FENCE "}, {\"id\": 1, " POINT_FENCE "}]",
                  "element 1: \"id\" 1 is already used by element 0"},
        BadFences{"NegativeRadius", R"([{"id": 1, "radius": -5, )" POINT_FENCE "}]",
                  "element 0: \"radius\""},
        BadFences{"BeaconWithoutUuid",
                  R"j([{"id": 1, "type": "beacon", "location": "POINT (1 1)", "major": 1,
                       "minor": 1}])j",
                  "element 0: a \"beacon\" fence needs a \"uuid\""},
        BadFences{"DwellWindowNegative", R"([{"id": 1, "_dwell_windows": [-1], )" POINT_FENCE "}]",
                  "element 0: \"_dwell_windows\""},
        BadFences{"MessageForUnknownEvent",
                  R"([{"id": 1, "messages": {"enter": {}}, )" POINT_FENCE "}]",
                  "element 0: \"messages\" has \"enter\""}),
    [](const auto& info) { return std::string(info.param.name); });
#undef POINT_FENCE

TEST(ServiceFencesFile, ErrorsNameTheFile) {
  const auto dir = std::filesystem::temp_directory_path() /
                   ("zonaris-service-files-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  const auto write = [&](const char* name, const char* text) {
    std::ofstream(dir / name) << text;
    return (dir / name).string();
  };
  struct Case {
    std::string path;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {(dir / "absent.json").string(), "absent.json: cannot open"},
      {write("broken.json", "[{\"id\": 1,"), "broken.json: not valid JSON"},
      {write("second.json", R"j([{"id": 1, "location": "POINT (1 1)"}, {"id": 2}])j"),
       "second.json: element 1: \"location\""},
  };
  for (const auto& c : cases) {
    ServiceOptions o;
    o.fencesFile = c.path;
    ReferenceService service(std::move(o));
    EXPECT_FALSE(service.ok());
    EXPECT_NE(service.error().find(c.expected), std::string::npos) << service.error();
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace zonaris::service_tool::test
