// The production platform: the adapters of this folder put together.
#include <curl/curl.h>

#include <cstdlib>
#include <mutex>
#include <vector>

#include "zonaris/platform/curl_http.hpp"
#include "zonaris/platform/gpsd.hpp"
#include "zonaris/platform/production.hpp"

namespace zonaris::platform {

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// The store's folder, following the XDG base directory rules for per-user application data.
std::string resolveStoreDirectory(const std::string& configured) {
  if (!configured.empty())
    return configured;
  // XDG asks to ignore a relative path.
  if (const auto data = environment("XDG_DATA_HOME"); !data.empty() && data.front() == '/')
    return data + "/zonaris";
  if (const auto home = environment("HOME"); !home.empty())
    return home + "/.local/share/zonaris";
  return "./zonaris-data";
}

// The gpsd location managers a platform made, so that shutting the platform down can close
// their connections even while a client still holds one.
struct GpsdRegistry {
  std::mutex mutex;
  std::vector<std::weak_ptr<GpsdLocationManager>> managers;
};

Platform assemble(const DefaultPlatformOptions& options,
                  const std::shared_ptr<ThreadDispatcher>& dispatcher,
                  const std::shared_ptr<GpsdRegistry>& registry) {
  // libcurl's global set-up is not thread-safe: do it before this platform starts any thread.
  static std::once_flag curlOnce;
  std::call_once(curlOnce, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

  Platform platform;
  platform.dispatcher = dispatcher;
  platform.http = makeCurlHttpClient();
  // A store that cannot keep the install id makes the device a new installation at every
  // start: its failures go where the operator sees them, not only to a developer-mode log.
  const auto errors = options.errorLogger ? options.errorLogger : std::make_shared<StderrLogger>();
  auto store = std::make_shared<FileStore>(resolveStoreDirectory(options.storeDirectory));
  store->setLogger(errors);
  platform.store = std::move(store);
  dispatcher->setLogger(errors);
  platform.clock = std::make_shared<SystemClock>();
  platform.logger = options.logger ? options.logger : std::make_shared<StderrLogger>();
  platform.device = std::make_shared<SystemDeviceInfo>();
  platform.callStack = std::make_shared<BacktraceCallStack>();
  if (options.makeLocationManager) {
    platform.makeLocationManager = options.makeLocationManager;
  } else if (!options.gpsd.empty()) {
    // A malformed address leaves the defaults (localhost:2947); the agent checks its option.
    auto gpsd = parseGpsdAddress(options.gpsd).value_or(GpsdOptions{});
    platform.makeLocationManager = [dispatcher, logger = platform.logger, gpsd,
                                    registry]() -> std::shared_ptr<LocationManager> {
      auto manager = std::make_shared<GpsdLocationManager>(dispatcher, logger, gpsd);
      std::lock_guard lock(registry->mutex);
      registry->managers.push_back(manager);
      return manager;
    };
  } else {
    platform.makeLocationManager = [dispatcher]() -> std::shared_ptr<LocationManager> {
      return std::make_shared<FeedLocationManager>(dispatcher);
    };
  }
  platform.baseUrl = options.baseUrl;
  return platform;
}

}  // namespace

Platform defaultPlatform(const DefaultPlatformOptions& options) {
  return assemble(options, std::make_shared<ThreadDispatcher>(), std::make_shared<GpsdRegistry>());
}

struct ProductionPlatform::Parts {
  std::shared_ptr<ThreadDispatcher> dispatcher = std::make_shared<ThreadDispatcher>();
  std::shared_ptr<GpsdRegistry> registry = std::make_shared<GpsdRegistry>();
  Platform platform;
};

ProductionPlatform::ProductionPlatform(const DefaultPlatformOptions& options)
    : parts_(std::make_unique<Parts>()) {
  parts_->platform = assemble(options, parts_->dispatcher, parts_->registry);
}

ProductionPlatform::~ProductionPlatform() {
  shutdown();
}

const Platform& ProductionPlatform::platform() const {
  return parts_->platform;
}

bool ProductionPlatform::shutdown(std::chrono::milliseconds timeout) {
  parts_->dispatcher->shutdown();
  std::vector<std::weak_ptr<GpsdLocationManager>> managers;
  {
    std::lock_guard lock(parts_->registry->mutex);
    managers.swap(parts_->registry->managers);
  }
  for (auto& weak : managers) {
    if (auto manager = weak.lock())
      manager->shutdown();
  }
  return parts_->dispatcher->waitForDetachedTasks(timeout);
}

}  // namespace zonaris::platform
