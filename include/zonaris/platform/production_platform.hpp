#pragma once

#include "zonaris/export.h"

#include <chrono>
#include <memory>

#include "zonaris/platform/platform.hpp"

namespace zonaris::platform {

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

}  // namespace zonaris::platform
