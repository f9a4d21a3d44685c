#include "zonaris/service/event_rules.hpp"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "fences/geometry.hpp"

namespace zonaris::service_tool {

namespace {

// Metres between two positions on the sphere the fences are measured on.
double haversine(double lat1, double lon1, double lat2, double lon2) {
  constexpr double kRadius = 6378137.0;
  constexpr double kDegree = 0.017453292519943295;
  const double dLat = (lat2 - lat1) * kDegree;
  const double dLon = (lon2 - lon1) * kDegree;
  const double a =
      std::sin(dLat / 2) * std::sin(dLat / 2) +
      std::cos(lat1 * kDegree) * std::cos(lat2 * kDegree) * std::sin(dLon / 2) * std::sin(dLon / 2);
  return 2.0 * kRadius * std::asin(std::min(1.0, std::sqrt(a)));
}

// The dwell windows the stay has now lasted and that were not sent yet.
void dwells(FenceState& state, std::int64_t nowMs, const std::vector<std::int32_t>& dwellWindows,
            std::vector<std::string>& events) {
  const std::int64_t stayMs = nowMs - state.enteredAtMs;
  for (std::size_t i = 0; i < dwellWindows.size(); ++i) {
    if (state.dwellsSent.contains(i) || stayMs < std::int64_t{dwellWindows[i]} * 1000)
      continue;
    state.dwellsSent.insert(i);
    events.emplace_back("dwell");
  }
}

// Remembers an observation on the new side that was given up at `atMs`: the count restarts
// when the previous one lies more than the unsettled window back.
void giveUp(FenceState& state, std::int64_t atMs, const RobustParams& params) {
  if (atMs - state.unsettledMs > static_cast<std::int64_t>(params.unsettledWindow * 1000))
    state.unsettledCount = 0;
  state.unsettledMs = std::max(state.unsettledMs, atMs);
  ++state.unsettledCount;
}

void clearPending(FenceState& state) {
  state.pendingSinceMs = 0;
  state.pendingLastMs = 0;
  state.pendingCount = 0;
  state.pendingPast = 0.0;
}

void dropPending(FenceState& state, const RobustParams& params) {
  if (state.pendingCount != 0)
    giveUp(state, state.pendingLastMs, params);
  clearPending(state);
}

// Two or more observations outside were given up, the last within the unsettled window before
// `sinceMs`: the device sits where noise throws its fixes across this boundary.
bool unsettledEdge(const FenceState& state, std::int64_t sinceMs, const RobustParams& params) {
  return state.unsettledCount >= 2 &&
         sinceMs - state.unsettledMs <= static_cast<std::int64_t>(params.unsettledWindow * 1000);
}

}  // namespace

std::optional<double> boundaryDistance(const Fence& fence, double latitude, double longitude) {
  // The same point text the client builds, longitude first.
  const auto point = fmt::format("POINT ({:.16g} {:.16g})", longitude, latitude);
  const auto measured = fences::distanceToGeometry(fence.location, point);
  if (!measured.metres)
    return std::nullopt;
  double d = *measured.metres;
  if (fence.type == "point")
    return d - fence.radius;
  if (d > 0.0)
    return d;
  // Inside a polygon the distance is 0; the depth is the distance to its boundary.
  const auto boundary = fences::distanceToBoundary(fence.location, point);
  return boundary.metres ? -*boundary.metres : 0.0;
}

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
    state.unsettledMs = 0;
    state.unsettledCount = 0;
    state.dwellsSent.clear();
    events.emplace_back("entry");
  }
  dwells(state, nowMs, dwellWindows, events);
  return events;
}

Judgement judge(InstallTrack& track, const ObservationFix& fix, const RobustParams& params) {
  Judgement j;
  j.decidesAlone = track.fencesServed;
  track.fencesServed = false;
  if (!(fix.accuracy <= params.maxAccuracy))
    return j;  // too coarse to tell; it does not move the track either
  if (track.known) {
    // A zero or negative time between two observations counts as one second.
    const double seconds = std::max(1.0, (fix.atMs - track.atMs) / 1000.0);
    const double metres = haversine(track.latitude, track.longitude, fix.latitude, fix.longitude);
    if (metres > params.maxSpeed * seconds)
      return j;  // an outlier: the track keeps the last position that made sense
  }
  j.usable = true;
  track.known = true;
  track.atMs = fix.atMs;
  track.latitude = fix.latitude;
  track.longitude = fix.longitude;
  track.accuracy = fix.accuracy;
  return j;
}

std::vector<std::string> advanceRobust(FenceState& state, const FenceSighting& sighting,
                                       const ObservationFix& fix, const Judgement& judgement,
                                       const std::vector<std::int32_t>& dwellWindows,
                                       const RobustParams& params) {
  if (judgement.decidesAlone) {
    dropPending(state, params);
    // Unless it lies within the margin of the boundary: noise at a desk near a wall does that,
    // and a device that really crossed there is past the margin by its next reports anyway.
    const double past = sighting.inside ? -sighting.distance : sighting.distance;
    const double margin =
        std::min(fix.accuracy, sighting.inside ? params.entryMargin : params.exitMargin);
    if (sighting.inside != state.inside && !sighting.beacon && past < margin)
      return {};
    return advance(state, sighting.inside, fix.atMs, dwellWindows);
  }
  std::vector<std::string> events;
  if (!sighting.beacon && !judgement.usable)
    return events;
  if (sighting.inside == state.inside) {
    dropPending(state, params);
    if (state.inside)
      dwells(state, fix.atMs, dwellWindows, events);
    return events;
  }

  // On the other side than the confirmed one, this far past the boundary.
  const double past = sighting.inside ? -sighting.distance : sighting.distance;
  bool confirmed;
  std::int64_t since = fix.atMs;
  if (sighting.beacon) {
    confirmed = sighting.inside || params.beaconMisses <= 1;
  } else {
    // An entry whose whole accuracy disc lies inside. Never an exit: after a stay the last
    // observation the service has may be hours old, so one far outside cannot be told from an
    // outlier thrown hundreds of metres off.
    confirmed = sighting.inside && past >= fix.accuracy;
  }
  // A confirming observation lies past the boundary by its accuracy radius, up to the margin;
  // where the edge is settled, an exit observation past the near margin counts as well.
  const double margin =
      std::min(fix.accuracy, sighting.inside ? params.entryMargin : params.exitMargin);
  const bool unsettled =
      !sighting.beacon && !sighting.inside &&
      unsettledEdge(state, state.pendingCount != 0 ? state.pendingSinceMs : fix.atMs, params);
  const bool near = !sighting.beacon && !sighting.inside && !unsettled &&
                    past >= std::min(fix.accuracy, params.nearMargin);
  if (!confirmed && !sighting.beacon && past < margin && !near) {
    // Too close to the boundary to count: noise does that, and after an outlier one noisy
    // observation must not complete the pair.
    dropPending(state, params);
    giveUp(state, fix.atMs, params);
    return events;
  }
  if (!confirmed) {
    // Between two reports the client may have been back on the old side unseen (it reports
    // only while its flags disagree): a pending crossing lapses after a longer gap than
    // `pendingExpiry`, unless the device could not have gone back and returned in it.
    const double gap = (fix.atMs - state.pendingLastMs) / 1000.0;
    const bool lapsed = state.pendingCount == 0 ||
                        (gap > params.pendingExpiry &&
                         (sighting.beacon || gap * params.maxSpeed > state.pendingPast + past));
    if (lapsed) {
      if (state.pendingCount != 0)
        giveUp(state, state.pendingLastMs, params);
      state.pendingSinceMs = fix.atMs;
      state.pendingCount = 0;
    }
    state.pendingLastMs = fix.atMs;
    state.pendingPast = state.pendingCount == 0 ? past : std::min(state.pendingPast, past);
    ++state.pendingCount;
    int needed = sighting.beacon ? params.beaconMisses : params.observations;
    // A device that noise keeps throwing across this boundary needs more observations to
    // leave: two fixes in a row beyond their accuracy radius are then no longer rare.
    if (unsettled)
      needed = std::max(needed, params.unsettledObservations);
    // An exit that counted an observation short of the exit margin needs more of them.
    if (!sighting.beacon && !sighting.inside && state.pendingPast < margin)
      needed = std::max(needed, params.nearObservations);
    confirmed =
        state.pendingCount >= std::max(needed, 1) &&
        fix.atMs - state.pendingSinceMs >= static_cast<std::int64_t>(params.confirmAfter * 1000);
    if (!confirmed)
      return events;
    since = state.pendingSinceMs;
  }
  // Confirmed: the new stay (or absence) starts with nothing pending or given up.
  clearPending(state);
  state.unsettledMs = 0;
  state.unsettledCount = 0;
  if (!sighting.inside) {
    state = FenceState{};
    events.emplace_back("exit");
    return events;
  }
  state.inside = true;
  state.enteredAtMs = since;
  state.dwellsSent.clear();
  events.emplace_back("entry");
  dwells(state, fix.atMs, dwellWindows, events);
  return events;
}

}  // namespace zonaris::service_tool
