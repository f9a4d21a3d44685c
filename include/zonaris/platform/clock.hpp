#pragma once

#include "zonaris/export.h"

#include <chrono>

namespace zonaris::platform {

/// Wall-clock time as the platform sees it. Virtual in the simulator, the system clock in
/// production. Location timestamps use the same time line.
using TimePoint = std::chrono::system_clock::time_point;
using Duration = std::chrono::nanoseconds;

/// Date and calendar of the device.
class ZONARIS_API Clock {
 public:
  virtual ~Clock() = default;
  /// The current time. Callable from any thread.
  virtual TimePoint now() const = 0;
  /// The hour of the day (0 to 23) of `time` in the device's time zone. Callable from any thread.
  virtual int hourOfDay(TimePoint time) const = 0;
};

}  // namespace zonaris::platform
