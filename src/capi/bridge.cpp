#include "capi/bridge.hpp"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "zonaris/zonaris.hpp"

namespace zonaris::capi {

namespace {

thread_local std::string lastError;
thread_local const void* currentOwner = nullptr;

// Marks the calling thread as running a callback of `owner` for the life of the scope.
class OwnerScope {
 public:
  explicit OwnerScope(const void* owner) : previous_(currentOwner) { currentOwner = owner; }
  ~OwnerScope() { currentOwner = previous_; }
  OwnerScope(const OwnerScope&) = delete;
  OwnerScope& operator=(const OwnerScope&) = delete;

 private:
  const void* previous_;
};

const char* nameOrNull(const std::optional<std::string>& name) {
  return name ? name->c_str() : nullptr;
}

}  // namespace

zonaris_status fail(zonaris_status status, std::string_view message) noexcept {
  try {
    lastError.assign(message);
  } catch (...) {
    lastError.clear();
  }
  return status;
}

bool copyCallbacks(const zonaris_callbacks& in, zonaris_callbacks& out) {
  constexpr std::size_t minimum = offsetof(zonaris_callbacks, user) + sizeof(void*);
  if (in.struct_size < minimum)
    return false;
  out = zonaris_callbacks{};
  std::memcpy(&out, &in, std::min(in.struct_size, sizeof(zonaris_callbacks)));
  out.struct_size = sizeof(zonaris_callbacks);
  return true;
}

const void* callbackOwner() {
  return currentOwner;
}

template <class Function, class... Args>
void CallbackDelegate::invoke(Function zonaris_callbacks::*slot, Args... args) const {
  const Function function = callbacks_.*slot;
  if (!function)
    return;
  OwnerScope scope(owner_);
  function(callbacks_.user, args...);
}

bool CallbackDelegate::line(LineSlot slot, std::string_view text) const {
  if (!(callbacks_.*slot))
    return false;
  const std::string copy(text);
  invoke(slot, copy.c_str());
  return true;
}

bool CallbackDelegate::respondsTo(ZonarisCallback callback) const {
  const auto& c = callbacks_;
  // Every operation has the pointer of the same name; the list leaves none out, since a switch
  // on the enum without a default warns of any value it misses.
  switch (callback) {
#define ZONARIS_CALLBACK(name, parameters) \
  case ZonarisCallback::name:              \
    return c.name != nullptr;
#include "client/delegate_callbacks.def"
  }
  return false;
}

void CallbackDelegate::updatedInitLocation(const platform::Location& l) {
  const zonaris_location location{l.latitude, l.longitude, l.speed, l.horizontalAccuracy,
                                  toUnixSeconds(l.timestamp)};
  invoke(&zonaris_callbacks::updatedInitLocation, &location);
}

void CallbackDelegate::updatedDistanceToNearestFence(double distance, bool inside) {
  invoke(&zonaris_callbacks::updatedDistanceToNearestFence, distance, inside ? 1 : 0);
}

void CallbackDelegate::updatedBeaconScan(bool scanning) {
  invoke(&zonaris_callbacks::updatedBeaconScan, scanning ? 1 : 0);
}

void CallbackDelegate::reportSent() {
  invoke(&zonaris_callbacks::reportSent);
}

void CallbackDelegate::eventEnterCallback(const std::optional<std::string>& name) {
  invoke(&zonaris_callbacks::eventEnterCallback, nameOrNull(name));
}

void CallbackDelegate::eventExitCallback(const std::optional<std::string>& name) {
  invoke(&zonaris_callbacks::eventExitCallback, nameOrNull(name));
}

void CallbackDelegate::eventDwellCallback(const std::optional<std::string>& name) {
  invoke(&zonaris_callbacks::eventDwellCallback, nameOrNull(name));
}

void CallbackDelegate::actionBasicCallback(std::shared_ptr<const ZonarisActionBasic> action) {
  if (!action)
    return;
  invoke(&zonaris_callbacks::actionBasicCallback, action->getTitle().c_str(),
         action->getBody().c_str(), action->getURL().c_str());
}

void CallbackDelegate::actionDataCallback(std::shared_ptr<const ZonarisActionData> action) {
  if (!action || !callbacks_.actionDataCallback)
    return;
  const std::string values =
      action->values().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  invoke(&zonaris_callbacks::actionDataCallback, values.c_str());
}

void CallbackDelegate::updatedSpeed(float speed) {
  invoke(&zonaris_callbacks::updatedSpeed, speed);
}

void CallbackDelegate::updatedAvgSpeed(float speed) {
  invoke(&zonaris_callbacks::updatedAvgSpeed, speed);
}

void CallbackDelegate::updatedInterval(std::int32_t seconds) {
  invoke(&zonaris_callbacks::updatedInterval, seconds);
}

void CallbackDelegate::updatedGPSAccuracy(float metres) {
  invoke(&zonaris_callbacks::updatedGPSAccuracy, metres);
}

void ForwardingLogger::log(std::string_view line) {
  std::shared_ptr<const CallbackDelegate> target;
  std::shared_ptr<platform::Logger> fallback;
  {
    std::lock_guard lock(mutex_);
    if (silent_)
      return;
    target = target_;
    fallback = fallback_;
  }
  if (target && target->line(slot_, line))
    return;
  if (fallback)
    fallback->log(line);
}

void ForwardingLogger::setTarget(std::shared_ptr<const CallbackDelegate> target) {
  std::lock_guard lock(mutex_);
  target_ = std::move(target);
}

void ForwardingLogger::silence() {
  std::lock_guard lock(mutex_);
  silent_ = true;
  target_.reset();
  fallback_.reset();
}

platform::TimePoint fromUnixSeconds(double seconds) {
  return platform::TimePoint(std::chrono::duration_cast<platform::TimePoint::duration>(
      std::chrono::duration<double>(seconds)));
}

double toUnixSeconds(platform::TimePoint time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

}  // namespace zonaris::capi

// ---- Identity -------------------------------------------------------------------------------

extern "C" {

ZONARIS_API const char* zonaris_version(void) {
  return zonaris::kZonarisVersion;
}

ZONARIS_API int zonaris_abi_version(void) {
  return ZONARIS_ABI_VERSION;
}

ZONARIS_API const char* zonaris_status_text(zonaris_status status) {
  switch (status) {
    case ZONARIS_STATUS_OK:
      return "ok";
    case ZONARIS_STATUS_INVALID_ARGUMENT:
      return "invalid argument";
    case ZONARIS_STATUS_INVALID_STATE:
      return "invalid state";
    case ZONARIS_STATUS_UNSUPPORTED:
      return "unsupported";
    case ZONARIS_STATUS_IO_ERROR:
      return "input/output error";
    case ZONARIS_STATUS_OUT_OF_MEMORY:
      return "out of memory";
    case ZONARIS_STATUS_TIMEOUT:
      return "timeout";
    case ZONARIS_STATUS_INTERNAL:
      return "internal error";
  }
  return "unknown status";
}

ZONARIS_API const char* zonaris_last_error(void) {
  return zonaris::capi::lastError.c_str();
}

}  // extern "C"
