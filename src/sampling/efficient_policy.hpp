#pragma once

// The efficient sampling policy: when to take the next position sample so that far fewer fixes
// are taken than by the design's rule, while every pass still decides and sends exactly what
// the design says.
//
// What sets the next sample's moment:
// - the clearance: the distance from the device to the nearest fence boundary, measured from
//   inside a fence too (the design's nearest distance is 0 inside a polygon, which pins the
//   interval at its minimum for a whole stay);
// - motion, when the platform reports it: while the device is stationary the GPS rests up to
//   the maximum interval; "moving" takes a sample at once, and while moving the interval is
//   bounded by the clearance. A stationary report does not outlast a fix that has moved away
//   from the one before it (the motion sensor missed a start);
// - without motion, stillness: fixes that stay within their accuracies of the first fix of a
//   stop let the interval grow with the length of the stop, but never beyond the time a walker
//   needs to reach the nearest boundary from the fix's accuracy disc plus a minute
//   (`kVisitSlack`), so that a visit of 2 minutes nearby is never missed. A fix within the
//   stop's own scatter is measured from the stop's centre instead, whose error is far smaller
//   than one fix's accuracy. One fix far away followed by one back at the stop is an outlier:
//   the stop goes on, and the catalogue is not dropped for it. A stop younger than
//   `kSettledAfter` whose fix lies within 20 m of a boundary keeps the interval the
//   distance gives: the visit may have begun just across the wall. Deliveries of the idle
//   setting (`kWakeFilter`) may wake the client sooner when they say the device moved, but nothing
//   depends on them: a receiver that is switched off between samples delivers none;
// - an observation the service did not confirm: the service's rules may wait for a second
//   observation on the same side, so the next samples follow soon (`kRetryAfter`), unless the
//   device has stood still for a while and the fix lies within the stop's scatter (then it is
//   a noisy fix near a wall). At rest under motion, while that observation stays unconfirmed
//   and the fix's accuracy disc holds a boundary, the rest is short (`kDoubtfulRest`) for a
//   few rests: the quick passes may all have fallen on the old side of a wall the device
//   stands just across. So is the rest of a stop younger than `kSettledAfter` whose fix lies
//   within 20 m of a boundary, observation or not;
// - the next dwell deadline: the sample comes right after the tick that fires a window, never
//   later.
// A fix that is already old when it arrives (a location service's cached first fix) says little
// about where the device is now, so the next sample follows after the minimum interval, unless
// the motion sensor says the device has been at rest all along.

#include <atomic>
#include <cstdint>
#include <limits>
#include <mutex>
#include <optional>
#include <utility>

#include "zonaris/fence.hpp"
#include "zonaris/platform/location.hpp"

namespace zonaris::sampling {

/// The idle distance filter while the device stands still, in metres: movement beyond it makes
/// the location service deliver a coarse position, which the client does not use as a fix.
inline constexpr double kWakeFilter = 25.0;
/// Such a delivery wakes the client (it samples at once) when it lies farther than this plus
/// its own accuracy from the centre of the stop, in metres.
inline constexpr double kWakeDistance = 30.0;
/// A first delivery beyond this distance from the centre, in metres, is a jump no device makes
/// between two deliveries of a fine filter; it wakes the client only when the next delivery is
/// also away from the centre (an outlier is followed by a delivery back at the centre).
inline constexpr double kWakeJump = 150.0;
/// The design's idle distance filter, which in practice never delivers.
inline constexpr double kIdleFilter = 99999.0;
/// A stop counts once its fixes have stayed together this long (seconds).
inline constexpr double kStillAfter = 30.0;
/// Fixes older than this when they arrive (seconds) are followed by a sample after the minimum
/// interval.
inline constexpr double kFreshFor = 20.0;
/// The walking speed that bounds a stop's interval without motion, m/s.
inline constexpr double kWalkerSpeed = 1.5;
/// How much later than a walker's arrival at the nearest boundary the sample may come, in
/// seconds. A visit of 2 minutes there is still seen twice: the service's robust rules confirm
/// a crossing on a second observation 10 s or more after the first, the first sample after a
/// long rest may carry a cached position, and the two samples that follow take about 30 s.
inline constexpr double kVisitSlack = 60.0;
/// Seconds from a pass whose observation got no confirmation to the next sample: after the
/// service's wait between two observations of one crossing (10 s), well before it lapses.
inline constexpr std::int32_t kRetryAfter = 12;
/// Passes after an unconfirmed observation that follow that soon, whether or not they send one
/// (a noisy fix may put the device back on the old side for a pass while the crossing is real).
inline constexpr int kRetries = 3;
/// A stop older than this (seconds) gets no quick passes after an unconfirmed observation from
/// a fix whose accuracy disc holds the boundary, unless the motion sensor says otherwise.
inline constexpr double kSettledAfter = 120.0;
/// At most this many quick passes in a row: a device that stays where the service cannot decide
/// is not sampled every few seconds.
inline constexpr int kQuickPasses = 8;
/// The longest interval, which is also the motion-gated rest of a stationary device (seconds).
inline constexpr std::int32_t kRestInterval = 600;
/// While an observation is still unconfirmed and the fix's accuracy disc holds a boundary, a
/// device at rest may have stopped just across the wall: its rest is this short (seconds), for
/// at most `kDoubtfulRests` rests, so that a later fix on the new side can still confirm the
/// crossing well before a whole rest has passed.
inline constexpr std::int32_t kDoubtfulRest = 30;
inline constexpr int kDoubtfulRests = 6;

/// The distance from (lon, lat) to the nearest fence boundary, in metres: outside a fence its
/// distance as a pass adjusts it, inside a "point" or "beacon" fence its depth, inside any other
/// geometry the distance to the geometry's boundary. The largest double without a fence.
/// With a catalogue snapshot that carries its geometry cache, the cached geometries are
/// measured instead of reading every fence's text again.
double boundaryClearance(const FenceList& fences, double longitude, double latitude);
double boundaryClearance(const std::shared_ptr<const FenceList>& fences, double longitude,
                         double latitude);

/// The floor of `x` as a signed 32-bit number, saturating at both ends; NaN becomes 0.
std::int32_t saturatedSeconds(double x);

/// What the interval is computed from after a pass.
struct PassFacts {
  double clearance = 0.0;        ///< metres to the nearest boundary (`boundaryClearance`)
  float averageSpeed = 0.5f;     ///< the client's averaged speed, m/s
  bool ranging = false;          ///< beacon ranging is on: beacon events need passes
  std::int32_t beforeDwell = 0;  ///< seconds before the next dwell window can fire
  double fixAge = 0.0;           ///< seconds from the current fix's timestamp to now
  double accuracy = 0.0;         ///< the current fix's accuracy radius, metres
  /// metres from the centre of the current stop to the nearest boundary; NaN without one
  double centreClearance = std::numeric_limits<double>::quiet_NaN();
};

/// The efficient policy's state for one client. Thread-safe.
class EfficientPolicy {
 public:
  /// An accepted fix, before its pass runs. Returns the distance filter of the idle setting.
  double acceptFix(const platform::Location& fix);

  /// A delivery that arrived while no sample was armed. True when it should arm one now: the
  /// device stood still and the location service says it moved.
  bool wake(const platform::Location& delivered);

  /// A motion transition from the platform. True when it should arm a sample now: the device
  /// started moving.
  bool motion(const platform::MotionTransition& transition);

  /// The answer to the observation of the pass now running: whether it confirmed an event.
  void observed(bool confirmed);

  /// Seconds until the next sample by distance, motion and stillness, before the dwell cap.
  std::int32_t spacing(const PassFacts& facts);

  /// The shortest interval allowed now: the design's minimum, or `kRetryAfter` after an
  /// unconfirmed observation.
  std::int32_t shortest() const;

  /// Seconds from the pass to the sample that follows the next dwell window's tick (the window
  /// fires on the tick after the one that brings its remaining time to 0).
  static std::int32_t dwellCap(std::int32_t beforeDwell);

  /// Fixes accepted so far: a scheduled sample whose count has moved on is not taken, so that a
  /// wake never leaves two sampling chains behind.
  std::uint64_t accepted() const { return accepted_.load(); }

  /// The centre of the current stop (longitude, latitude), while the device stands still.
  std::optional<std::pair<double, double>> centre() const;

  /// Whether the last fix jumped far from a stop and may be an outlier (the next fix tells).
  bool jumped() const;

  /// How long the device has stood still, in seconds (0 while it moves).
  double stillFor() const;

 private:
  mutable std::mutex mutex_;
  // The current stop: the mean of its fixes (a noisy fix weighs less the longer the stop), their
  // mean accuracy, the mean square of their distances from the centre, its first fix's time.
  struct Stop {
    double latitude = 0.0;
    double longitude = 0.0;
    double accuracy = 0.0;
    double spread = 0.0;
    int fixes = 0;
    platform::TimePoint since{};
  };
  // Whether `fix` lies within the stop; sets `lastAway_`.
  bool joins(const Stop& stop, const platform::Location& fix);
  bool still_ = false;
  bool started_ = false;
  Stop stop_;
  double stillFor_ = 0.0;  // how long the stop has lasted
  // The stop before a fix that jumped far from it: the next fix may return to it.
  std::optional<Stop> jumpedFrom_;
  bool jumped_ = false;  // the last delivery was a jump away from the stop
  // The platform's last motion report, and whether a fix has moved away from the one before it
  // since a stationary report (the motion sensor missed a start).
  std::optional<platform::Motion> motion_;
  platform::TimePoint motionAt_{};  // when it was reported
  platform::TimePoint lastFixAt_{};
  bool movedSinceReport_ = false;
  int fixesSinceReport_ = 0;
  // Quick passes still to come after an unconfirmed observation, and quick passes in a row.
  int doubt_ = 0;
  int quick_ = 0;
  bool unconfirmed_ = false;  // the pass now running had an observation the service withheld
  // The last observation got no confirmation, and no pass since was clear of every boundary;
  // the short rests taken for it so far.
  bool pending_ = false;
  int doubtfulRests_ = 0;
  double lastAway_ = 0.0;  // metres from the last fix to the stop's centre before it
  std::atomic<std::uint64_t> accepted_{0};
};

}  // namespace zonaris::sampling
