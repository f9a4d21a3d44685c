// A reference service on a fake clock, with helpers that speak its four exchanges.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "zonaris-service/reference_service.hpp"

namespace zonaris::service_tool::test {

using nlohmann::json;

/// Event as the service confirms it: (location id, event type).
using Event = std::pair<std::int64_t, std::string>;

inline json beacon(std::string uuid, int major, int minor) {
  return {{"uuid", std::move(uuid)}, {"major", major}, {"minor", minor}, {"proximity", "near"}};
}

inline json observationBody(std::int64_t install, double lat, double lon,
                            json beacons = json::array()) {
  return {{"gps", {{"latitude", lat}, {"longitude", lon}, {"radius", 5.0}}},
          {"beacons", std::move(beacons)},
          {"data", {{"tier", "gold"}}},
          {"install", install}};
}

class ServiceTest : public ::testing::Test {
 protected:
  /// Milliseconds since the epoch on the service clock; tests move it.
  std::atomic<std::int64_t> clockMs{1'767'268'800'000};

  ServiceOptions options(json fences, std::string db = ":memory:") {
    ServiceOptions o;
    o.fences = std::move(fences);
    o.dbPath = std::move(db);
    o.now = [this] {
      return std::chrono::system_clock::time_point(std::chrono::milliseconds(clockMs.load()));
    };
    return o;
  }

  void advance(std::chrono::milliseconds by) { clockMs += by.count(); }

  static json parsed(const ServiceResponse& r) {
    auto doc = json::parse(r.body, nullptr, false);
    EXPECT_FALSE(doc.is_discarded()) << r.body;
    return doc;
  }

  static std::int64_t registerInstall(const ReferenceService& s) {
    auto r = s.handle("POST", "/install", {}, R"({"appKey":"demo"})");
    EXPECT_EQ(r.status, 201) << r.body;
    auto doc = parsed(r);
    return doc.contains("id") && doc["id"].is_number_integer() ? doc["id"].get<std::int64_t>() : -1;
  }

  /// Posts an observation and answers the events, or fails the test on a non-201 answer.
  static std::vector<Event> observe(const ReferenceService& s, const json& body) {
    auto r = s.handle("POST", "/observation", {}, body.dump());
    EXPECT_EQ(r.status, 201) << r.body;
    std::vector<Event> events;
    auto doc = parsed(r);
    if (!doc.contains("events") || !doc["events"].is_array()) {
      ADD_FAILURE() << "no events array in " << r.body;
      return events;
    }
    for (const auto& e : doc["events"])
      events.emplace_back(e["location_id"].get<std::int64_t>(), e["event_type"].get<std::string>());
    return events;
  }

  static std::vector<Event> observeAt(const ReferenceService& s, std::int64_t install, double lat,
                                      double lon, json beacons = json::array()) {
    return observe(s, observationBody(install, lat, lon, std::move(beacons)));
  }
};

}  // namespace zonaris::service_tool::test
