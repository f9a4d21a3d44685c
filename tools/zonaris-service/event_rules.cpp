#include "zonaris-service/event_rules.hpp"

#include <fmt/format.h>

#include "fences/geometry.hpp"

namespace zonaris::service_tool {

bool isInside(const Fence& fence, double latitude, double longitude,
              const std::vector<ObservedBeacon>& beacons) {
  if (fence.type == "beacon") {
    for (const auto& b : beacons) {
      if (b.uuid == fence.uuid && b.major == fence.major && b.minor == fence.minor)
        return true;
    }
    return false;
  }
  // The same point text the client builds, longitude first.
  const auto point = fmt::format("POINT ({:.16g} {:.16g})", longitude, latitude);
  const auto measured = fences::distanceToGeometry(fence.location, point);
  if (!measured.metres)
    return false;
  double d = *measured.metres;
  if (fence.type == "point")
    d -= fence.radius;
  return d <= 0.0;
}

std::vector<std::string> advance(FenceState& state, bool insideNow, std::int64_t nowMs,
                                 const std::vector<std::int32_t>& dwellWindows) {
  std::vector<std::string> events;
  if (!insideNow) {
    if (state.inside) {
      state = FenceState{};
      events.emplace_back("exit");
    }
    return events;
  }
  if (!state.inside) {
    state.inside = true;
    state.enteredAtMs = nowMs;
    state.dwellsSent.clear();
    events.emplace_back("entry");
  }
  const std::int64_t stayMs = nowMs - state.enteredAtMs;
  for (std::size_t i = 0; i < dwellWindows.size(); ++i) {
    if (state.dwellsSent.contains(i) || stayMs < std::int64_t{dwellWindows[i]} * 1000)
      continue;
    state.dwellsSent.insert(i);
    events.emplace_back("dwell");
  }
  return events;
}

}  // namespace zonaris::service_tool
