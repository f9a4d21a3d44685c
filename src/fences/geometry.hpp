#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zonaris::fences {

/// Great-circle distance in metres between two points given in degrees, by the haversine
/// formula on a sphere of radius 6378137.0 m.
double haversineMetres(double lon1, double lat1, double lon2, double lat2);

/// The device point as WKT, "POINT (lon lat)", each number printed as printf's "%.16g" does.
std::string devicePointWkt(double longitude, double latitude);

/// Distance from the nearest point of a fence geometry to a device point.
struct GeometryDistance {
  bool fenceReadable = false;  ///< the fence WKT gave a geometry
  bool pointReadable = false;  ///< the point WKT gave a point geometry
  /// The haversine distance in metres from the fence's nearest point to the device point,
  /// negated when the geometry layer reports "inside"; set only when both were readable.
  std::optional<double> metres;
  /// Why no distance came out (which text, and what was wrong with it); empty on success.
  std::string diagnostic;
};

/// Reads both WKT texts through GEOS (reentrant API, the calling thread's own context, every
/// handle released) and measures as above. Never throws; text that is empty, malformed, larger
/// than a response may be (16 MiB), too deeply nested (over 32 open parentheses), a geometry
/// that is empty or has an empty part, or one with non-finite coordinates counts as unreadable,
/// and so does a device text that is not a point. Safe to call from any number of threads at once.
GeometryDistance distanceToGeometry(std::string_view fenceWkt, std::string_view pointWkt);

/// As `distanceToGeometry`, but to the geometry's boundary (the rings of a polygon), so that a
/// point inside a polygon gets its depth instead of 0. Nothing in `metres` for a geometry that
/// has no boundary GEOS can compute (a collection of mixed parts).
GeometryDistance distanceToBoundary(std::string_view fenceWkt, std::string_view pointWkt);

/// The extent of a fence geometry in degrees.
struct GeometryBounds {
  double xmin = 0.0;
  double xmax = 0.0;
  double ymin = 0.0;
  double ymax = 0.0;
};

/// Reads a fence text as `distanceToGeometry` does and gives its extent; nothing exactly when
/// `distanceToGeometry` would find the fence unreadable.
std::optional<GeometryBounds> geometryBounds(std::string_view fenceWkt);

}  // namespace zonaris::fences
