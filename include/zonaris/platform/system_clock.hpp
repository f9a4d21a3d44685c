#pragma once

#include "zonaris/export.h"

#include "zonaris/platform/clock.hpp"

namespace zonaris::platform {

/// The system clock; the hour of the day in the process's local time zone (TZ, else
/// /etc/localtime).
class ZONARIS_API SystemClock final : public Clock {
 public:
  TimePoint now() const override;
  int hourOfDay(TimePoint time) const override;
};

}  // namespace zonaris::platform
