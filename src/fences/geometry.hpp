#pragma once

#include <optional>
#include <string_view>

namespace zonaris::fences {

/// Great-circle distance in metres between two points given in degrees, by the haversine
/// formula on a sphere of radius 6378137.0 m.
double haversineMetres(double lon1, double lat1, double lon2, double lat2);

/// Distance from the nearest point of a fence geometry to a device point.
struct GeometryDistance {
  bool fenceReadable = false;  ///< the fence WKT gave a geometry
  bool pointReadable = false;  ///< the point WKT gave a point geometry
  /// The haversine distance in metres from the fence's nearest point to the device point,
  /// negated when the geometry layer reports "inside"; set only when both were readable.
  std::optional<double> metres;
};

/// Reads both WKT texts through GEOS (reentrant API, a context of its own per call, every
/// handle released) and measures as above. Never throws; text that is empty, malformed,
/// enormous, too deeply nested or holds non-finite coordinates counts as unreadable.
GeometryDistance distanceToGeometry(std::string_view fenceWkt, std::string_view pointWkt);

}  // namespace zonaris::fences
