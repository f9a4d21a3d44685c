// Fence shapes as GeoJSON and a track thinned for drawing, through GEOS's reentrant C API and
// the client's own GEOS handles.
#include "geometry.hpp"

#include <geos_c.h>

#include <cmath>
#include <numbers>

#include "fences/geos_support.hpp"

namespace zonaris::report_tool {

namespace {

namespace geos = fences::geos;

void roundCoordinates(nlohmann::json& value, int decimals) {
  if (value.is_number_float()) {
    value = rounded(value.get<double>(), decimals);
  } else if (value.is_array() || value.is_object()) {
    for (auto& item : value)
      roundCoordinates(item, decimals);
  }
}

// Metres east and north of a reference latitude: near enough to a plane for a day's track.
constexpr double kMetresPerDegree = 6378137.0 * std::numbers::pi / 180.0;

}  // namespace

double rounded(double value, int decimals) {
  const double scale = std::pow(10.0, decimals);
  return std::round(value * scale) / scale;
}

std::optional<nlohmann::json> geoJsonOfWkt(const std::string& wkt) {
  // The client's own reader: it bounds size and nesting before GEOS recurses into the text,
  // and accepts exactly the fences the client can measure.
  std::string why;
  auto [context, reader] = geos::openThreadReader(why);
  if (!reader)
    return std::nullopt;
  GEOSContextHandle_t ctx = context->get();
  const geos::GeomPtr geometry = geos::readGeometry(*context, reader.get(), wkt, why);
  const geos::GeoJsonWriterPtr writer(GEOSGeoJSONWriter_create_r(ctx), geos::Release{ctx});
  if (!geometry || !writer)
    return std::nullopt;
  const geos::TextPtr text(GEOSGeoJSONWriter_writeGeometry_r(ctx, writer.get(), geometry.get(), -1),
                           geos::Release{ctx});
  if (!text)
    return std::nullopt;
  auto json = nlohmann::json::parse(text.get(), nullptr, false);
  if (json.is_discarded() || !json.is_object())
    return std::nullopt;
  roundCoordinates(json["coordinates"], 7);
  if (json.contains("geometries"))
    roundCoordinates(json["geometries"], 7);
  return json;
}

std::vector<std::array<double, 2>> simplifyTrack(const std::vector<std::array<double, 2>>& points,
                                                 double toleranceMetres, std::size_t maxPoints) {
  std::vector<std::array<double, 2>> out;
  if (points.size() < 3) {
    for (const auto& p : points)
      out.push_back({rounded(p[0], 6), rounded(p[1], 6)});
    return out;
  }
  GEOSContextHandle_t ctx = geos::threadContext().get();
  if (ctx == nullptr)
    return out;
  const double east = kMetresPerDegree * std::cos(points.front()[0] * std::numbers::pi / 180.0);
  auto line = [&]() -> geos::GeomPtr {
    GEOSCoordSequence* sequence =
        GEOSCoordSeq_create_r(ctx, static_cast<unsigned>(points.size()), 2);
    if (sequence == nullptr)
      return geos::GeomPtr(nullptr, geos::Release{ctx});
    for (unsigned i = 0; i < points.size(); ++i)
      GEOSCoordSeq_setXY_r(ctx, sequence, i, points[i][1] * east, points[i][0] * kMetresPerDegree);
    // The line takes the sequence, also when it fails.
    return geos::GeomPtr(GEOSGeom_createLineString_r(ctx, sequence), geos::Release{ctx});
  }();
  if (!line)
    return out;

  for (double tolerance = toleranceMetres;; tolerance *= 2.0) {
    const geos::GeomPtr simple(GEOSSimplify_r(ctx, line.get(), tolerance), geos::Release{ctx});
    const GEOSCoordSequence* sequence =
        simple ? GEOSGeom_getCoordSeq_r(ctx, simple.get()) : nullptr;
    unsigned size = 0;
    if (sequence == nullptr || GEOSCoordSeq_getSize_r(ctx, sequence, &size) == 0)
      return out;
    if (size > maxPoints && tolerance < 1e6)
      continue;
    out.clear();
    out.reserve(size);
    for (unsigned i = 0; i < size; ++i) {
      double x = 0, y = 0;
      GEOSCoordSeq_getXY_r(ctx, sequence, i, &x, &y);
      out.push_back({rounded(y / kMetresPerDegree, 6), rounded(x / east, 6)});
    }
    return out;
  }
}

}  // namespace zonaris::report_tool
