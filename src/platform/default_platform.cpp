// The production platform: the adapters of this folder put together.
#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>
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
                  const std::shared_ptr<GpsdRegistry>& registry,
                  std::shared_ptr<CurlCancel> cancel = nullptr) {
  // libcurl's global set-up is not thread-safe: do it before this platform starts any thread.
  static std::once_flag curlOnce;
  std::call_once(curlOnce, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

  Platform platform;
  platform.dispatcher = dispatcher;
  CurlHttpOptions http;
  http.cancel = std::move(cancel);
  platform.http = makeCurlHttpClient(http);
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

namespace {

// How long before a shutdown's deadline exchanges still in flight are cancelled (at most; a
// tenth of the time-out when that is shorter): time for their threads to end.
constexpr std::chrono::milliseconds kCancelMargin{1000};

// Cancels the platform's exchanges with the service at `when`, unless dismissed before.
class CancelAt {
 public:
  CancelAt(std::shared_ptr<CurlCancel> cancel, std::chrono::steady_clock::time_point when)
      : thread_([this, cancel = std::move(cancel), when] {
          std::unique_lock lock(mutex_);
          if (!changed_.wait_until(lock, when, [this] { return dismissed_; }))
            cancel->cancel();
        }) {}
  ~CancelAt() {
    {
      std::lock_guard lock(mutex_);
      dismissed_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  CancelAt(const CancelAt&) = delete;
  CancelAt& operator=(const CancelAt&) = delete;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool dismissed_ = false;
  std::thread thread_;  // last: starts once the fields above exist
};

}  // namespace

struct ProductionPlatform::Parts {
  std::shared_ptr<ThreadDispatcher> dispatcher = std::make_shared<ThreadDispatcher>();
  std::shared_ptr<GpsdRegistry> registry = std::make_shared<GpsdRegistry>();
  std::shared_ptr<CurlCancel> cancel = std::make_shared<CurlCancel>();
  std::atomic<bool> shutDown{false};
  Platform platform;
};

ProductionPlatform::ProductionPlatform(const DefaultPlatformOptions& options)
    : parts_(std::make_unique<Parts>()) {
  parts_->platform = assemble(options, parts_->dispatcher, parts_->registry, parts_->cancel);
}

ProductionPlatform::~ProductionPlatform() {
  // After an explicit shutdown, threads that outlived it hold what they use: no second wait.
  if (!parts_->shutDown.load())
    shutdown();
}

const Platform& ProductionPlatform::platform() const {
  return parts_->platform;
}

bool ProductionPlatform::shutdown(std::chrono::milliseconds timeout) {
  parts_->shutDown.store(true);
  const auto deadline = std::chrono::steady_clock::now() + std::max(timeout, timeout.zero());
  // An exchange with the service can hold a detached thread or the main queue (a retry runs
  // there) for libcurl's 60 s. Shortly before the deadline the exchanges still in flight are
  // cancelled, so that their threads end and are joined in time.
  const CancelAt cancelAt(parts_->cancel,
                          deadline - std::min<std::chrono::steady_clock::duration>(
                                         std::max(timeout, timeout.zero()) / 10, kCancelMargin));
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
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return parts_->dispatcher->waitForDetachedTasks(std::max(left, left.zero()));
}

}  // namespace zonaris::platform
