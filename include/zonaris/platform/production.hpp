#pragma once

#include "zonaris/export.h"

// The production platform's parts, for applications that assemble a platform of their own
// (or take `defaultPlatform()` and replace a part) and for tests of the parts themselves.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zonaris/platform/platform.hpp"

namespace zonaris::platform {

class GpsdLocationManager;

/// The production platform (see `defaultPlatform`) together with the means to free it.
///
/// Work a client has scheduled holds the client, so releasing the last reference of the
/// application does not free it. `shutdown` does:
///
///     zonaris::platform::ProductionPlatform production(options);
///     auto client = zonaris::Zonaris::initWithAppKey("key", production.platform());
///     client->start();
///     ...
///     client->stop();
///     client.reset();
///     production.shutdown();  // every thread joined, every client released
class ZONARIS_API ProductionPlatform {
 public:
  explicit ProductionPlatform(const DefaultPlatformOptions& options = {});
  /// Calls `shutdown()` with its default time-out, unless `shutdown` was called before: then it
  /// does not wait again (threads that outlived that call hold what they use).
  ~ProductionPlatform();
  ProductionPlatform(const ProductionPlatform&) = delete;
  ProductionPlatform& operator=(const ProductionPlatform&) = delete;

  /// The parts to make clients with (`Zonaris::initWithAppKey` keeps a copy that shares them).
  const Platform& platform() const;

  /// Stops everything the platform runs within `timeout`, in this order: drops the work
  /// scheduled on the main queue (retries, next samples, beacon steps), stops the tickers (dwell
  /// timers) and joins the main-queue and ticker threads; closes the connections of the gpsd
  /// location managers it made and joins their threads; then waits for the threads that clients
  /// started for a registration, a download or an evaluation pass. An exchange with the
  /// service (up to libcurl's 60 s, and a retry on the main queue or an error report may follow
  /// one) may go on until shortly before the deadline (a tenth of `timeout`, at most 1 s); then
  /// the platform's exchanges still in flight are cancelled, they fail as transport errors and
  /// no later one is sent. Clients the application no longer holds are then released; a client
  /// still held stays in memory but gets no more work done. True when no thread of the platform
  /// is left running. Idempotent. Call it from the application's own thread, never from a
  /// delegate callback (those run on the platform's threads).
  bool shutdown(std::chrono::milliseconds timeout = std::chrono::seconds(60));

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

/// Real threads behind the `Dispatcher` interface.
///
/// - `detach` starts a new detached thread per task.
/// - `mainAfter` queues the task for one main-queue thread owned by the dispatcher. It runs
///   tasks one at a time, ordered by due time (steady clock) and, for equal due times, by the
///   order they were posted. This thread is the library's "main queue"; it is not the
///   application's main thread.
/// - `startTicker` ticks on one ticker thread owned by the dispatcher, shared by all tickers
///   (never the main-queue thread): ticks of different tickers run one after the other. A tick
///   that overruns its interval skips the ticks it missed instead of bunching them up. An
///   interval below 1 ms counts as 1 ms; intervals and delays beyond 100 years count as 100
///   years.
/// - `TickerHandle::invalidate` may be called from any thread, also from inside the tick. Once
///   it has returned, no tick of that ticker starts; a tick that the ticker thread had already
///   begun when it was called may still be running on the ticker thread (invalidate does not
///   wait for it, so a tick may call invalidate, and an invalidating thread never deadlocks
///   against a tick waiting for a lock it holds). Invalidating releases the tick function.
///
/// No operation runs its task before it returns. An exception that escapes a task is caught and
/// the thread goes on; the failure is written to the logger given to `setLogger` (none by default:
/// the library writes nothing outside developer mode but its beacon lines). The two owned
/// threads start on first use.
///
/// Lifetime: tasks usually hold the client, and the client holds its platform and so this
/// dispatcher. `shutdown()` drops queued work and releases what it holds; the destructor calls
/// it as well. Applications use `ProductionPlatform::shutdown`, which calls it.
class ZONARIS_API ThreadDispatcher final : public Dispatcher {
 public:
  ThreadDispatcher();
  ~ThreadDispatcher() override;
  ThreadDispatcher(const ThreadDispatcher&) = delete;
  ThreadDispatcher& operator=(const ThreadDispatcher&) = delete;

  void detach(Task task) override;
  void mainAfter(Duration delay, Task task) override;
  std::shared_ptr<TickerHandle> startTicker(Duration interval, Task tick) override;

  /// Drops every queued main-queue task, invalidates every ticker and joins the main-queue and
  /// ticker threads once their current task is done (a thread that calls this on itself is
  /// detached instead of joined). Afterwards every operation drops its task without running
  /// it, `startTicker` returns an already invalidated handle. Detached threads already started
  /// finish on their own; they may still call the dispatcher, which is then a no-op. Idempotent;
  /// callable from any thread, including the dispatcher's own.
  void shutdown();

  /// Waits until every task started by `detach` has finished (its captures released), or until
  /// `timeout` passed. True when none is left running.
  bool waitForDetachedTasks(std::chrono::milliseconds timeout);

  /// Where failures of the dispatcher itself are written (a task's escaped exception, a thread
  /// that could not start); null, the default, writes them nowhere.
  void setLogger(std::shared_ptr<Logger> logger);

  class Diagnostics;

 private:
  struct State;
  static void mainLoop(std::shared_ptr<State> state);
  static void tickerLoop(std::shared_ptr<State> state);

  // Shared with the threads, so that a detached task that outlives the dispatcher object still
  // meets valid (closed) state.
  std::shared_ptr<State> state_;
};

/// The key/value store as one small JSON file ("zonaris-store.json", an object of integers) in
/// a folder that is created when missing.
///
/// Each write rewrites the whole file atomically: the new content goes into a temporary file in
/// the same folder, which is flushed to disk (fsync), renamed over the old file, and the folder
/// itself is flushed. A crash at any moment therefore leaves the old or the new file, never a
/// mix. Writers of every process serialise on an advisory lock (flock) on the folder and
/// re-read the file before changing it, so two stores over the same folder keep each other's
/// keys. Reads take the file as it is: missing, unreadable or malformed content, a value that is
/// not an integer or does not fit 64 bits, all read as 0. Thread-safe; never throws; a failed
/// write leaves the earlier value and is written to the logger given to `setLogger` (none by
/// default).
class ZONARIS_API FileStore final : public KeyValueStore {
 public:
  static constexpr const char* kFileName = "zonaris-store.json";

  explicit FileStore(std::string directory);
  std::int64_t getLong(const std::string& key) const override;
  void setLong(const std::string& key, std::int64_t value) override;

  const std::string& directory() const { return directory_; }
  /// The path of the store's file.
  std::string filePath() const;
  /// Where failed writes are reported; null, the default, reports them nowhere.
  void setLogger(std::shared_ptr<Logger> logger);

 private:
  std::string directory_;
  mutable std::mutex mutex_;
  std::shared_ptr<Logger> logger_;
};

/// Writes each line to stderr (after `prefix`), with one write call per line so that lines
/// from several threads do not interleave.
class ZONARIS_API StderrLogger final : public Logger {
 public:
  explicit StderrLogger(std::string prefix = {});
  void log(std::string_view line) override;

 private:
  std::string prefix_;
  std::mutex mutex_;
};

/// The system clock; the hour of the day in the process's local time zone (TZ, else
/// /etc/localtime).
class ZONARIS_API SystemClock final : public Clock {
 public:
  TimePoint now() const override;
  int hourOfDay(TimePoint time) const override;
};

/// The operating system's version: VERSION_ID of os-release (/etc/os-release, else
/// /usr/lib/os-release), for example "12" or "22.04", which like a phone's system version names
/// the release the user installed; when there is none, the kernel release from uname (for
/// example "6.1.0-18-amd64"); "0" when even that fails. Read once, at construction.
class ZONARIS_API SystemDeviceInfo final : public DeviceInfo {
 public:
  SystemDeviceInfo();
  std::string systemVersion() const override { return version_; }

 private:
  std::string version_;
};

/// The calling thread's stack through glibc's backtrace(): one text per frame, innermost first,
/// starting with the caller of `symbols()`. Names of functions in the executable itself appear
/// only when it is linked with -rdynamic; otherwise a frame shows its module and address.
class ZONARIS_API BacktraceCallStack final : public CallStack {
 public:
  std::vector<std::string> symbols() const override;
};

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

  /// Offers one fix. It is delivered when updates are started and either no distance filter is
  /// set (a filter of 0 or less) or the fix lies farther than the filter from the last fix
  /// delivered. Returns whether it will be delivered.
  bool pushLocation(const Location& fix);
  /// Offers one ranging round: every ranged region receives the beacons of its UUID (compared
  /// without regard to case and delivered as canonical upper-case text; beacons whose UUID is
  /// not a UUID are left out), possibly none.
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
