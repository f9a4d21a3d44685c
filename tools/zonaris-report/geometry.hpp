#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zonaris::report_tool {

/// A fence's WKT as a GeoJSON geometry, through GEOS's GeoJSON writer (reentrant API, the
/// calling thread's context, every handle released). Coordinates are rounded to 7 decimals
/// (about 1 cm). Nothing for text the client would not read as a fence (unreadable, enormous,
/// too deeply nested, empty or with non-finite coordinates).
std::optional<nlohmann::json> geoJsonOfWkt(const std::string& wkt);

/// A track of {latitude, longitude} points simplified for drawing: the fewest points that stay
/// within `toleranceMetres` of the original line (Douglas-Peucker, through GEOS), coarsened
/// further until at most `maxPoints` remain. Coordinates are rounded to 6 decimals.
std::vector<std::array<double, 2>> simplifyTrack(const std::vector<std::array<double, 2>>& points,
                                                 double toleranceMetres, std::size_t maxPoints);

/// `value` rounded to `decimals` decimals, so that JSON prints it short.
double rounded(double value, int decimals);

}  // namespace zonaris::report_tool
