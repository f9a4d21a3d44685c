#pragma once

#include "zonaris/export.h"

#include <chrono>
#include <memory>

#include "zonaris/platform/dispatch.hpp"
#include "zonaris/platform/log.hpp"

namespace zonaris::platform {

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

}  // namespace zonaris::platform
