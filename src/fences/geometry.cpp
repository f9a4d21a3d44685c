// Fence geometry distance: WKT in, haversine metres out, through GEOS's reentrant C API.
#include "fences/geometry.hpp"

#include "fences/geos_support.hpp"

#include <geos_c.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <memory>
#include <string>

#include <fmt/format.h>

namespace zonaris::fences {

namespace geos {

namespace {

// Fence text comes from the service and is untrusted. GEOS 3.11 reads nested collections
// recursively with no limit of its own, so the parenthesis depth is bounded before the reader
// sees the text: the deepest shape a fence needs is a collection of multipolygons (four
// levels), and 32 leaves ample room. The size is bounded only by what a response may carry at
// all (the HTTP body cap), so a genuine boundary of 100,000 vertices is still measured.
constexpr std::size_t kMaxWktBytes = std::size_t{16} << 20;
constexpr int kMaxWktNesting = 32;

// Size and nesting within bounds. The reader still judges the grammar.
bool withinBounds(std::string_view text) {
  if (text.size() > kMaxWktBytes)
    return false;
  int depth = 0;
  for (char c : text) {
    if (c == '(') {
      if (++depth > kMaxWktNesting)
        return false;
    } else if (c == ')') {
      --depth;
    }
  }
  return true;
}

bool finiteSequence(GEOSContextHandle_t ctx, const GEOSCoordSequence* sequence) {
  unsigned int size = 0;
  if (sequence == nullptr || GEOSCoordSeq_getSize_r(ctx, sequence, &size) == 0 || size == 0)
    return false;
  for (unsigned int i = 0; i < size; ++i) {
    double x = 0.0;
    double y = 0.0;
    if (GEOSCoordSeq_getXY_r(ctx, sequence, i, &x, &y) == 0 || !std::isfinite(x) ||
        !std::isfinite(y))
      return false;
  }
  return true;
}

// Calls `visit` with the coordinate sequence of every part of the geometry (point, line, each
// ring of a polygon, each member of a collection) until one call returns false; false when a
// call did, or when a part has no sequence or is of a type this GEOS does not describe to us.
// Recursion depth is bounded by `withinBounds`.
template <class Visit>
bool everySequence(GEOSContextHandle_t ctx, const GEOSGeometry* geometry, const Visit& visit) {
  switch (GEOSGeomTypeId_r(ctx, geometry)) {
    case GEOS_POINT:
    case GEOS_LINESTRING:
    case GEOS_LINEARRING:
      return visit(GEOSGeom_getCoordSeq_r(ctx, geometry));
    case GEOS_POLYGON: {
      const GEOSGeometry* shell = GEOSGetExteriorRing_r(ctx, geometry);
      if (shell == nullptr || !everySequence(ctx, shell, visit))
        return false;
      const int holes = GEOSGetNumInteriorRings_r(ctx, geometry);
      if (holes < 0)
        return false;
      for (int i = 0; i < holes; ++i) {
        const GEOSGeometry* hole = GEOSGetInteriorRingN_r(ctx, geometry, i);
        if (hole == nullptr || !everySequence(ctx, hole, visit))
          return false;
      }
      return true;
    }
    case GEOS_MULTIPOINT:
    case GEOS_MULTILINESTRING:
    case GEOS_MULTIPOLYGON:
    case GEOS_GEOMETRYCOLLECTION: {
      const int parts = GEOSGetNumGeometries_r(ctx, geometry);
      if (parts < 0)
        return false;
      for (int i = 0; i < parts; ++i) {
        const GEOSGeometry* part = GEOSGetGeometryN_r(ctx, geometry, i);
        if (part == nullptr || !everySequence(ctx, part, visit))
          return false;
      }
      return true;
    }
    default:
      return false;
  }
}

// Every part of the geometry holds coordinates, and every X and Y is a finite number (Z is
// ignored: GEOS keeps NaN there for two-dimensional coordinates). GEOS 3.11's nearest points
// dereference the coordinate of an empty part, such as the POINT EMPTY in
// GEOMETRYCOLLECTION (POINT (1 2), POINT EMPTY), and crash; such text is unreadable here.
bool measurableParts(GEOSContextHandle_t ctx, const GEOSGeometry* geometry) {
  return everySequence(ctx, geometry, [ctx](const GEOSCoordSequence* sequence) {
    return finiteSequence(ctx, sequence);
  });
}

}  // namespace

Context::Context() : handle_(GEOS_init_r()) {
  if (handle_ == nullptr)
    return;
  GEOSContext_setErrorMessageHandler_r(handle_, &Context::record, &lastError_);
  GEOSContext_setNoticeMessageHandler_r(handle_, &Context::record, &lastNotice_);
}

Context::~Context() {
  if (handle_ != nullptr)
    GEOS_finish_r(handle_);
}

void Context::record(const char* message, void* userdata) {
  auto* slot = static_cast<std::string*>(userdata);
  try {
    slot->assign(message != nullptr ? message : "");
  } catch (...) {
    // Out of memory while keeping a diagnostic: keep none rather than unwind through GEOS.
  }
}

Context& threadContext() {
  static thread_local Context context;
  return context;
}

ThreadReader openThreadReader(std::string& why) {
  ThreadReader open;
  Context& context = threadContext();
  GEOSContextHandle_t ctx = context.get();
  if (ctx == nullptr) {
    why = "no GEOS context";
    return open;
  }
  context.clearMessages();
  open.context = &context;
  open.reader = ReaderPtr(GEOSWKTReader_create_r(ctx), Release{ctx});
  if (!open.reader)
    why = "no WKT reader";
  return open;
}

GeomPtr readGeometry(const Context& context, const GEOSWKTReader* reader, std::string_view text,
                     std::string& why) {
  GEOSContextHandle_t ctx = context.get();
  GeomPtr none(nullptr, Release{ctx});
  if (text.empty()) {
    why = "empty text";
    return none;
  }
  if (!withinBounds(text)) {
    why = "text too large or too deeply nested";
    return none;
  }
  const std::string terminated(text);  // the reader wants a NUL-terminated string
  GeomPtr geometry(
      GEOSWKTReader_read_r(ctx, const_cast<GEOSWKTReader*>(reader), terminated.c_str()),
      Release{ctx});
  if (!geometry) {
    why = context.lastError().empty() ? "unreadable WKT" : context.lastError();
    return none;
  }
  if (GEOSisEmpty_r(ctx, geometry.get()) != 0) {
    why = "empty geometry";
    return none;
  }
  if (!measurableParts(ctx, geometry.get())) {
    why = "an empty part or non-finite coordinates";
    return none;
  }
  return geometry;
}

std::optional<DevicePoint> readDevicePoint(const Context& context, const GEOSWKTReader* reader,
                                           std::string_view text, std::string& why) {
  GEOSContextHandle_t ctx = context.get();
  DevicePoint device{readGeometry(context, reader, text, why)};
  if (!device.geometry)
    return std::nullopt;
  // The device's own X and Y are read directly, so it must be a point.
  if (GEOSGeomTypeId_r(ctx, device.geometry.get()) != GEOS_POINT) {
    why = "not a point";
    return std::nullopt;
  }
  if (GEOSGeomGetX_r(ctx, device.geometry.get(), &device.longitude) == 0 ||
      GEOSGeomGetY_r(ctx, device.geometry.get(), &device.latitude) == 0) {
    why = "point without coordinates";
    return std::nullopt;
  }
  return device;
}

std::optional<double> nearestDistance(const Context& context, const GEOSGeometry* fence,
                                      const DevicePoint& device) {
  GEOSContextHandle_t ctx = context.get();
  // GEOS 3.11's nearest-points operation takes three arguments and has no way to say that the
  // point lies inside the geometry. The flag stays here, cleared before the call and tested
  // after it, so that a geometry layer which does report "inside" yields a negative distance
  // (the depth) through this same path; with this GEOS it stays 0 and distances are >= 0.
  char inside = 0;
  const CoordSeqPtr nearest(GEOSNearestPoints_r(ctx, fence, device.geometry.get()), Release{ctx});
  double lon1 = 0.0;
  double lat1 = 0.0;
  if (!nearest || GEOSCoordSeq_getX_r(ctx, nearest.get(), 0, &lon1) == 0 ||
      GEOSCoordSeq_getY_r(ctx, nearest.get(), 0, &lat1) == 0)
    return std::nullopt;
  const double d = haversineMetres(lon1, lat1, device.longitude, device.latitude);
  return inside != 0 ? -d : d;
}

std::optional<GeometryBounds> extent(GEOSContextHandle_t ctx, const GEOSGeometry* geometry) {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  GeometryBounds box{kInf, -kInf, kInf, -kInf};
  const bool walked = everySequence(ctx, geometry, [ctx, &box](const GEOSCoordSequence* sequence) {
    unsigned int size = 0;
    if (sequence == nullptr || GEOSCoordSeq_getSize_r(ctx, sequence, &size) == 0)
      return false;
    for (unsigned int i = 0; i < size; ++i) {
      double x = 0.0;
      double y = 0.0;
      if (GEOSCoordSeq_getXY_r(ctx, sequence, i, &x, &y) == 0)
        return false;
      box.xmin = std::min(box.xmin, x);
      box.xmax = std::max(box.xmax, x);
      box.ymin = std::min(box.ymin, y);
      box.ymax = std::max(box.ymax, y);
    }
    return true;
  });
  if (!walked || !(box.xmin <= box.xmax) || !(box.ymin <= box.ymax))
    return std::nullopt;
  return box;
}

}  // namespace geos

double haversineMetres(double lon1, double lat1, double lon2, double lat2) {
  // The order of operations is part of the result: distances are compared with the service's
  // to the last bit, so the expression is kept exactly in this form.
  constexpr double k = 0.017453292519943295;
  const double dLon = (lon2 - lon1) * k;
  const double s1 = std::sin((lat2 - lat1) * k * 0.5);
  const double A1 = s1 * s1;
  const double c1 = std::cos(lat1 * k);
  const double c2 = std::cos(lat2 * k);
  const double s2 = std::sin(dLon * 0.5);
  const double a = s2 * s2 * (c2 * c1) + A1;
  const double c = std::atan2(std::sqrt(a), std::sqrt(1.0 - a));
  return (c + c) * 6378137.0;
}

std::string devicePointWkt(double longitude, double latitude) {
  return fmt::format("POINT ({:.16g} {:.16g})", longitude, latitude);
}

namespace {

// Reads the fence and the device texts on the calling thread's context and, when both are
// readable, hands them to `measure` (context, fence, point) for the distance. Everything else
// about the result (readability, the diagnostic) is the same for every kind of measure.
template <class Measure>
GeometryDistance readAndMeasure(std::string_view fenceWkt, std::string_view pointWkt,
                                const Measure& measure) {
  GeometryDistance result;
  auto [contextPtr, reader] = geos::openThreadReader(result.diagnostic);
  if (!reader)
    return result;
  const geos::Context& context = *contextPtr;
  std::string fenceWhy;
  std::string pointWhy;
  const geos::GeomPtr fence = geos::readGeometry(context, reader.get(), fenceWkt, fenceWhy);
  const auto point = geos::readDevicePoint(context, reader.get(), pointWkt, pointWhy);
  result.fenceReadable = static_cast<bool>(fence);
  result.pointReadable = point.has_value();
  if (!fence || !point) {
    result.diagnostic = !fence ? "fence: " + fenceWhy : "point: " + pointWhy;
    return result;
  }
  measure(context, fence.get(), *point, result);
  return result;
}

}  // namespace

GeometryDistance distanceToGeometry(std::string_view fenceWkt, std::string_view pointWkt) {
  return readAndMeasure(fenceWkt, pointWkt,
                        [](const geos::Context& context, const GEOSGeometry* fence,
                           const geos::DevicePoint& point, GeometryDistance& result) {
                          result.metres = geos::nearestDistance(context, fence, point);
                          if (!result.metres) {
                            // Both geometries were read but GEOS could not measure them; no
                            // distance, no report.
                            result.diagnostic = context.lastError().empty()
                                                    ? "nearest points failed"
                                                    : context.lastError();
                          }
                        });
}

GeometryDistance distanceToBoundary(std::string_view fenceWkt, std::string_view pointWkt) {
  return readAndMeasure(fenceWkt, pointWkt,
                        [](const geos::Context& context, const GEOSGeometry* fence,
                           const geos::DevicePoint& point, GeometryDistance& result) {
                          GEOSContextHandle_t ctx = context.get();
                          // A point's boundary is empty; its distance is the distance to the
                          // point itself.
                          const int type = GEOSGeomTypeId_r(ctx, fence);
                          const bool pointLike = type == GEOS_POINT || type == GEOS_MULTIPOINT;
                          const geos::GeomPtr boundary(
                              pointLike ? nullptr : GEOSBoundary_r(ctx, fence), geos::Release{ctx});
                          const GEOSGeometry* measured = pointLike ? fence : boundary.get();
                          if (!measured || GEOSisEmpty_r(ctx, measured) != 0) {
                            result.diagnostic = "no boundary";
                            return;
                          }
                          result.metres = geos::nearestDistance(context, measured, point);
                        });
}

std::optional<GeometryBounds> geometryBounds(std::string_view fenceWkt) {
  std::string why;
  auto [context, reader] = geos::openThreadReader(why);
  if (!reader)
    return std::nullopt;
  const geos::GeomPtr fence = geos::readGeometry(*context, reader.get(), fenceWkt, why);
  if (!fence)
    return std::nullopt;
  return geos::extent(context->get(), fence.get());
}

}  // namespace zonaris::fences
