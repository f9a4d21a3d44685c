#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

#include <nlohmann/json.hpp>

// Type-checked reads of JSON values: each answers nothing when the value has another type or
// does not fit, so that no read can throw.
namespace zonaris::service_tool::json_read {

inline std::optional<std::int64_t> int64(const nlohmann::json& v) {
  if (v.is_number_unsigned()) {
    const auto u = v.get<std::uint64_t>();
    if (u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
      return std::nullopt;
    return static_cast<std::int64_t>(u);
  }
  if (v.is_number_integer())
    return v.get<std::int64_t>();
  return std::nullopt;
}

/// An integer within [lo, hi].
inline std::optional<std::int64_t> intIn(const nlohmann::json& v, std::int64_t lo,
                                         std::int64_t hi) {
  auto i = int64(v);
  if (!i || *i < lo || *i > hi)
    return std::nullopt;
  return i;
}

/// Any finite number.
inline std::optional<double> finite(const nlohmann::json& v) {
  if (!v.is_number())
    return std::nullopt;
  const double d = v.get<double>();
  if (!std::isfinite(d))
    return std::nullopt;
  return d;
}

}  // namespace zonaris::service_tool::json_read
