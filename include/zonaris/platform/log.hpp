#pragma once

#include "zonaris/export.h"

#include <string_view>

namespace zonaris::platform {

/// The platform log. One call per line; callable from any thread.
class ZONARIS_API Logger {
 public:
  virtual ~Logger() = default;
  virtual void log(std::string_view line) = 0;
};

}  // namespace zonaris::platform
