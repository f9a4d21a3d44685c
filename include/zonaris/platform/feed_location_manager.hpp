#pragma once

#include "zonaris/export.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "zonaris/platform/dispatch.hpp"
#include "zonaris/platform/location.hpp"

namespace zonaris::platform {

/// What a `FeedLocationManager`'s user (the client) currently asks of the position source.
struct ZONARIS_API FeedSettings {
  bool updating = false;
  Accuracy desiredAccuracy = Accuracy::BestForNavigation;
  double distanceFilter = kDistanceFilterNone;
  bool pausesAutomatically = true;
  bool allowsBackgroundUpdates = false;
  bool alwaysAuthorizationRequested = false;
  /// Regions being ranged, in the order ranging started.
  std::vector<BeaconRegion> rangedRegions;
  /// The client listens to motion transitions (it does only under `SamplingPolicy::Efficient`).
  bool motionUpdates = false;
};

/// A location service fed by the application. Linux has no system location service, so the
/// application reads positions and beacon sightings from its own source (gpsd, a vehicle bus, a
/// BLE scanner) and pushes them here; the manager applies the settings the client made and
/// delivers to its delegate on the dispatcher's main queue (`mainAfter(0, ...)`), never inside
/// the push. With `defaultPlatform()`, reach it through the client:
/// `std::dynamic_pointer_cast<FeedLocationManager>(client->mLocationManager())`.
///
/// Desired accuracy and the "pauses"/"background"/"authorization" settings do not change what
/// is delivered; they are exposed through `settings()` and the settings listener so that the
/// source can, for example, power a GPS receiver down while only a coarse position is wanted.
/// Thread-safe: every operation may be called from any thread.
class ZONARIS_API FeedLocationManager final : public LocationManager {
 public:
  explicit FeedLocationManager(std::shared_ptr<Dispatcher> dispatcher);

  void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) override;
  void setPausesLocationUpdatesAutomatically(bool pauses) override;
  void setDesiredAccuracy(Accuracy accuracy) override;
  void setDistanceFilter(double metres) override;
  void setAllowsBackgroundLocationUpdates(bool allows) override;
  void requestAlwaysAuthorization() override;
  /// Starting after a stop forgets the last delivered fix: the next fix is delivered whatever
  /// the distance filter.
  void startUpdatingLocation() override;
  void stopUpdatingLocation() override;
  /// A region replaces a ranged region with the same identifier.
  void startRangingBeacons(const BeaconRegion& region) override;
  /// Stops ranging the region with the same identifier.
  void stopRangingBeacons(const BeaconRegion& region) override;

  /// What `checkFix` finds wrong with a fix.
  enum class FixProblem { None, CoordinatesOutOfRange, NotFinite };
  /// Checks a fix before it is offered: first that latitude and longitude are finite and
  /// within 90 and 180 degrees either way, then that speed and horizontal accuracy are finite.
  static FixProblem checkFix(const Location& fix);
  /// A sighting as it is delivered: an accuracy that is not finite becomes -1 and a proximity
  /// outside 0 to 3 becomes 0 (both "unknown").
  static Beacon normalizedBeacon(Beacon beacon);

  /// Offers one fix. It is delivered when `checkFix` finds nothing wrong with it, updates are
  /// started and either no distance filter is set (a filter of 0 or less) or the fix lies
  /// farther than the filter from the last fix delivered. Returns whether it will be delivered.
  bool pushLocation(const Location& fix);
  /// Offers one ranging round: every ranged region receives the beacons of its UUID (compared
  /// without regard to case and delivered as canonical upper-case text; beacons whose UUID is
  /// not a UUID are left out), possibly none, each as `normalizedBeacon` makes it.
  /// Returns the number of regions that will receive a callback.
  std::size_t pushBeacons(const std::vector<Beacon>& beacons);
  /// Offers one motion transition from the application's motion source. It is delivered while
  /// motion updates are started; in any case it becomes the current motion, which starting
  /// motion updates delivers. Returns whether it will be delivered now.
  bool pushMotion(const MotionTransition& transition);
  /// True once a motion transition has been pushed: a feed without a motion source says so.
  bool hasMotion() const override;
  void startMotionUpdates() override;
  void stopMotionUpdates() override;

  FeedSettings settings() const;
  /// Called with the new settings after each change, on the thread that made the change and
  /// outside the manager's lock. Keep it short: the client changes settings from its own
  /// threads.
  void setSettingsListener(std::function<void(const FeedSettings&)> listener);

 private:
  template <class Change>
  void change(Change&& apply);

  const std::shared_ptr<Dispatcher> dispatcher_;
  mutable std::mutex mutex_;
  std::weak_ptr<LocationManagerDelegate> delegate_;
  FeedSettings settings_;
  std::shared_ptr<const Location> lastDelivered_;
  std::optional<MotionTransition> motion_;  // the last transition pushed
  std::shared_ptr<const std::function<void(const FeedSettings&)>> listener_;
};

}  // namespace zonaris::platform
