// Zonaris::calculateDistanceFrom: the distance from a fence's geometry to the device point.
#include <nlohmann/json.hpp>

#include "fences/geometry.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {

double Zonaris::calculateDistanceFrom(const std::string& from, const std::string& to) {
  const fences::GeometryDistance measured = fences::distanceToGeometry(from, to);
  if (measured.fenceReadable && measured.pointReadable)
    return measured.metres.value_or(kNoDistance);

  nlohmann::json variables = nlohmann::json::array();
  if (!measured.fenceReadable)
    variables.push_back({{"name", "geometry1"}, {"value", "nil"}});
  if (!measured.pointReadable)
    variables.push_back({{"name", "geometry2"}, {"value", "nil"}});
  sendException("Calculate distance error", callStackSymbols(), variables);
  return kNoDistance;
}

}  // namespace zonaris
