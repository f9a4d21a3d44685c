#pragma once

#include "zonaris/export.h"

// The position source on Linux devices: gpsd, the GNSS daemon, over its JSON protocol (libgps
// reads the reports).

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
  /// in a row up to `retryMax`, and starts again from `retryMin` once gpsd has sent a report
  /// with a fix (a gpsd that accepts connections and drops them is retried ever more slowly).
  std::chrono::milliseconds retryMin{1000};
  std::chrono::milliseconds retryMax{30000};
  /// Longest a connection attempt may take, all of the host's addresses together (a gpsd whose
  /// listen queue is full never answers); then it counts as failed and is retried.
  std::chrono::milliseconds connectTimeout{10000};
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
/// time is delivered on the dispatcher's main queue (`mainAfter(0, ...)`) as one fix: latitude
/// and longitude; speed in m/s, or -1 when the report has none; horizontal accuracy from `eph`,
/// else the larger of `epx`/`epy`, else -1; the report's time as the timestamp. Freshness is
/// judged by arrival, not by comparing the receiver's clock with the system clock: a report
/// read after the arming is fresh, unless its time is earlier than that of the last fix
/// delivered (a replayed or repeated report). A log recorded on another day and replayed
/// through gpsfake, or a device whose system clock is wrong, still gets its fixes. Reports
/// without a fix, a position or a time, older ones, and those read while no sample is armed are
/// dropped; in developer mode each drop is one line of the platform log, with the reason.
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
/// waiting for gpsd. Every wait of the thread (connecting, reading, the retry back-off) is cut
/// short by `stopUpdatingLocation` and `shutdown`, so the destructor (or `shutdown`) closes the
/// connection and joins the thread at once; only a name lookup of the host in progress may hold
/// it, up to the resolver's own time-outs. Descriptor numbers beyond FD_SETSIZE are fine.
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
  /// Called on the manager's thread after each connection, lost connection, failed attempt and
  /// close after a stop (never for a report), outside the manager's lock. Keep it short.
  void setStatusListener(std::function<void(const GpsdStatus&)> listener);

  /// Closes the connection and joins the manager's thread; nothing is delivered afterwards.
  /// Idempotent; not callable from the status listener.
  void shutdown();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace zonaris::platform
