#pragma once

#include "zonaris/export.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "zonaris/actions.hpp"
#include "zonaris/delegate.hpp"
#include "zonaris/fence.hpp"
#include "zonaris/install_id_store.hpp"
#include "zonaris/platform/platform.hpp"
#include "zonaris/tags.hpp"

namespace zonaris {

namespace sampling {
class EfficientPolicy;
}  // namespace sampling

struct ZonarisState;

/// When the client takes its position samples.
enum class SamplingPolicy : std::uint8_t {
  /// The design's rule: half the time to reach the nearest fence at the averaged speed, cut to
  /// the next dwell deadline, between 15 and 600 seconds. The default.
  Design,
  /// Fewer fixes for the same events: measures from inside a fence to its boundary, rests the
  /// GPS while the platform's motion sensor says stationary (where there is one), otherwise
  /// lets a stop's interval grow no further than a walker needs to reach the nearest boundary,
  /// samples again soon after an unconfirmed observation, and right after each dwell deadline.
  /// What a pass decides and sends is unchanged; only the moments of the samples differ. See
  /// the README.
  Efficient,
};

/// The library's version, sent with every error report.
inline constexpr const char* kZonarisVersion = "2.0.03.30";

/// The client. An application makes one with `initWithAppKey`, configures it, and calls
/// `start`; from then on the client works on its own and tells the application what it learns
/// through its `ZonarisDelegate`. Failures are never raised to the application: they are
/// reported to the service.
///
/// Threads: call the configuration operations, `start` and `stop` from the application's
/// thread. The client runs its own work on the platform's threads (see `ZonarisDelegate`).
///
/// Lifetime: work the client has scheduled (retries, the next sample, the beacon cycle, the
/// dwell tick) holds the client, so it lives until that work has run. `stop` cancels nothing
/// that is already scheduled, and a stopped client is not restarted by `start`: make a new one.
///
/// The operations after the application's eight are the client's own steps. They are public so
/// that simulators and tests can drive them, but an application does not need to call them.
class ZONARIS_API Zonaris : public platform::LocationManagerDelegate,
                            public std::enable_shared_from_this<Zonaris> {
 public:
  static constexpr double kNoDistance = std::numeric_limits<double>::max();
  static constexpr std::int32_t kNoDwellPending = std::numeric_limits<std::int32_t>::max();

  // ---- The application's operations -------------------------------------------------------

  /// Makes a client with the key the service issued, sets up the location service in its idle
  /// setting and starts it. Returns null only when `platform` lacks a part.
  static std::shared_ptr<Zonaris> initWithAppKey(std::string appKey, platform::Platform platform);

  /// Sets the beacon proximity UUID and builds the region that beacon ranging uses (identifier
  /// "beacon_region", every major and minor). Text that is not a UUID is refused: the call
  /// returns false and leaves the region as it was.
  bool setUUID(const std::string& uuid);
  void setDevMode(bool devMode);
  /// Keeps `tags` by reference: changes made to it later are carried by later observations.
  /// Without tags, observations carry an empty object.
  void setTags(std::shared_ptr<ZonarisTags> tags);
  /// Messages that arrive during the daily silence window are dropped (events still arrive).
  /// With start < stop the hours strictly between them are silent; with stop < start (across
  /// midnight) the hours from start through stop inclusive; with start == stop none.
  void setSilenceWindowStart(std::int32_t start, std::int32_t stop);
  /// Held weakly; the application keeps its delegate alive.
  void setDelegate(std::weak_ptr<ZonarisDelegate> delegate);
  /// Checks the key, then registers the installation or takes the first position sample.
  void start();
  /// Switches beacon ranging off, disarms sampling and stops the location service.
  void stop();
  /// Chooses when samples are taken (default `SamplingPolicy::Design`). Best set before
  /// `start`; a change takes effect from the next accepted fix on. The efficient policy starts
  /// the location service's motion updates (where it has them); the design's never does.
  void setSamplingPolicy(SamplingPolicy policy);
  SamplingPolicy samplingPolicy() const;
  /// Accepts the fence catalogue compressed (gzip) from the service, which sends a dense one in
  /// a fraction of the bytes; the answer is decoded before it is read, so nothing else changes.
  /// Off by default: the fence query then carries no "Accept-Encoding" header. A change takes
  /// effect from the next download. Needs an HTTP client that decodes gzip (the libcurl one).
  void setCompression(bool compression);
  bool compression() const;

  // ---- Registration and reports -----------------------------------------------------------

  void getInstallID();
  void getFences();
  void sendObservation();
  void sendException(const std::string& reason, const std::vector<std::string>& callStack,
                     const nlohmann::json& variables);
  bool checkSilenceTime();

  // ---- Fence engine -----------------------------------------------------------------------

  double calculateDistanceFrom(const std::string& from, const std::string& to);
  void handleFences();
  void confirmEventFor(std::int64_t locationId, const std::string& type);
  void startDwellTimer();
  void stopDwellTimer();
  void updateDwellTimes();
  std::int32_t getTimeBeforeDwell();

  // ---- Sampling -----------------------------------------------------------------------------

  void updateLocation();
  void didUpdateLocations(const std::vector<platform::Location>& locations) override;
  /// Under `SamplingPolicy::Efficient` (the only policy that listens): "moving" after rest
  /// takes a sample at once; every transition shapes the intervals that follow.
  void didChangeMotion(const platform::MotionTransition& transition) override;
  void calculateIntervalAndAccuracy();
  void startUpdateBeacons();
  void stopUpdateBeacons();
  void startScanBeacons();
  void stopScanBeacons();
  void didRangeBeacons(const std::vector<platform::Beacon>& beacons,
                       const platform::BeaconRegion& region) override;
  /// The beacon of the scan in progress with the same minor, major and UUID text, if any.
  std::optional<platform::Beacon> isBeaconExists(const platform::Beacon& beacon);

  // ---- State fields (getter and setter each) --------------------------------------------

  using LocationPtr = std::shared_ptr<const platform::Location>;
  using RegionPtr = std::shared_ptr<const platform::BeaconRegion>;
  using FencesPtr = std::shared_ptr<const FenceList>;
  using BeaconRecords = std::shared_ptr<const nlohmann::json>;

  std::string mAppKey() const;
  void setMAppKey(std::string value);
  bool mDevMode() const;
  void setMDevMode(bool value) { setDevMode(value); }
  std::optional<std::string> mUUID() const;
  void setMUUID(std::optional<std::string> value);
  std::shared_ptr<ZonarisTags> mTags() const;
  void setMTags(std::shared_ptr<ZonarisTags> value) { setTags(std::move(value)); }
  std::int32_t mSilenceStart() const;
  void setMSilenceStart(std::int32_t value);
  std::int32_t mSilenceStop() const;
  void setMSilenceStop(std::int32_t value);
  std::shared_ptr<platform::LocationManager> mLocationManager() const;
  std::weak_ptr<ZonarisDelegate> mDelegate() const;
  void setMDelegate(std::weak_ptr<ZonarisDelegate> value) { setDelegate(std::move(value)); }
  std::int64_t mInstallId() const;
  void setMInstallId(std::int64_t value);
  bool mUpdatingLocation() const;
  void setMUpdatingLocation(bool value);
  bool mResetFences() const;
  void setMResetFences(bool value);
  bool mBeaconEnabled() const;
  void setMBeaconEnabled(bool value);
  bool mBeaconScanning() const;
  void setMBeaconScanning(bool value);
  double mMinDist() const;
  void setMMinDist(double value);
  float mAverageSpeed() const;
  void setMAverageSpeed(float value);
  float mSpeed() const;
  void setMSpeed(float value);
  RegionPtr mBeaconRegion() const;
  void setMBeaconRegion(RegionPtr value);
  LocationPtr mInitLocation() const;
  void setMInitLocation(LocationPtr value);
  LocationPtr mCurrentLocation() const;
  void setMCurrentLocation(LocationPtr value);
  /// The fence catalogue: an immutable snapshot of the list, replaced whole by each download.
  /// The fences in it are shared and keep changing state (entered, dwelled, dwell_time).
  FencesPtr mFences() const;
  void setMFences(FencesPtr value);
  /// The beacon records of the last finished scan: a JSON array of objects with "uuid",
  /// "major", "minor" and "proximity".
  BeaconRecords mBeacons() const;
  void setMBeacons(BeaconRecords value);
  /// The sightings of the scan in progress (a copy).
  std::vector<platform::Beacon> mCurrentBeacons() const;
  void setMCurrentBeacons(std::vector<platform::Beacon> value);
  std::shared_ptr<platform::TickerHandle> mDwellTimer() const;
  void setMDwellTimer(std::shared_ptr<platform::TickerHandle> value);

  /// The platform the client was made with.
  const platform::Platform& platform() const;

  ~Zonaris() override;

 private:
  explicit Zonaris(platform::Platform platform);

  // Logging: `devLog` writes only in developer mode, `alwaysLog` always.
  void devLog(std::string_view line) const;
  void alwaysLog(std::string_view line) const;

  // Runs `step` on a new thread, holding the client; anything thrown becomes an error report.
  void detachGuarded(const char* what, std::function<void(Zonaris&)> step);
  // Runs `step` on the main queue after `delay`, holding the client, guarded as above.
  void mainAfterGuarded(const char* what, platform::Duration delay,
                        std::function<void(Zonaris&)> step);
  // Turns an exception that reached a thread entry into an error report. Throws nothing but
  // the forced unwind that ends a thread.
  void reportUnexpected(const char* what, const char* message);
  std::vector<std::string> callStackSymbols() const;
  // The efficient policy's state while that policy is in force, else null.
  std::shared_ptr<sampling::EfficientPolicy> efficientPolicy() const;

  // The delegate sending rule: resolve the weak reference, ask whether the operation is
  // implemented and call it on that same delegate. Nothing is cached between calls. The
  // delegate is held for the call, so one replaced meanwhile is never asked one thing and
  // called for another, and one released meanwhile finishes its call first.
  template <class Call>
  void notifyDelegate(ZonarisCallback which, Call&& call) {
    auto delegate = mDelegate().lock();
    if (delegate && delegate->respondsTo(which))
      call(*delegate);
  }

  // Every field of the client (see client/zonaris_state.hpp); set by the constructor, never
  // replaced.
  std::unique_ptr<ZonarisState> state_;
};

}  // namespace zonaris
