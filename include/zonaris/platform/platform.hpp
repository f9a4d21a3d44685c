#pragma once

#include "zonaris/export.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "zonaris/platform/clock.hpp"
#include "zonaris/platform/dispatch.hpp"
#include "zonaris/platform/http.hpp"
#include "zonaris/platform/location.hpp"
#include "zonaris/platform/log.hpp"
#include "zonaris/platform/store.hpp"

namespace zonaris::platform {

/// Facts about the device.
class ZONARIS_API DeviceInfo {
 public:
  virtual ~DeviceInfo() = default;
  /// The operating system's version text, for example "17.0" or "9.3.5".
  virtual std::string systemVersion() const = 0;
};

/// The symbols of the calling thread's stack, one string per frame, innermost first.
class ZONARIS_API CallStack {
 public:
  virtual ~CallStack() = default;
  virtual std::vector<std::string> symbols() const = 0;
};

/// Everything through which the library reaches the outside world. A client keeps its
/// Platform for its whole life; all parts must be set.
struct ZONARIS_API Platform {
  /// Makes the location service handle; called once, by `Zonaris::initWithAppKey`.
  std::function<std::shared_ptr<LocationManager>()> makeLocationManager;
  std::shared_ptr<HttpClient> http;
  std::shared_ptr<KeyValueStore> store;
  std::shared_ptr<Dispatcher> dispatcher;
  std::shared_ptr<Clock> clock;
  std::shared_ptr<Logger> logger;
  std::shared_ptr<DeviceInfo> device;
  std::shared_ptr<CallStack> callStack;
  /// The service's base URL without a trailing slash. Empty: the one built into the library
  /// (set when the library is built); a self-hosted service, the simulator and tests set it.
  std::string baseUrl;

  /// True when every part is set.
  bool complete() const;
};

/// Options of the production platform.
struct ZONARIS_API DefaultPlatformOptions {
  /// Folder of the key/value store; created when missing. Empty: $XDG_DATA_HOME/zonaris,
  /// else $HOME/.local/share/zonaris, else ./zonaris-data.
  std::string storeDirectory;
  /// The location source. Linux has no system location service, so the application provides
  /// one (for example over gpsd or a vehicle bus); without it a `FeedLocationManager` is used,
  /// into which the application pushes fixes.
  std::function<std::shared_ptr<LocationManager>()> makeLocationManager;
  /// Take positions from gpsd at "HOST:PORT" (for example "localhost:2947") through a
  /// `GpsdLocationManager` (zonaris/platform/gpsd.hpp). Ignored when `makeLocationManager` is
  /// set; empty: not used.
  std::string gpsd;
  /// The platform log; empty: a `StderrLogger`.
  std::shared_ptr<Logger> logger;
  /// Where the platform's own failures are written, whatever the client's developer mode: a
  /// write of the store that failed (the install id is then not kept, and the next start
  /// registers a new installation) and the dispatcher's failures (a thread that could not be
  /// started). Not part of the client's log; no error report is sent for them. Empty: a
  /// `StderrLogger`.
  std::shared_ptr<Logger> errorLogger;
  /// The service's base URL; empty: the one built into the library.
  std::string baseUrl;
};

/// The production platform: real threads, libcurl, a file-backed store, stderr logging.
/// Scheduled work holds a client, so a client made on it (with its threads) may live until the
/// process ends; to free clients and threads at a moment of the application's choosing, use
/// `ProductionPlatform` (zonaris/platform/production.hpp) instead.
ZONARIS_API Platform defaultPlatform(const DefaultPlatformOptions& options = {});

}  // namespace zonaris::platform
