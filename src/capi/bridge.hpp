#pragma once

// What the C API's entry points share: the calling thread's last error, the guard that keeps
// every exception inside the library, and the delegate that calls the C callbacks.

#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

#include "platform/thread_exit.hpp"
#include "zonaris/delegate.hpp"
#include "zonaris/platform/log.hpp"
#include "zonaris/zonaris.h"

namespace zonaris::capi {

/// Records `message` as the calling thread's last error and returns `status`.
zonaris_status fail(zonaris_status status, std::string_view message) noexcept;

/// Runs `body` (which returns a zonaris_status) and turns anything it throws into a status.
/// The one thing let through is the forced unwind by which glibc ends a thread (pthread_exit,
/// pthread_cancel; Python ends a foreign thread that way while it finalises): swallowing it
/// aborts the process, so it is not noexcept.
template <class Body>
zonaris_status guarded(Body&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return fail(ZONARIS_STATUS_OUT_OF_MEMORY, "out of memory");
  } catch (const std::exception& e) {
    return fail(ZONARIS_STATUS_INTERNAL, e.what());
  } catch (...) {
    if (platform::endingThread())
      throw;
    return fail(ZONARIS_STATUS_INTERNAL, "unexpected failure");
  }
}

/// Copies a callbacks struct given by the application, reading no more than its struct_size
/// says it holds (an older, shorter struct leaves the newer pointers null). False when
/// `struct_size` is too small to hold even the `user` pointer.
bool copyCallbacks(const zonaris_callbacks& in, zonaris_callbacks& out);

/// The owner (a client or simulation handle) whose callback the calling thread is running, or
/// null outside callbacks.
const void* callbackOwner();

/// A callback that takes one line of text (logLine, platformError), as a member of the struct.
using LineCallback = void (*)(void* user, const char* line);
using LineSlot = LineCallback zonaris_callbacks::*;

/// Calls the C callbacks. Each delegate operation is wanted exactly when its pointer is set, and
/// each call checks its pointer again, so a struct without it is never called through a null
/// pointer whoever asks. Exceptions cannot come back through a C callback, so none is caught
/// here.
class CallbackDelegate final : public ZonarisDelegate {
 public:
  CallbackDelegate(const zonaris_callbacks& callbacks, const void* owner)
      : callbacks_(callbacks), owner_(owner) {}

  const zonaris_callbacks& callbacks() const { return callbacks_; }
  /// Passes one line to the callback in `slot`; false when the struct has none.
  bool line(LineSlot slot, std::string_view text) const;
  bool logLine(std::string_view text) const { return line(&zonaris_callbacks::logLine, text); }

  bool respondsTo(ZonarisCallback callback) const override;
  // Every delegate operation, each calling the C callback of the same name.
#define ZONARIS_CALLBACK(name, parameters) void name parameters override;
#include "client/delegate_callbacks.def"

 private:
  // Calls the function in `slot` with `user` first, unless it is null.
  template <class Function, class... Args>
  void invoke(Function zonaris_callbacks::*slot, Args... args) const;

  const zonaris_callbacks callbacks_;
  const void* owner_;
};

/// A line sink of a handle: each line goes to the current delegate's callback in `slot`
/// (logLine, platformError), or to `fallback` (may be null) when the delegate has none.
/// `silence()` drops every later line.
class ForwardingLogger final : public platform::Logger {
 public:
  ForwardingLogger(std::shared_ptr<platform::Logger> fallback, LineSlot slot)
      : fallback_(std::move(fallback)), slot_(slot) {}
  void log(std::string_view line) override;
  void setTarget(std::shared_ptr<const CallbackDelegate> target);
  void silence();

 private:
  std::mutex mutex_;
  std::shared_ptr<platform::Logger> fallback_;
  const LineSlot slot_;
  std::shared_ptr<const CallbackDelegate> target_;
  bool silent_ = false;
};

/// Seconds since 1970 as a time point, and back.
platform::TimePoint fromUnixSeconds(double seconds);
double toUnixSeconds(platform::TimePoint time);

}  // namespace zonaris::capi
