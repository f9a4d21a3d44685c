// The reference service picks the fences to measure from its R*Tree; its answers must be those
// of measuring every fence, also across the antimeridian and around the poles, and they leave
// out the fences' messages. Uncapped it answers in file order; capped, the nearest first.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "fences/geometry.hpp"
#include "zonaris/service/reference_service.hpp"

namespace zonaris::service_tool {
namespace {

using nlohmann::json;

TEST(FenceQueryIndex, AnswersAsMeasuringEveryFenceInFileOrderOrNearestFirstWhenCapped) {
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
  constexpr std::size_t kCap = 7;
  ServiceOptions options;
  options.fences = fences;
  options.maxFences = 0;
  ReferenceService uncapped(options);
  options.maxFences = kCap;
  ReferenceService capped(options);
  ASSERT_TRUE(uncapped.ok()) << uncapped.error();

  for (int q = 0; q < 400; ++q) {
    const auto& [lon, lat] = centres[q % 5];
    const double qLon = std::clamp(lon + uniform(-0.5, 0.5), -180.0, 180.0);
    const double qLat = std::clamp(lat + uniform(-0.2, 0.2), -90.0, 90.0);
    const double radius = q % 4 == 0 ? 10000 : uniform(0, 20000);
    const std::map<std::string, std::string> query = {{"install", "1"},
                                                      {"lat", fmt::format("{}", qLat)},
                                                      {"long", fmt::format("{}", qLon)},
                                                      {"radius", fmt::format("{}", radius)}};
    const auto point = fmt::format("POINT ({:.16g} {:.16g})", qLon, qLat);
    std::vector<std::pair<double, std::size_t>> within;
    for (std::size_t i = 0; i < fences.size(); ++i) {
      const auto d = fences::distanceToGeometry(fences[i]["location"].get<std::string>(), point);
      if (d.metres && *d.metres <= radius)
        within.emplace_back(*d.metres, i);
    }
    auto records = [&] {
      json out = json::array();
      for (const auto& [metres, i] : within) {
        out.push_back(fences[i]);
        out.back().erase("messages");
      }
      return out;
    };
    const auto all = uncapped.handle("GET", "/install/location", query, "");
    ASSERT_EQ(all.status, 200) << all.body;
    ASSERT_EQ(json::parse(all.body), records()) << point << " within " << radius;
    // Equal distances (inside several polygons) keep file order.
    std::stable_sort(within.begin(), within.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    within.resize(std::min(within.size(), kCap));
    ASSERT_EQ(json::parse(capped.handle("GET", "/install/location", query, "").body), records())
        << point << " within " << radius << ", nearest " << kCap;
  }
}

}  // namespace
}  // namespace zonaris::service_tool
