// The client half of the C API: a production client behind an opaque handle.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "capi/bridge.hpp"
#include "zonaris/platform/gpsd.hpp"
#include "zonaris/platform/production.hpp"
#include "zonaris/zonaris.h"
#include "zonaris/zonaris.hpp"

using zonaris::capi::fail;
using zonaris::capi::guarded;

struct zonaris_client {
  std::unique_ptr<zonaris::platform::ProductionPlatform> production;
  std::shared_ptr<zonaris::capi::ForwardingLogger> logger;
  std::shared_ptr<zonaris::capi::ForwardingLogger> errors;  // the platform's own failures
  std::shared_ptr<zonaris::Zonaris> client;
  std::shared_ptr<zonaris::ZonarisTags> tags = std::make_shared<zonaris::ZonarisTags>();
  std::shared_ptr<zonaris::capi::CallbackDelegate> delegate;
  std::shared_ptr<zonaris::platform::FeedLocationManager> feed;  // null with gpsd
};

namespace {

constexpr int kDefaultGpsdPort = 2947;
constexpr int kDefaultDestroyTimeoutMs = 65000;

zonaris_status noClient() {
  return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the client handle is null");
}

zonaris_status noFeed(const zonaris_client* handle) {
  if (!handle)
    return noClient();
  return fail(ZONARIS_STATUS_INVALID_STATE,
              "this client takes its positions from gpsd, not from pushed fixes");
}

}  // namespace

extern "C" {

ZONARIS_API zonaris_status zonaris_init_with_app_key(const char* app_key,
                                                     const zonaris_platform_options* options,
                                                     zonaris_client** client) {
  return guarded([&] {
    if (!client)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the client out-pointer is null");
    *client = nullptr;
    if (!app_key)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the application key is null");

    zonaris_platform_options o{};
    if (options) {
      if (options->struct_size < offsetof(zonaris_platform_options, base_url) + sizeof(char*))
        return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "options.struct_size is too small");
      std::memcpy(&o, options, std::min(options->struct_size, sizeof o));
    }
    zonaris::platform::DefaultPlatformOptions platformOptions;
    if (o.base_url)
      platformOptions.baseUrl = o.base_url;
    if (o.store_directory)
      platformOptions.storeDirectory = o.store_directory;
    if (o.position == ZONARIS_POSITION_GPSD) {
      if (o.gpsd_port < 0 || o.gpsd_port > 65535)
        return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "gpsd_port is not a port number");
      std::string host = o.gpsd_host ? o.gpsd_host : "localhost";
      // An IPv6 address is bracketed in "HOST:PORT"; one given without brackets gets them.
      if (host.find(':') != std::string::npos && host.front() != '[')
        host = "[" + host + "]";
      const int port = o.gpsd_port ? o.gpsd_port : kDefaultGpsdPort;
      platformOptions.gpsd = host + ":" + std::to_string(port);
      if (!zonaris::platform::parseGpsdAddress(platformOptions.gpsd))
        return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "not a gpsd address: " + platformOptions.gpsd);
    } else if (o.position != ZONARIS_POSITION_FEED) {
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "unknown position source");
    }

    auto handle = std::make_unique<zonaris_client>();
    auto stderrLogger = std::make_shared<zonaris::platform::StderrLogger>();
    handle->logger = std::make_shared<zonaris::capi::ForwardingLogger>(stderrLogger,
                                                                       &zonaris_callbacks::logLine);
    handle->errors = std::make_shared<zonaris::capi::ForwardingLogger>(
        stderrLogger, &zonaris_callbacks::platformError);
    platformOptions.logger = handle->logger;
    platformOptions.errorLogger = handle->errors;
    handle->production = std::make_unique<zonaris::platform::ProductionPlatform>(platformOptions);
    handle->client = zonaris::Zonaris::initWithAppKey(app_key, handle->production->platform());
    if (!handle->client)
      return fail(ZONARIS_STATUS_INTERNAL, "the production platform is incomplete");
    handle->feed = std::dynamic_pointer_cast<zonaris::platform::FeedLocationManager>(
        handle->client->mLocationManager());
    handle->client->setTags(handle->tags);
    *client = handle.release();
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_set_uuid(zonaris_client* handle, const char* uuid) {
  return guarded([&] {
    if (!handle)
      return noClient();
    if (!uuid)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the UUID is null");
    if (!handle->client->setUUID(uuid))
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, std::string("not a UUID: ") + uuid);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_set_dev_mode(zonaris_client* handle, int dev_mode) {
  return guarded([&] {
    if (!handle)
      return noClient();
    handle->client->setDevMode(dev_mode != 0);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_set_tags(zonaris_client* handle, const char* tags_json) {
  return guarded([&] {
    if (!handle)
      return noClient();
    if (!tags_json) {
      handle->tags->replace(nlohmann::json::object());
      return ZONARIS_STATUS_OK;
    }
    auto tags = nlohmann::json::parse(tags_json, nullptr, false);
    if (tags.is_discarded() || !tags.is_object())
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the tags are not a JSON object");
    handle->tags->replace(std::move(tags));
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_set_silence_window(zonaris_client* handle, int32_t start,
                                                      int32_t stop) {
  return guarded([&] {
    if (!handle)
      return noClient();
    handle->client->setSilenceWindowStart(start, stop);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_set_delegate(zonaris_client* handle,
                                                const zonaris_callbacks* callbacks) {
  return guarded([&] {
    if (!handle)
      return noClient();
    std::shared_ptr<zonaris::capi::CallbackDelegate> delegate;
    if (callbacks) {
      zonaris_callbacks copy;
      if (!zonaris::capi::copyCallbacks(*callbacks, copy))
        return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "callbacks.struct_size is too small");
      delegate = std::make_shared<zonaris::capi::CallbackDelegate>(copy, handle);
    }
    handle->client->setDelegate(delegate);
    handle->logger->setTarget(delegate);
    handle->errors->setTarget(delegate);
    handle->delegate = std::move(delegate);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_start(zonaris_client* handle) {
  return guarded([&] {
    if (!handle)
      return noClient();
    handle->client->start();
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_stop(zonaris_client* handle) {
  return guarded([&] {
    if (!handle)
      return noClient();
    handle->client->stop();
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_push_location(zonaris_client* handle,
                                                 const zonaris_location* fix, int* accepted) {
  return guarded([&] {
    if (accepted)
      *accepted = 0;
    if (!handle || !handle->feed)
      return noFeed(handle);
    if (!fix)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the fix is null");
    using Feed = zonaris::platform::FeedLocationManager;
    zonaris::platform::Location location;
    location.latitude = fix->latitude;
    location.longitude = fix->longitude;
    location.speed = fix->speed;
    location.horizontalAccuracy = fix->horizontal_accuracy;
    // The feed's own checks, told apart for the caller; the C timestamp is a number that
    // becomes a time point only here, so its check is the C API's.
    const Feed::FixProblem problem = Feed::checkFix(location);
    if (problem == Feed::FixProblem::CoordinatesOutOfRange)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the fix's coordinates are out of range");
    if (problem != Feed::FixProblem::None || !std::isfinite(fix->timestamp))
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the fix has a value that is not finite");
    location.timestamp = fix->timestamp == 0.0 ? std::chrono::system_clock::now()
                                               : zonaris::capi::fromUnixSeconds(fix->timestamp);
    const bool delivered = handle->feed->pushLocation(location);
    if (accepted)
      *accepted = delivered ? 1 : 0;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_push_beacons(zonaris_client* handle,
                                                const zonaris_beacon* beacons, size_t count) {
  return guarded([&] {
    if (!handle || !handle->feed)
      return noFeed(handle);
    if (count > 0 && !beacons)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the beacons are null");
    std::vector<zonaris::platform::Beacon> round;
    round.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      const zonaris_beacon& b = beacons[i];
      if (!b.uuid)
        continue;  // like any other text that is not a UUID
      zonaris::platform::Beacon beacon;
      beacon.uuid = b.uuid;
      beacon.major = b.major;
      beacon.minor = b.minor;
      beacon.accuracy = b.accuracy;  // the feed makes unknown what it cannot take
      beacon.proximity = b.proximity;
      round.push_back(std::move(beacon));
    }
    handle->feed->pushBeacons(round);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_set_sampling_policy(zonaris_client* handle, int policy) {
  return guarded([&] {
    if (!handle)
      return noClient();
    if (policy != ZONARIS_SAMPLING_DESIGN && policy != ZONARIS_SAMPLING_EFFICIENT)
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "not a sampling policy");
    handle->client->setSamplingPolicy(policy == ZONARIS_SAMPLING_EFFICIENT
                                          ? zonaris::SamplingPolicy::Efficient
                                          : zonaris::SamplingPolicy::Design);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_set_compression(zonaris_client* handle, int compression) {
  return guarded([&] {
    if (!handle)
      return noClient();
    handle->client->setCompression(compression != 0);
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_push_motion(zonaris_client* handle, int moving, double timestamp,
                                               int* accepted) {
  return guarded([&] {
    if (accepted)
      *accepted = 0;
    if (!handle || !handle->feed)
      return noFeed(handle);
    if (!std::isfinite(timestamp))
      return fail(ZONARIS_STATUS_INVALID_ARGUMENT, "the timestamp is not finite");
    zonaris::platform::MotionTransition transition;
    transition.motion =
        moving ? zonaris::platform::Motion::Moving : zonaris::platform::Motion::Stationary;
    transition.timestamp = timestamp == 0.0 ? std::chrono::system_clock::now()
                                            : zonaris::capi::fromUnixSeconds(timestamp);
    const bool delivered = handle->feed->pushMotion(transition);
    if (accepted)
      *accepted = delivered ? 1 : 0;
    return ZONARIS_STATUS_OK;
  });
}

ZONARIS_API zonaris_status zonaris_destroy(zonaris_client* handle, int timeout_ms) {
  return guarded([&] {
    if (!handle)
      return ZONARIS_STATUS_OK;
    if (zonaris::capi::callbackOwner() == handle)
      return fail(ZONARIS_STATUS_INVALID_STATE,
                  "a client cannot be destroyed from inside one of its callbacks");
    std::unique_ptr<zonaris_client> owned(handle);
    owned->logger->silence();
    owned->errors->silence();
    owned->client->setDelegate({});
    owned->client->stop();
    owned->client.reset();
    owned->feed.reset();
    owned->delegate.reset();
    const auto timeout =
        std::chrono::milliseconds(timeout_ms < 0 ? kDefaultDestroyTimeoutMs : timeout_ms);
    if (!owned->production->shutdown(timeout)) {
      // A thread still runs and holds parts of the platform; destroying the platform object
      // would wait for it again. Leave it to finish on its own.
      (void)owned->production.release();
      return fail(ZONARIS_STATUS_TIMEOUT, "a thread of the platform was still running");
    }
    return ZONARIS_STATUS_OK;
  });
}

}  // extern "C"
