// The production platform: the adapters of this folder put together.
#include <curl/curl.h>

#include <cstdlib>
#include <mutex>

#include "zonaris/platform/curl_http.hpp"
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

}  // namespace

Platform defaultPlatform(const DefaultPlatformOptions& options) {
  // libcurl's global set-up is not thread-safe: do it before this platform starts any thread.
  static std::once_flag curlOnce;
  std::call_once(curlOnce, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

  auto dispatcher = std::make_shared<ThreadDispatcher>();
  Platform platform;
  platform.dispatcher = dispatcher;
  platform.http = makeCurlHttpClient();
  platform.store = std::make_shared<FileStore>(resolveStoreDirectory(options.storeDirectory));
  platform.clock = std::make_shared<SystemClock>();
  platform.logger = std::make_shared<StderrLogger>();
  platform.device = std::make_shared<SystemDeviceInfo>();
  platform.callStack = std::make_shared<BacktraceCallStack>();
  if (options.makeLocationManager) {
    platform.makeLocationManager = options.makeLocationManager;
  } else {
    platform.makeLocationManager = [dispatcher]() -> std::shared_ptr<LocationManager> {
      return std::make_shared<FeedLocationManager>(dispatcher);
    };
  }
  platform.baseUrl = options.baseUrl;
  return platform;
}

}  // namespace zonaris::platform
