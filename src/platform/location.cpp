// The platform's value types: the geodesic distance between fixes and UUID text.
#include "zonaris/platform/location.hpp"

#include <cctype>

#include <GeographicLib/Geodesic.hpp>

namespace zonaris::platform {

double Location::distanceFrom(const Location& other) const {
  double metres = 0.0;
  GeographicLib::Geodesic::WGS84().Inverse(latitude, longitude, other.latitude, other.longitude,
                                           metres);
  return metres;
}

std::optional<std::string> canonicalUUID(std::string_view text) {
  // 8-4-4-4-12 hexadecimal digits.
  static constexpr int kGroups[] = {8, 4, 4, 4, 12};
  if (text.size() != 36)
    return std::nullopt;
  std::string canonical;
  canonical.reserve(36);
  std::size_t pos = 0;
  for (int g = 0; g < 5; ++g) {
    if (g > 0) {
      if (text[pos] != '-')
        return std::nullopt;
      canonical.push_back('-');
      ++pos;
    }
    for (int i = 0; i < kGroups[g]; ++i, ++pos) {
      const auto c = static_cast<unsigned char>(text[pos]);
      if (!std::isxdigit(c))
        return std::nullopt;
      canonical.push_back(static_cast<char>(std::toupper(c)));
    }
  }
  return canonical;
}

}  // namespace zonaris::platform
