#pragma once

#include "zonaris/export.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zonaris/platform/clock.hpp"

namespace zonaris::platform {

/// One position fix.
struct ZONARIS_API Location {
  double latitude = 0.0;            ///< degrees
  double longitude = 0.0;           ///< degrees
  double speed = -1.0;              ///< metres per second as measured by the device; < 0 unknown
  double horizontalAccuracy = 0.0;  ///< metres
  TimePoint timestamp{};

  /// Distance in metres to `other` along the WGS-84 ellipsoid (geodesic), as mobile platforms
  /// measure the distance between two fixes.
  double distanceFrom(const Location& other) const;
};

/// One sighting of an iBeacon.
struct ZONARIS_API Beacon {
  std::string uuid;  ///< proximity UUID in canonical upper-case text form
  std::int32_t major = 0;
  std::int32_t minor = 0;
  double accuracy = -1.0;  ///< estimated distance in metres; negative when unknown
  int proximity = 0;       ///< 0 unknown, 1 immediate, 2 near, 3 far
};

/// Parses a UUID in its 8-4-4-4-12 hexadecimal text form (either case) and returns its
/// canonical upper-case text, or nothing when `text` is not a UUID.
ZONARIS_API std::optional<std::string> canonicalUUID(std::string_view text);

/// A region of iBeacons: every beacon with this proximity UUID (no major or minor given).
struct ZONARIS_API BeaconRegion {
  std::string uuid;  ///< canonical upper-case text
  std::string identifier;
  bool notifyOnEntry = false;
  bool notifyOnExit = false;
  bool notifyEntryStateOnDisplay = false;
};

enum class Accuracy { BestForNavigation, ThreeKilometers };

/// What a device's motion sensors (a motion coprocessor, activity recognition) say.
enum class Motion : std::uint8_t { Moving, Stationary };

/// One change of the device's motion, as its sensors report it: `timestamp` is when the report
/// was made, typically some seconds after the movement really began or ended.
struct ZONARIS_API MotionTransition {
  Motion motion = Motion::Stationary;
  TimePoint timestamp{};
};

/// Distance filter value meaning "every fix".
inline constexpr double kDistanceFilterNone = -1.0;

/// Receives what the location service delivers. Both callbacks arrive on the main queue,
/// never before the call that caused them has returned.
class ZONARIS_API LocationManagerDelegate {
 public:
  virtual ~LocationManagerDelegate() = default;
  /// Fixes in time order; never empty.
  virtual void didUpdateLocations(const std::vector<Location>& locations) = 0;
  virtual void didRangeBeacons(const std::vector<Beacon>& beacons, const BeaconRegion& region) = 0;
  /// A motion transition, while motion updates are started. Ignored unless overridden.
  virtual void didChangeMotion(const MotionTransition& /*transition*/) {}
};

/// The device's location service. Calls are made from any of the client's threads; an
/// implementation guards its own state.
class ZONARIS_API LocationManager {
 public:
  virtual ~LocationManager() = default;
  /// The delegate is held weakly: a delegate that went away gets nothing.
  virtual void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) = 0;
  virtual void setPausesLocationUpdatesAutomatically(bool pauses) = 0;
  virtual void setDesiredAccuracy(Accuracy accuracy) = 0;
  /// Metres a device must move before a new fix is delivered, or kDistanceFilterNone.
  virtual void setDistanceFilter(double metres) = 0;
  virtual void setAllowsBackgroundLocationUpdates(bool allows) = 0;
  virtual void requestAlwaysAuthorization() = 0;
  virtual void startUpdatingLocation() = 0;
  virtual void stopUpdatingLocation() = 0;
  virtual void startRangingBeacons(const BeaconRegion& region) = 0;
  virtual void stopRangingBeacons(const BeaconRegion& region) = 0;
  /// The client passes its developer mode on (`Zonaris::setDevMode`). An adapter that writes
  /// diagnostics to the platform log writes them only while it is on; others ignore it.
  virtual void setDevMode(bool /*devMode*/) {}
  /// Whether this location service reports motion transitions (`didChangeMotion`). A service
  /// without motion sensors keeps the default, false, and ignores the two calls below.
  virtual bool hasMotion() const { return false; }
  /// Starts or stops the delivery of motion transitions. Starting delivers the current motion
  /// once it is known, then every change.
  virtual void startMotionUpdates() {}
  virtual void stopMotionUpdates() {}
};

}  // namespace zonaris::platform
