#pragma once

#include <string_view>

namespace zonaris::platform {

/// The platform log. One call per line; callable from any thread.
class Logger {
 public:
  virtual ~Logger() = default;
  virtual void log(std::string_view line) = 0;
};

}  // namespace zonaris::platform
