#pragma once

#include "zonaris/export.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "zonaris/actions.hpp"
#include "zonaris/platform/location.hpp"

namespace zonaris {

/// Names of the delegate operations, for `ZonarisDelegate::respondsTo`.
enum class ZonarisCallback {
  updatedInitLocation,
  updatedDistanceToNearestFence,
  updatedBeaconScan,
  reportSent,
  eventEnterCallback,
  eventExitCallback,
  eventDwellCallback,
  actionBasicCallback,
  actionDataCallback,
  updatedSpeed,
  updatedAvgSpeed,
  updatedInterval,
  updatedGPSAccuracy,
};

/// Everything the library learns reaches the application through this interface. Every
/// operation is optional: the defaults do nothing, so implement the ones you want.
///
/// The client holds its delegate weakly (`Zonaris::setDelegate`): it never keeps it alive, and
/// once it is gone nothing is sent. Before each call the client asks `respondsTo`, anew for
/// every call, so a delegate may switch callbacks on and off at any time.
///
/// Threads: `updatedInitLocation` arrives on the main queue; every other callback arrives on a
/// background thread of the library (one per position fix). Passes of successive fixes can
/// overlap, so two callbacks may run at once. A callback blocks the library while it runs.
/// Exceptions must not leave a callback.
class ZONARIS_API ZonarisDelegate {
 public:
  virtual ~ZonarisDelegate() = default;

  /// Whether the delegate wants `callback`. Default: all of them.
  virtual bool respondsTo(ZonarisCallback callback) const {
    (void)callback;
    return true;
  }

  /// A fix became the reference position around which fences are downloaded.
  virtual void updatedInitLocation(const platform::Location& location) { (void)location; }
  /// After every evaluation over a non-empty fence list: metres to the nearest fence, and
  /// whether the device is inside at least one fence.
  virtual void updatedDistanceToNearestFence(double distance, bool inside) {
    (void)distance;
    (void)inside;
  }
  /// After every evaluation: true when beacon ranging was asked to start, false to stop.
  virtual void updatedBeaconScan(bool scanning) { (void)scanning; }
  /// An observation reached the service (whatever the HTTP status).
  virtual void reportSent() {}
  /// The service confirmed an entry into the fence with this name (null when the fence has
  /// no name).
  virtual void eventEnterCallback(const std::optional<std::string>& name) { (void)name; }
  virtual void eventExitCallback(const std::optional<std::string>& name) { (void)name; }
  virtual void eventDwellCallback(const std::optional<std::string>& name) { (void)name; }
  /// A message arrived outside the silence window.
  virtual void actionBasicCallback(std::shared_ptr<const ZonarisActionBasic> action) {
    (void)action;
  }
  /// The application's own keys of a message (sent after `actionBasicCallback`).
  virtual void actionDataCallback(std::shared_ptr<const ZonarisActionData> action) { (void)action; }
  /// Speed in m/s between the last two fixes, never below 0.
  virtual void updatedSpeed(float speed) { (void)speed; }
  /// Smoothed speed in m/s.
  virtual void updatedAvgSpeed(float speed) { (void)speed; }
  /// Seconds until the next position sample, 15 to 600.
  virtual void updatedInterval(std::int32_t seconds) { (void)seconds; }
  /// Horizontal accuracy in metres of the current position.
  virtual void updatedGPSAccuracy(float metres) { (void)metres; }
};

}  // namespace zonaris
