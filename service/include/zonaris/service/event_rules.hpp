#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "zonaris/service/fence_set.hpp"

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
  /// Robust rules only: a crossing to the other side than `inside`, seen and not yet
  /// confirmed: `pendingSinceMs` is its first observation, `pendingLastMs` its latest.
  std::int64_t pendingSinceMs = 0;
  std::int64_t pendingLastMs = 0;
  int pendingCount = 0;      ///< observations of the pending crossing so far
  double pendingPast = 0.0;  ///< metres past the boundary of its nearest observation
  /// Robust rules only: the latest observation on the other side that confirmed nothing and
  /// was then given up (too close to the boundary, or its crossing dropped), 0 for none.
  std::int64_t unsettledMs = 0;
  int unsettledCount = 0;  ///< such observations, each within the unsettled window of the next

  bool operator==(const FenceState&) const = default;
};

/// Whether an observation at (latitude, longitude) with these beacons lies inside the fence.
/// Beacon fences: one of the beacons has the fence's uuid (case-insensitive), major and minor.
/// Other fences: the distance from the geometry (GEOS nearest point, haversine) minus the radius
/// for "point" fences is at most 0. An unmeasurable distance counts as outside.
bool isInside(const Fence& fence, double latitude, double longitude,
              const std::vector<ObservedBeacon>& beacons);

/// The signed distance of (latitude, longitude) from a fence that is not a beacon fence:
/// negative inside (the depth, for polygons measured to the boundary), positive outside, as
/// `isInside` measures it. Nothing when it cannot be measured.
std::optional<double> boundaryDistance(const Fence& fence, double latitude, double longitude);

/// Moves one fence's state on by one observation made at `nowMs` and answers the events it
/// yields, in order: "entry" (then any dwell window of 0 s), "exit", or "dwell" once per window
/// that the stay has now lasted. This is the exact rule: one observation decides.
std::vector<std::string> advance(FenceState& state, bool insideNow, std::int64_t nowMs,
                                 const std::vector<std::int32_t>& dwellWindows);

/// How the service confirms crossings.
enum class ConfirmRule {
  Exact,   ///< one observation decides (`advance`)
  Robust,  ///< `RobustRules`: noise, outliers and coarse fixes confirm nothing
};

/// The parameters of the robust rules; the defaults were chosen by measurement (README).
struct RobustParams {
  /// An observation that implies more than this speed from the install's last usable
  /// observation is an outlier, m/s.
  double maxSpeed = 20.0;
  /// An observation whose accuracy radius is larger is too coarse to tell, metres.
  double maxAccuracy = 100.0;
  /// The observation that confirms a pending crossing comes at least this long after its
  /// first one, seconds.
  double confirmAfter = 10.0;
  /// A pending crossing lapses when its next observation comes later than this after the
  /// previous one (and the device could have gone back and returned meanwhile), seconds.
  double pendingExpiry = 40.0;
  /// Consecutive observations on the new side that confirm a crossing.
  int observations = 2;
  /// How far past the boundary an observation must lie to count towards an entry or an exit,
  /// metres; never more than the observation's own accuracy radius.
  double entryMargin = 0.0;
  double exitMargin = 40.0;
  /// Beacon fences: consecutive observations without the beacon that confirm the exit.
  int beaconMisses = 2;
  /// An exit needs `unsettledObservations` (when more than `observations`) when two or more
  /// observations outside were given up, each within `unsettledWindow` seconds of the next and
  /// the last within it before the exit's first observation: the device sits where noise
  /// throws its fixes across the boundary.
  double unsettledWindow = 900.0;
  int unsettledObservations = 4;
  /// An exit observation short of `exitMargin` but this far out (at most its accuracy radius)
  /// still counts where the edge is settled; an exit that has one needs `nearObservations` in a
  /// row. A device that stops a little way out (a shop next door) is then seen to leave.
  double nearMargin = 20.0;
  int nearObservations = 3;
};

/// What the service remembers of one install's observations for the robust rules.
struct InstallTrack {
  /// The last usable observation (neither an outlier nor too coarse): when, where, how exact.
  bool known = false;
  std::int64_t atMs = 0;
  double latitude = 0.0;
  double longitude = 0.0;
  double accuracy = 0.0;
  /// A fence query was answered since the last observation: the client has just reset its
  /// fence flags from a fresh catalogue and will not report a disagreement about the next
  /// observation again, so that observation decides alone.
  bool fencesServed = false;

  bool operator==(const InstallTrack&) const = default;
};

/// One observation as the robust rules see it.
struct ObservationFix {
  std::int64_t atMs = 0;
  double latitude = 0.0;
  double longitude = 0.0;
  double accuracy = 0.0;
};

/// What one observation is worth: whether its position may confirm a crossing, and whether it
/// follows a fresh catalogue (then one observation decides, as the exact rule has it).
struct Judgement {
  bool usable = false;  ///< neither an outlier nor too coarse
  bool decidesAlone = false;
};

/// Judges an observation against the install's track and moves the track on. Pure.
Judgement judge(InstallTrack& track, const ObservationFix& fix, const RobustParams& params);

/// How one observation finds one fence.
struct FenceSighting {
  bool inside = false;
  /// Fences that are not beacon fences: the signed distance from the boundary
  /// (`boundaryDistance`), infinity when unmeasurable (outside, as `isInside` has it).
  double distance = 0.0;
  bool beacon = false;
};

/// The robust rules for one fence and one observation: moves the state on and answers the
/// events, in the order `advance` gives them. Pure.
/// - An entry is confirmed at once when the whole accuracy disc lies inside.
/// - Otherwise a crossing needs `observations` consecutive observations on the new side, each
///   at least min(accuracy, `entryMargin` or `exitMargin`) past the boundary, the last at least
///   `confirmAfter` after the first. Each comes at most `pendingExpiry` after the previous one,
///   or so far past the boundary that the device, at `maxSpeed`, could not have gone back in
///   between. An observation on the old side, or one too close to the boundary, drops the
///   pending crossing. After two or more observations outside were given up (too close,
///   dropped or lapsed), each within `unsettledWindow` of the next and the last within it of
///   the exit's first observation, the exit needs `unsettledObservations`. An exit is never
///   confirmed by one observation: after a stay the last observation the service has may be
///   hours old, so one far outside cannot be told from an outlier.
/// - An observation that is not usable confirms nothing and drops nothing (beacon fences do not
///   depend on the position and ignore this).
/// - Beacon fences: an entry on the first observation that lists the beacon, an exit on the
///   `beaconMisses`-th consecutive observation without it.
/// - The stay is timed from the first observation of its confirmed entry; an exit that is never
///   confirmed does not reset it. Dwell windows fire on usable observations inside (for beacon
///   fences, on any observation that lists the beacon).
/// - When `judgement.decidesAlone`, the observation decides as `advance` does, unless it lies
///   within the margin of the boundary (then it confirms nothing).
std::vector<std::string> advanceRobust(FenceState& state, const FenceSighting& sighting,
                                       const ObservationFix& fix, const Judgement& judgement,
                                       const std::vector<std::int32_t>& dwellWindows,
                                       const RobustParams& params);

}  // namespace zonaris::service_tool
