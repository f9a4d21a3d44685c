#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zonaris/platform/location.hpp"
#include "zonaris/sim/beacon_sightings.hpp"
#include "zonaris/sim/scheduler.hpp"
#include "zonaris/sim/trace.hpp"

namespace zonaris::sim {

/// What the location service delivers while the application holds it at the coarse
/// (three-kilometre) accuracy, that is between the samples of the design's client.
enum class IdleFixes {
  /// Nothing at all, as a receiver that is simply switched off (the gpsd source).
  None,
  /// Network positions, as a phone gives in that setting: one worked out at most once a minute,
  /// with an accuracy of 30 to 1,500 m (log-uniform) and an error to match (the accuracy is the
  /// radius that holds 68 % of them). Delivered, like any fix, only past the distance filter.
  Network,
  /// The receiver's own fixes, exactly as at the best accuracy (noise and outliers included),
  /// every second past the distance filter.
  Gnss,
};

/// What the simulated device's motion sensor reports.
enum class MotionSensor {
  /// No motion sensor: `hasMotion` is false and nothing is reported (the gpsd source).
  None,
  /// A phone's activity recognition: each true start or stop of movement is reported 10 to 30 s
  /// later (uniform, drawn from the seed and the time of the change; never before the report
  /// of the change before it); a start is missed with probability `kMissedStart`, and then so
  /// is the stop that ends that movement.
  Phone,
};

/// The share of starts of movement that the phone's motion sensor misses.
inline constexpr double kMissedStart = 0.02;

/// One motion report: seconds since the trace's start, and what is reported.
struct MotionReport {
  double t = 0.0;
  platform::Motion motion = platform::Motion::Stationary;
};

/// The reports a phone's motion sensor makes over `trace`: the true motion at its start (at 0),
/// then every change as `MotionSensor::Phone` says. The device moves between two points that are
/// farther apart than 0.3 m per second of their time difference.
std::vector<MotionReport> phoneMotionReports(const Trace& trace, std::uint64_t seed);

/// How the simulated device's location service departs from the trace. The defaults are the
/// ideal device: the exact trace position, one fix per callback, the first one 1 s after a
/// setting. Everything random is drawn from `seed` and the virtual time of the fix, so the same
/// seed gives the same fixes, whatever else the run does.
struct DeviceModel {
  std::uint64_t seed = 1;
  /// From a setting (arming a sample is one) to the first fix; later fixes follow every 1 s.
  platform::Duration fixDelay = std::chrono::seconds(1);
  /// On switching from the coarse to the best accuracy, first deliver the last fix the service
  /// had, with its old timestamp and a coarse accuracy (`kStaleFixAccuracy`), as real location
  /// services do right after such a switch. The last fix it had is the last one its receiver
  /// worked out: a receiver woken by such a switch finishes its fix a fix delay later even when
  /// the setting went back to coarse meanwhile, and keeps it without delivering it.
  bool staleFirst = false;
  /// Standard deviation, in metres, of a Gaussian error added to each fix along each of east
  /// and north. The fix's horizontalAccuracy then says so: the trace's accuracy combined with
  /// the radius that holds 68 % of such errors (1.51 × noise).
  double noise = 0.0;
  /// The share of fixes (0 to 1) thrown 200 to 800 m off in a random direction while keeping
  /// the trace's good accuracy, as the jumps that users of location services report.
  double outlierRate = 0.0;
  /// With the best accuracy and no distance filter, fixes are delivered `batch` at a time in
  /// one callback (oldest first), each still taken 1 s after the previous one.
  int batch = 1;
  /// What comes while the application holds the coarse setting. The receiver's fixes here, for
  /// the tests of the setting's rhythm; zonaris-sim gives `IdleFixes::Network` unless told.
  IdleFixes idleFixes = IdleFixes::Gnss;
  /// The motion sensor; none unless told.
  MotionSensor motion = MotionSensor::None;
};

/// The range of a network position's accuracy, in metres, and how often one is worked out.
inline constexpr double kNetworkAccuracyMin = 30.0;
inline constexpr double kNetworkAccuracyMax = 1500.0;
inline constexpr platform::Duration kNetworkFixEvery = std::chrono::minutes(1);

/// The accuracy a stale first fix claims: a Wi-Fi grade position, what a location service
/// typically holds between precise fixes.
inline constexpr double kStaleFixAccuracy = 65.0;

/// The location service of the simulated platform. It replays a `Trace` in virtual time:
/// after `startUpdatingLocation`, while the accuracy is best-for-navigation with no distance
/// filter, it delivers the interpolated position 1 s after that setting and every 1 s after; in
/// the coarse setting it delivers only when the device moved farther than the distance filter
/// since the last delivery (what it delivers there, `DeviceModel::idleFixes` says). Nothing is
/// delivered after `stopUpdatingLocation`. While a beacon region is ranged it delivers the region's
/// `BeaconSightings` once per virtual second. All deliveries arrive as main-queue tasks.
///
/// The trace is read at the virtual seconds since the scheduler's start (its first point is
/// where the device is at the start). The first fix after `startUpdatingLocation` is delivered
/// whatever the filter, as a real service reports where the device is when updates begin.
/// Every accuracy or filter setting restarts the one-second rhythm. Ranging also delivers
/// empty lists; overlapping sightings of one beacon come as one entry (`BeaconSightings::at`).
/// A `DeviceModel` makes the fixes realistic: later, stale, noisy, off, batched. The delegate is
/// held weakly and pending ticks hold only the manager's state weakly: neither the client nor the
/// manager is kept alive by them.
class SimLocationManager final : public platform::LocationManager,
                                 public std::enable_shared_from_this<SimLocationManager> {
 public:
  explicit SimLocationManager(std::shared_ptr<Scheduler> scheduler);

  void setTrace(std::shared_ptr<const Trace> trace);
  void setBeaconSightings(std::shared_ptr<const BeaconSightings> sightings);
  /// Takes effect from the next setting on.
  void setDeviceModel(const DeviceModel& model);

  void setDelegate(std::weak_ptr<platform::LocationManagerDelegate> delegate) override;
  void setPausesLocationUpdatesAutomatically(bool pauses) override;
  void setDesiredAccuracy(platform::Accuracy accuracy) override;
  void setDistanceFilter(double metres) override;
  void setAllowsBackgroundLocationUpdates(bool allows) override;
  void requestAlwaysAuthorization() override;
  void startUpdatingLocation() override;
  void stopUpdatingLocation() override;
  void startRangingBeacons(const platform::BeaconRegion& region) override;
  void stopRangingBeacons(const platform::BeaconRegion& region) override;
  /// True with a `MotionSensor::Phone`. Starting delivers the motion last reported 1 s later,
  /// then each report at its time.
  bool hasMotion() const override;
  void startMotionUpdates() override;
  void stopMotionUpdates() override;

  /// For tests and the simulator's counters. `rangedRegions` lists the UUIDs of the regions
  /// being ranged; `fixesDelivered` counts the fixes handed to a delegate.
  bool updating() const;
  platform::Accuracy desiredAccuracy() const;
  double distanceFilter() const;
  std::vector<std::string> rangedRegions() const;
  std::uint64_t fixesDelivered() const;

 private:
  struct State;
  // Timer steps; they see only the state (held weakly by the tasks), never the manager.
  static void restartLocationChain(const std::shared_ptr<State>& state);
  static void locationTick(const std::weak_ptr<State>& weak, std::uint64_t generation);
  static void deliverStale(const std::weak_ptr<State>& weak);
  static void finishFix(const std::weak_ptr<State>& weak);
  static void motionTick(const std::weak_ptr<State>& weak, std::uint64_t generation,
                         std::optional<std::size_t> report);
  static void rangingTick(const std::weak_ptr<State>& weak, const std::string& identifier,
                          std::uint64_t generation);

  std::shared_ptr<Scheduler> scheduler_;
  std::shared_ptr<State> state_;
};

}  // namespace zonaris::sim
