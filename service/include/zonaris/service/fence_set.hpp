#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace zonaris::service_tool {

/// Half the circumference of the 6378137 m sphere the distances are measured on: no two points
/// lie farther apart, so a larger radius is a mistake, not a wish.
inline constexpr double kMaxRadiusMetres = 20037508.35;

/// One fence of the fences file, checked and ready for the event rules.
struct Fence {
  std::int64_t id = 0;
  std::string type;      ///< "point", "beacon" or any other text ("" when absent)
  std::string location;  ///< WKT that GEOS reads
  /// The extent of `location` in degrees, for the index that picks the fences worth measuring.
  double xmin = 0.0;
  double xmax = 0.0;
  double ymin = 0.0;
  double ymax = 0.0;
  /// The radius as the client holds it (a 32-bit float widened back), 0 when absent.
  double radius = 0.0;
  std::string uuid;  ///< lower case, beacon fences only
  std::int32_t major = 0;
  std::int32_t minor = 0;
  std::vector<std::int32_t> dwellWindows;  ///< seconds, in file order
  bool takesPart = false;                  ///< "_event_types" is a non-empty array
  nlohmann::json messages;                 ///< object by event type, or null
  nlohmann::json record;  ///< what the fence query answers: the element minus "messages"
};

/// Reads a fences file. On failure returns nothing and sets `error` to one line naming the
/// file.
std::optional<nlohmann::json> readFencesFile(const std::string& path, std::string& error);

/// Checks a fences array and turns it into fences, in order. On failure returns nothing and
/// sets `error` to one line starting with `source` and naming the element index.
std::optional<std::vector<Fence>> parseFences(const nlohmann::json& fences, std::string_view source,
                                              std::string& error);

}  // namespace zonaris::service_tool
