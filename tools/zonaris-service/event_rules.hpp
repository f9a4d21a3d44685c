#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "zonaris-service/fence_set.hpp"

namespace zonaris::service_tool {

/// A beacon as an observation lists it, uuid in lower case.
struct ObservedBeacon {
  std::string uuid;
  std::int64_t major = 0;
  std::int64_t minor = 0;
};

/// What the service remembers of one install at one fence.
struct FenceState {
  bool inside = false;
  std::int64_t enteredAtMs = 0;      ///< service clock, milliseconds since the epoch
  std::set<std::size_t> dwellsSent;  ///< indexes into the fence's dwell windows, this stay

  bool operator==(const FenceState&) const = default;
};

/// Whether an observation at (latitude, longitude) with these beacons lies inside the fence.
/// Beacon fences: one of the beacons has the fence's uuid (case-insensitive), major and minor.
/// Other fences: the distance from the geometry (GEOS nearest point, haversine) minus the radius
/// for "point" fences is at most 0. An unmeasurable distance counts as outside.
bool isInside(const Fence& fence, double latitude, double longitude,
              const std::vector<ObservedBeacon>& beacons);

/// Moves one fence's state on by one observation made at `nowMs` and answers the events it
/// yields, in order: "entry" (then any dwell window of 0 s), "exit", or "dwell" once per window
/// that the stay has now lasted.
std::vector<std::string> advance(FenceState& state, bool insideNow, std::int64_t nowMs,
                                 const std::vector<std::int32_t>& dwellWindows);

}  // namespace zonaris::service_tool
