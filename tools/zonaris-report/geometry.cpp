// Fence shapes as GeoJSON and a track thinned for drawing, through GEOS's reentrant C API.
#include "geometry.hpp"

#include <geos_c.h>

#include <cmath>
#include <memory>
#include <numbers>

#include "fences/geometry.hpp"

namespace zonaris::report_tool {

namespace {

// A GEOS context of our own; its handlers only record the message (nothing may throw through
// GEOS's C frames).
class Context {
 public:
  Context() : handle_(GEOS_init_r()) {
    if (handle_ != nullptr)
      GEOSContext_setErrorMessageHandler_r(handle_, &Context::ignore, nullptr);
  }
  ~Context() {
    if (handle_ != nullptr)
      GEOS_finish_r(handle_);
  }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;
  GEOSContextHandle_t get() const { return handle_; }

 private:
  static void ignore(const char*, void*) {}
  GEOSContextHandle_t handle_;
};

// Releases each GEOS object with the context that made it; objects die before their context.
struct Release {
  GEOSContextHandle_t context;
  void operator()(GEOSGeometry* g) const { GEOSGeom_destroy_r(context, g); }
  void operator()(GEOSWKTReader* r) const { GEOSWKTReader_destroy_r(context, r); }
  void operator()(GEOSGeoJSONWriter* w) const { GEOSGeoJSONWriter_destroy_r(context, w); }
  void operator()(char* text) const { GEOSFree_r(context, text); }
};
template <typename T>
using Owned = std::unique_ptr<T, Release>;

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
  // The client's own reader bounds size and nesting before GEOS recurses into the text.
  if (!fences::distanceToGeometry(wkt, "POINT (0 0)").fenceReadable)
    return std::nullopt;
  Context context;
  GEOSContextHandle_t ctx = context.get();
  if (ctx == nullptr)
    return std::nullopt;
  Owned<GEOSWKTReader> reader(GEOSWKTReader_create_r(ctx), Release{ctx});
  if (!reader)
    return std::nullopt;
  Owned<GEOSGeometry> geometry(GEOSWKTReader_read_r(ctx, reader.get(), wkt.c_str()), Release{ctx});
  Owned<GEOSGeoJSONWriter> writer(GEOSGeoJSONWriter_create_r(ctx), Release{ctx});
  if (!geometry || !writer)
    return std::nullopt;
  Owned<char> text(GEOSGeoJSONWriter_writeGeometry_r(ctx, writer.get(), geometry.get(), -1),
                   Release{ctx});
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
  Context context;
  GEOSContextHandle_t ctx = context.get();
  if (ctx == nullptr)
    return out;
  const double east = kMetresPerDegree * std::cos(points.front()[0] * std::numbers::pi / 180.0);
  auto line = [&]() -> Owned<GEOSGeometry> {
    GEOSCoordSequence* sequence =
        GEOSCoordSeq_create_r(ctx, static_cast<unsigned>(points.size()), 2);
    if (sequence == nullptr)
      return Owned<GEOSGeometry>(nullptr, Release{ctx});
    for (unsigned i = 0; i < points.size(); ++i)
      GEOSCoordSeq_setXY_r(ctx, sequence, i, points[i][1] * east, points[i][0] * kMetresPerDegree);
    // The line takes the sequence, also when it fails.
    return Owned<GEOSGeometry>(GEOSGeom_createLineString_r(ctx, sequence), Release{ctx});
  }();
  if (!line)
    return out;

  for (double tolerance = toleranceMetres;; tolerance *= 2.0) {
    Owned<GEOSGeometry> simple(GEOSSimplify_r(ctx, line.get(), tolerance), Release{ctx});
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
