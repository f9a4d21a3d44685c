#pragma once

#include <cstdlib>
#include <string>

namespace zonaris::client {

/// The leading number of a system version text, as a float: "9.3.5" reads as 9.3, "17" as 17,
/// text without a leading number as 0.
inline float systemVersionNumber(const std::string& version) {
  return std::strtof(version.c_str(), nullptr);
}

}  // namespace zonaris::client
