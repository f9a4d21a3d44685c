#pragma once

#include "zonaris/export.h"

// The position source on Linux devices: gpsd, the GNSS daemon, reached through libgps.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zonaris/platform/dispatch.hpp"
#include "zonaris/platform/location.hpp"
#include "zonaris/platform/log.hpp"

namespace zonaris::platform {

/// Where gpsd listens and how a lost connection is retried.
struct ZONARIS_API GpsdOptions {
  std::string host = "localhost";
  std::string port = "2947";
  /// Wait before the first retry of a failed or lost connection; it doubles with each failure
  /// in a row up to `retryMax`, and starts again from `retryMin` once connected.
  std::chrono::milliseconds retryMin{1000};
  std::chrono::milliseconds retryMax{30000};
};

/// Reads "HOST:PORT", "HOST", ":PORT" or "[IPV6]:PORT" into `GpsdOptions` (the missing part
/// keeps its default); nothing when the text is not of that form or the port is not 1 to 65535.
ZONARIS_API std::optional<GpsdOptions> parseGpsdAddress(std::string_view text);

/// What a `GpsdLocationManager` has seen so far.
struct ZONARIS_API GpsdStatus {
  bool connected = false;
  std::uint64_t connections = 0;     ///< successful connections to gpsd
  std::uint64_t failedAttempts = 0;  ///< connection attempts that failed
  std::uint64_t lostConnections = 0;
  std::uint64_t reports = 0;  ///< TPV reports read
  std::uint64_t delivered = 0;
  std::string lastError;  ///< why the last attempt failed or the connection was lost
};

/// A location service over gpsd.
///
/// Settings: the client's armed setting (best-for-navigation accuracy, no distance filter)
/// means watching: the manager asks gpsd to stream reports (`?WATCH` enable). Any other
/// setting, in particular the idle one (three kilometres, a 99999 m filter), means not watching
/// (`?WATCH` disable), so that gpsd may power the receiver down: a GNSS receiver has no cheaper
/// coarse position to offer. Between `startUpdatingLocation` and `stopUpdatingLocation` the
/// manager stays connected, watching or not; after the stop it closes the connection.
///
/// Delivery: while watching, every TPV report with a 2D or 3D fix, a finite position and a
/// time no earlier than the moment watching began is delivered on the dispatcher's main queue
/// (`mainAfter(0, ...)`) as one fix: latitude and longitude; speed in m/s, or -1 when the
/// report has none; horizontal accuracy from `eph`, else the larger of `epx`/`epy`, else -1;
/// the report's time as the timestamp. Reports without a fix, without a time or from before
/// the arming are dropped. The time comparison uses the system clock, so the device's clock
/// should follow GNSS or NTP time.
///
/// Failures: when gpsd cannot be reached or the connection is lost, the manager retries with a
/// growing wait (`GpsdOptions`) and keeps its settings: a sample armed while gpsd was away is
/// taken once it is back. In developer mode (`setDevMode`) each failure and recovery is one
/// line of the platform log; otherwise the manager writes nothing.
///
/// Beacon ranging is not available on Linux: `startRangingBeacons` and `stopRangingBeacons`
/// are accepted and nothing is ever delivered to `didRangeBeacons`.
///
/// Threads: one thread of its own talks to gpsd; it sleeps in poll() between reports, so an
/// idle manager costs no CPU. Every operation may be called from any thread and returns without
/// waiting for gpsd. The destructor (or `shutdown`) closes the connection and joins the thread;
/// a connection attempt to a host that does not answer may delay it up to the system's connect
/// time-out.
class ZONARIS_API GpsdLocationManager final : public LocationManager {
 public:
  GpsdLocationManager(std::shared_ptr<Dispatcher> dispatcher, std::shared_ptr<Logger> logger,
                      GpsdOptions options = {});
  ~GpsdLocationManager() override;
  GpsdLocationManager(const GpsdLocationManager&) = delete;
  GpsdLocationManager& operator=(const GpsdLocationManager&) = delete;

  void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) override;
  void setPausesLocationUpdatesAutomatically(bool pauses) override;
  void setDesiredAccuracy(Accuracy accuracy) override;
  void setDistanceFilter(double metres) override;
  void setAllowsBackgroundLocationUpdates(bool allows) override;
  void requestAlwaysAuthorization() override;
  void startUpdatingLocation() override;
  void stopUpdatingLocation() override;
  /// Accepted; no beacon is ever delivered (no BLE ranging on Linux).
  void startRangingBeacons(const BeaconRegion& region) override;
  void stopRangingBeacons(const BeaconRegion& region) override;
  void setDevMode(bool devMode) override;

  /// True while the settings ask gpsd to stream reports.
  bool watching() const;
  GpsdStatus status() const;
  /// Called on the manager's thread after each connection, lost connection and failed
  /// attempt, outside the manager's lock. Keep it short.
  void setStatusListener(std::function<void(const GpsdStatus&)> listener);

  /// Closes the connection and joins the manager's thread; nothing is delivered afterwards.
  /// Idempotent; not callable from the status listener.
  void shutdown();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace zonaris::platform
