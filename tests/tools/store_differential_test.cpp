// The service answers the same bytes whether its state lives in SQLite or in PostgreSQL with
// PostGIS: one scripted stream of registrations, fence queries, observations (with beacons,
// coarse fixes and outliers) and an error report, on one fake clock, under both rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "support/postgres_server.hpp"
#include "zonaris/service/postgres_store.hpp"
#include "zonaris/service/reference_service.hpp"

namespace zonaris::service_tool {
namespace {

using nlohmann::json;

constexpr double kLat = 48.14;  // the walk's town
constexpr double kLon = 11.58;
constexpr const char* kUuid = "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5";

// Town fences (squares, points with a radius, one beacon) and fences where candidate search is
// hardest: across the antimeridian, near a pole, and one larger than the search indexes.
json fences(std::mt19937_64& random) {
  auto uniform = [&](double lo, double hi) {
    return std::uniform_real_distribution<>(lo, hi)(random);
  };
  auto square = [](double x, double y, double w) {
    return fmt::format("POLYGON (({0} {1}, {2} {1}, {2} {3}, {0} {3}, {0} {1}))", x, y, x + w,
                       std::min(90.0, y + w));
  };
  json out = json::array();
  for (int id = 1; id <= 120; ++id) {
    const double x = kLon + uniform(-0.02, 0.02), y = kLat + uniform(-0.015, 0.015);
    const bool point = id % 3 == 0;
    out.push_back({{"id", id},
                   {"type", point ? "point" : "polygon"},
                   {"radius", point ? std::round(uniform(20, 120)) : 0.0},
                   {"location", point ? fmt::format("POINT ({} {})", x, y)
                                      : square(x, y, uniform(0.0003, 0.002))},
                   {"_event_types", {"entry", "exit", "dwell"}},
                   {"_dwell_windows", {60, 300}},
                   {"messages", {{"entry", {{"zr:msg:title", fmt::format("Hello {}", id)}}}}}});
  }
  out.push_back({{"id", 500},
                 {"type", "beacon"},
                 {"location", "POINT (11.58 48.14)"},
                 {"uuid", kUuid},
                 {"major", 100},
                 {"minor", 7},
                 {"_event_types", {"entry", "exit"}}});
  const std::pair<double, double> edges[] = {{179.9995, -17.0}, {-179.9999, -17.0}, {40.0, 89.5}};
  for (int i = 0; i < 3; ++i)
    out.push_back({{"id", 600 + i},
                   {"type", "polygon"},
                   {"location", square(edges[i].first, edges[i].second, 0.0004)},
                   {"_event_types", {"entry"}}});
  out.push_back({{"id", 700},
                 {"type", "polygon"},
                 {"location", square(20.0, 30.0, 12.0)},
                 {"_event_types", {"entry", "exit"}}});
  return out;
}

struct Request {
  std::string method, path;
  std::map<std::string, std::string> query;
  std::string body;
};

// Three devices walking from fence to fence across town (GPS noise, now and then a coarse fix
// or an outlier, the beacon near its spot), fence queries along the way and at the edges, two
// registrations, an install id the service never issued, and an error report.
std::vector<Request> stream(std::mt19937_64& random, const json& fences) {
  auto uniform = [&](double lo, double hi) {
    return std::uniform_real_distribution<>(lo, hi)(random);
  };
  std::vector<Request> out = {{"POST", "/install", {}, R"({"appKey":"a"})"},
                              {"POST", "/install", {}, R"({"appKey":"b"})"}};
  auto fenceQuery = [&](std::int64_t install, double lat, double lon, double radius) {
    out.push_back({"GET",
                   "/install/location",
                   {{"install", std::to_string(install)},
                    {"lat", fmt::format("{}", lat)},
                    {"long", fmt::format("{}", lon)},
                    {"radius", fmt::format("{}", radius)}},
                   ""});
  };
  const std::int64_t installs[] = {1, 2, 1000};
  double lat[] = {kLat, kLat, kLat}, lon[] = {kLon, kLon, kLon};
  int target[] = {0, 1, 2}, stay[] = {0, 0, 0};
  for (int step = 0; step < 450; ++step) {
    const int d = step % 3;
    const auto& goal = fences[target[d]]["location"].get_ref<const std::string&>();
    double gx = 0, gy = 0;
    std::sscanf(goal.c_str() + goal.find_last_of('(') + 1, "%lf %lf", &gx, &gy);
    const double dy = (gy - lat[d]) * 111320.0, dx = (gx - lon[d]) * 74200.0;
    const double metres = std::hypot(dx, dy);
    if (metres > 30.0) {
      lat[d] += dy / metres * 30.0 / 111320.0;
      lon[d] += dx / metres * 30.0 / 74200.0;
    } else if (++stay[d] > 12) {
      stay[d] = 0;
      target[d] = static_cast<int>(uniform(0, 120));
    }
    if (step % 20 == 5)
      fenceQuery(installs[d], lat[d], lon[d], uniform(100, 3000));
    const bool outlier = step % 37 == 0, coarse = step % 23 == 0;
    json beacons = json::array();
    if (std::hypot(lat[d] - kLat, (lon[d] - kLon) * 0.67) < 0.002 && step % 2 == 0)
      beacons.push_back({{"uuid", kUuid}, {"major", 100}, {"minor", 7}, {"proximity", "near"}});
    const json doc = {{"gps",
                       {{"latitude", lat[d] + uniform(-8e-5, 8e-5) + (outlier ? 0.02 : 0.0)},
                        {"longitude", lon[d] + uniform(-1e-4, 1e-4)},
                        {"radius", coarse ? 400.0 : std::round(uniform(4, 40))}}},
                      {"beacons", beacons},
                      {"data", nullptr},
                      {"install", installs[d]}};
    out.push_back({"POST", "/observation", {}, doc.dump()});
    if (step == 100)
      out.push_back({"POST", "/install", {}, R"({"appKey":"after adoption"})"});
  }
  fenceQuery(1, -17.0, 179.9999, 800);
  fenceQuery(1, -17.0001, -179.9999, 800);
  fenceQuery(2, 89.45, 40.0, 20000);
  fenceQuery(2, 36.0, 26.0, 1000);
  fenceQuery(1000, 36.0, 32.5, 90000);
  out.push_back({"POST",
                 "/install/error",
                 {},
                 R"({"intall_id":1,"version":"1","data":{"reason":"r","callstack":[],)"
                 R"("variables_state":[]}})"});
  return out;
}

TEST(StoreDifferential, SqliteAndPostgresAnswerTheSameBytesUnderBothRules) {
  test::PostgresServer postgres;
  ASSERT_TRUE(postgres.ok()) << postgres.error();
  std::mt19937_64 random(25);
  const json catalogue = fences(random);
  const std::vector<Request> requests = stream(random, catalogue);

  for (ConfirmRule rule : {ConfirmRule::Exact, ConfirmRule::Robust}) {
    SCOPED_TRACE(rule == ConfirmRule::Exact ? "exact" : "robust");
    const std::string database = rule == ConfirmRule::Exact ? "exact" : "robust";
    ASSERT_TRUE(postgres.query("CREATE DATABASE " + database)) << postgres.error();
    std::string url = postgres.url();
    url = url.substr(0, url.rfind('/') + 1) + database;

    std::atomic<std::int64_t> clockMs{1'767'268'800'000};
    ServiceOptions options;
    options.fences = catalogue;
    options.confirm = rule;
    options.now = [&clockMs] {
      return std::chrono::system_clock::time_point(std::chrono::milliseconds(clockMs.load()));
    };
    ReferenceService sqlite(options);
    options.openStore = [url](const std::vector<Fence>& f, std::string& error) {
      return openPostgresStore(url, f, error);
    };
    ReferenceService postgis(options);
    ASSERT_TRUE(sqlite.ok()) << sqlite.error();
    ASSERT_TRUE(postgis.ok()) << postgis.error();

    int events = 0;
    for (std::size_t i = 0; i < requests.size(); ++i) {
      const Request& r = requests[i];
      clockMs += 10'000;
      const auto a = sqlite.handle(r.method, r.path, r.query, r.body);
      const auto b = postgis.handle(r.method, r.path, r.query, r.body);
      ASSERT_EQ(a.status, b.status) << "request " << i << ": " << r.path << " " << r.body;
      ASSERT_EQ(a.body, b.body) << "request " << i << ": " << r.path << " " << r.body;
      for (std::size_t at = 0; (at = a.body.find("\"event_type\"", at)) != std::string::npos;)
        ++events, ++at;
    }
    // The stream is worth comparing only if it confirms events.
    EXPECT_GT(events, 20);
  }
}

}  // namespace
}  // namespace zonaris::service_tool
