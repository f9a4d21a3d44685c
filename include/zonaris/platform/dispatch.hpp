#pragma once

#include "zonaris/export.h"

#include <functional>
#include <memory>

#include "zonaris/platform/clock.hpp"

namespace zonaris::platform {

using Task = std::function<void()>;

/// A repeating timer started by `Dispatcher::startTicker`.
class ZONARIS_API TickerHandle {
 public:
  virtual ~TickerHandle() = default;
  /// Stops further ticks. A tick already running finishes; no tick starts after this returns.
  /// Callable from any thread, also from inside a tick. Idempotent.
  virtual void invalidate() = 0;
};

/// Threads, the main queue and timers.
///
/// No operation ever runs the task it is given before it returns: work is always deferred.
/// Tasks must not throw; a dispatcher that meets an escaping exception logs it and goes on.
class ZONARIS_API Dispatcher {
 public:
  virtual ~Dispatcher() = default;
  /// Runs `task` on a new thread of its own (a detached thread).
  virtual void detach(Task task) = 0;
  /// Runs `task` once on the main queue after `delay`. Tasks on the main queue run one at a
  /// time; tasks with equal due times run in the order they were posted. Cannot be cancelled.
  virtual void mainAfter(Duration delay, Task task) = 0;
  /// Calls `tick` every `interval` on a worker thread (never on the main queue) until the
  /// returned handle is invalidated. The first tick comes one interval after the call.
  virtual std::shared_ptr<TickerHandle> startTicker(Duration interval, Task tick) = 0;
};

}  // namespace zonaris::platform
