// The reference service picks the fences to measure from its R*Tree; its answers must be those
// of measuring every fence, also across the antimeridian and around the poles, and they leave
// out the fences' messages.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "fences/geometry.hpp"
#include "zonaris-service/reference_service.hpp"

namespace zonaris::service_tool {
namespace {

using nlohmann::json;

TEST(FenceQueryIndex, AnswersAsMeasuringEveryFence) {
  std::mt19937_64 random(42);
  auto uniform = [&](double lo, double hi) {
    return std::uniform_real_distribution<>(lo, hi)(random);
  };
  // Centres: anywhere, at the antimeridian, near the poles.
  const std::pair<double, double> centres[] = {
      {12.5, 41.9}, {179.98, -17.0}, {-179.99, 65.0}, {40.0, 89.95}, {-120.0, -89.9}};
  json fences = json::array();
  int id = 0;
  for (const auto& [lon, lat] : centres) {
    for (int i = 0; i < 60; ++i, ++id) {
      const double x = lon + uniform(-0.4, 0.4);
      const double y = std::clamp(lat + uniform(-0.1, 0.1), -90.0, 90.0);
      const double w = uniform(0.0001, 0.05);
      const bool point = i % 3 == 0;
      fences.push_back(
          {{"id", id},
           {"type", point ? "point" : "polygon"},
           {"radius", point ? uniform(0, 3000) : 0.0},
           {"location", point
                            ? fmt::format("POINT ({} {})", x, y)
                            : fmt::format("POLYGON (({0} {1}, {2} {1}, {2} {3}, {0} {3}, {0} {1}))",
                                          x, y, x + w, std::min(90.0, y + w))},
           {"_event_types", {"entry"}}});
      if (i % 5 == 0)
        fences.back()["messages"] = {{"entry", {{"zr:msg:title", "Hi"}}}};
    }
  }
  ServiceOptions options;
  options.fences = fences;
  ReferenceService service(options);
  ASSERT_TRUE(service.ok()) << service.error();

  for (int q = 0; q < 400; ++q) {
    const auto& [lon, lat] = centres[q % 5];
    const double qLon = std::clamp(lon + uniform(-0.5, 0.5), -180.0, 180.0);
    const double qLat = std::clamp(lat + uniform(-0.2, 0.2), -90.0, 90.0);
    const double radius = q % 4 == 0 ? 10000 : uniform(0, 20000);
    const auto answer = service.handle("GET", "/install/location",
                                       {{"install", "1"},
                                        {"lat", fmt::format("{}", qLat)},
                                        {"long", fmt::format("{}", qLon)},
                                        {"radius", fmt::format("{}", radius)}},
                                       "");
    ASSERT_EQ(answer.status, 200) << answer.body;
    json expected = json::array();
    const auto point = fmt::format("POINT ({:.16g} {:.16g})", qLon, qLat);
    for (const auto& fence : fences) {
      const auto d = fences::distanceToGeometry(fence["location"].get<std::string>(), point);
      if (d.metres && *d.metres <= radius) {
        expected.push_back(fence);
        expected.back().erase("messages");
      }
    }
    ASSERT_EQ(json::parse(answer.body), expected) << point << " within " << radius;
  }
}

}  // namespace
}  // namespace zonaris::service_tool
