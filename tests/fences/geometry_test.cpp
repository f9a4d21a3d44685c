// Distances from fence geometries to the device, and what unreadable or hostile text does.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "fence_fixture.hpp"
#include "fences/geometry.hpp"

namespace zonaris {
namespace {

using test::kMetresPerDegree;

// Great-circle distance by the arcsine form of the haversine: an independent formula, so a
// swapped argument or a wrong constant in the library shows up.
double arcsineMetres(double lon1, double lat1, double lon2, double lat2) {
  const double r = M_PI / 180.0;
  const double h =
      std::pow(std::sin((lat2 - lat1) * r / 2), 2) +
      std::cos(lat1 * r) * std::cos(lat2 * r) * std::pow(std::sin((lon2 - lon1) * r / 2), 2);
  return 2 * 6378137.0 * std::asin(std::sqrt(h));
}

struct DistanceCase {
  const char* name;
  const char* fence;
  const char* point;
  double metres;
};

class GeometryDistance : public ::testing::TestWithParam<DistanceCase> {};

TEST_P(GeometryDistance, MeasuresFromTheNearestPointOfTheFence) {
  const auto result = fences::distanceToGeometry(GetParam().fence, GetParam().point);
  ASSERT_TRUE(result.fenceReadable && result.pointReadable) << result.diagnostic;
  ASSERT_TRUE(result.metres);
  EXPECT_NEAR(*result.metres, GetParam().metres, 1e-6);
  EXPECT_GE(*result.metres, 0.0);
}

const DistanceCase kDistances[] = {
    {"SamePoint", "POINT (13.4 52.5)", "POINT (13.4 52.5)", 0.0},
    {"OneDegreeNorthAtTheEquator", "POINT (0 0)", "POINT (0 1)", kMetresPerDegree},
    {"OneDegreeEastAtTheEquator", "POINT (0 0)", "POINT (1 0)", kMetresPerDegree},
    {"InsideAPolygon", "POLYGON ((0 0, 1 0, 1 1, 0 1, 0 0))", "POINT (0.5 0.5)", 0.0},
    {"EastOfAPolygon", "POLYGON ((0 0, 1 0, 1 1, 0 1, 0 0))", "POINT (2 0.5)",
     arcsineMetres(1, 0.5, 2, 0.5)},
    {"InAPolygonsHole", "POLYGON ((0 0, 4 0, 4 4, 0 4, 0 0), (1 1, 3 1, 3 3, 1 3, 1 1))",
     "POINT (2 1.5)", arcsineMetres(2, 1, 2, 1.5)},
    {"NearerPartOfAMultiPolygon",
     "MULTIPOLYGON (((0 0, 1 0, 1 1, 0 1, 0 0)), ((5 0, 6 0, 6 1, 5 1, 5 0)))", "POINT (4 0.5)",
     arcsineMetres(5, 0.5, 4, 0.5)},
    {"BesideALine", "LINESTRING (0 0, 0 2)", "POINT (1 1)", arcsineMetres(0, 1, 1, 1)},
    {"InsideANestedCollection",
     "GEOMETRYCOLLECTION (GEOMETRYCOLLECTION (POLYGON ((0 0, 1 0, 1 1, 0 1, 0 0))))",
     "POINT (0.25 0.75)", 0.0},
    {"ParisToLondon", "POINT (2.3522 48.8566)", "POINT (-0.1276 51.5072)",
     arcsineMetres(2.3522, 48.8566, -0.1276, 51.5072)},
};

INSTANTIATE_TEST_SUITE_P(Shapes, GeometryDistance, ::testing::ValuesIn(kDistances),
                         [](const auto& info) { return std::string(info.param.name); });

// Printing the device point with fmt must give exactly what printf's "%.16g" gives, and the
// distance log's "{:f}" what "%f" gives, down to the largest double.
TEST(DeviceText, FormatsNumbersExactlyAsPrintfDoes) {
  const double values[] = {0.0,
                           -0.0,
                           1.0,
                           -122.41941550000001,
                           51.507199999999997,
                           1e-5,
                           1.5e-7,
                           123456789012345678.0,
                           0.1 + 0.2,
                           1e16,
                           1e15,
                           -179.99999999999997,
                           DBL_MIN,
                           DBL_MAX,
                           1.0 / 3,
                           std::nextafter(90.0, 0.0)};
  for (double lon : values) {
    char expected[128];
    std::snprintf(expected, sizeof expected, "POINT (%.16g %.16g)", lon, -lon);
    EXPECT_EQ(fences::devicePointWkt(lon, -lon), expected);

    std::string printed(400, '\0');
    printed.resize(std::snprintf(printed.data(), printed.size(), "%f", lon));
    EXPECT_EQ(fmt::format("{:f}", lon), printed);
  }
}

// Hostile or broken text: reported once with the missing geometries named, and measured as
// infinitely far.
struct UnreadableCase {
  const char* name;
  std::string fence;
  std::string point;
  std::vector<const char*> missing;
};

std::string deeplyNestedCollection(int levels) {
  std::string text;
  for (int i = 0; i < levels; ++i)
    text += "GEOMETRYCOLLECTION (";
  text += "POINT (0 0)";
  text.append(levels, ')');
  return text;
}

std::string enormousLine() {
  std::string text = "LINESTRING (0 0";
  while (text.size() <= (1u << 20))
    text += ", 0.000001 0.000001";
  return text + ")";
}

class UnreadableGeometry : public test::FenceFixture,
                           public ::testing::WithParamInterface<UnreadableCase> {};

TEST_P(UnreadableGeometry, IsReportedAndCountsAsInfinitelyFar) {
  EXPECT_EQ(client->calculateDistanceFrom(GetParam().fence, GetParam().point),
            1.7976931348623157e308);
  const auto reports = errorReports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0]["reason"], "Calculate distance error");
  nlohmann::json expected = nlohmann::json::array();
  for (const char* name : GetParam().missing)
    expected.push_back({{"name", name}, {"value", "nil"}});
  EXPECT_EQ(reports[0]["variables_state"], expected);
}

const UnreadableCase kUnreadable[] = {
    {"EmptyFence", "", "POINT (0 0)", {"geometry1"}},
    {"GarbageFence", "not a geometry", "POINT (0 0)", {"geometry1"}},
    {"EmptyGeometry", "POLYGON EMPTY", "POINT (0 0)", {"geometry1"}},
    {"NaNCoordinate", "POINT (nan 0)", "POINT (0 0)", {"geometry1"}},
    {"OverflowingCoordinate", "LINESTRING (0 0, 1e400 0)", "POINT (0 0)", {"geometry1"}},
    {"DeeplyNestedFence", deeplyNestedCollection(100000), "POINT (0 0)", {"geometry1"}},
    {"EnormousFence", enormousLine(), "POINT (0 0)", {"geometry1"}},
    {"DevicePointIsALine", "POINT (0 0)", "LINESTRING (0 0, 1 1)", {"geometry2"}},
    {"DevicePointIsNaN", "POINT (0 0)", "POINT (nan nan)", {"geometry2"}},
    {"BothBroken", "garbage", "", {"geometry1", "geometry2"}},
};

INSTANTIATE_TEST_SUITE_P(Texts, UnreadableGeometry, ::testing::ValuesIn(kUnreadable),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(GeometryBounds, AcceptsTheNestingAFenceActuallyUses) {
  const auto shallow = fences::distanceToGeometry(deeplyNestedCollection(30), "POINT (0 0)");
  EXPECT_TRUE(shallow.metres) << shallow.diagnostic;
  const auto deep = fences::distanceToGeometry(deeplyNestedCollection(40), "POINT (0 0)");
  EXPECT_FALSE(deep.fenceReadable);
}

}  // namespace
}  // namespace zonaris
