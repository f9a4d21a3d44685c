#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <queue>
#include <vector>

#include "zonaris/platform/clock.hpp"
#include "zonaris/platform/dispatch.hpp"

namespace zonaris::sim {

/// Virtual time. Every piece of deferred work of a simulation is a task queued here at a
/// virtual due time; tasks run one at a time on the thread that calls `runFor`/`runUntil`,
/// ordered by (due time, post sequence), so equal due times keep their post order and the same
/// inputs always give the same run. Time jumps to the next due task only when nothing is due
/// now. Posting never runs a task.
///
/// `now()` and `post()` are thread-safe (an embedded server may read the clock from its own
/// threads); running is meant for one thread.
///
/// Waiting in virtual time. After `enableWaiting()`, every task runs on a virtual thread of its
/// own (a pooled system thread that runs only while the scheduler hands it the turn, so still
/// one task at a time and the same order for the same inputs), and a task may call `sleepFor`:
/// it stops there, the other tasks go on, and it resumes at its due time, as a thread blocked
/// in a synchronous call would. Tasks posted on the `Lane::Main` lane stand for the serial main
/// queue: while one of them waits, the next ones wait behind it and run, in their order, once
/// it has finished.
class Scheduler {
 public:
  /// Where a task runs. Without waiting tasks the lanes make no difference.
  enum class Lane {
    Detached,  ///< a thread of its own
    Main,      ///< the serial main queue
  };

  explicit Scheduler(platform::TimePoint start);
  /// Finishes the tasks that are waiting (their `sleepFor` returns false at once), drops the
  /// rest and ends the virtual threads.
  ~Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  platform::TimePoint now() const;
  platform::TimePoint start() const { return start_; }
  /// Virtual time since the start.
  platform::Duration elapsed() const { return now() - start_; }

  /// Queues `task` to run at `due`; a due time in the past means now.
  void post(platform::TimePoint due, platform::Task task, Lane lane = Lane::Detached);
  void postAfter(platform::Duration delay, platform::Task task, Lane lane = Lane::Detached) {
    post(now() + delay, std::move(task), lane);
  }

  /// Lets tasks wait with `sleepFor` from now on. Call it before running; it cannot be undone.
  void enableWaiting();
  bool waitingEnabled() const;
  /// From inside a task, with waiting enabled: returns `duration` of virtual time later, while
  /// other tasks run meanwhile. Returns true when it waited the whole time; false at once when
  /// called elsewhere (outside a task, waiting not enabled) or when the scheduler is shutting
  /// down.
  bool sleepFor(platform::Duration duration);

  /// Runs every task due up to and including `end`, then sets the time to `end` (time never
  /// goes back). Tasks posted while running are run too if they fall due by `end`.
  void runUntil(platform::TimePoint end);
  void runFor(platform::Duration duration) { runUntil(now() + duration); }

  /// Number of queued tasks (waiting tasks included).
  std::size_t pending() const;
  /// Due time of the earliest queued task, or `end` when none is queued before it.
  platform::TimePoint nextDue(platform::TimePoint end) const;
  /// Drops every queued task (used at shutdown to release what the tasks hold). Tasks that wait
  /// in `sleepFor` are first run to their end, their waits cut short.
  void clear();
  /// Number of tasks run so far.
  std::uint64_t tasksRun() const;

 private:
  struct Worker;
  struct Entry {
    platform::TimePoint due;
    std::uint64_t sequence;
    platform::Task task;
    Lane lane = Lane::Detached;
    Worker* resume = nullptr;  ///< set: the turn goes back to this waiting task
  };
  struct Later {
    bool operator()(const Entry& a, const Entry& b) const {
      return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
    }
  };

  const platform::TimePoint start_;
  mutable std::mutex mutex_;
  platform::TimePoint now_;
  std::uint64_t nextSequence_ = 0;
  std::uint64_t tasksRun_ = 0;
  std::priority_queue<Entry, std::vector<Entry>, Later> queue_;
  bool waiting_ = false;

  // Virtual threads. Only the thread that runs the scheduler touches the fields below, except
  // `turn_` and the workers' flags, which are guarded by `turnMutex_`.
  void runTask(Entry entry);
  void handTurnTo(Worker* worker);
  void workerLoop(Worker* worker);
  void finishWaitingTasks();
  std::mutex turnMutex_;
  std::condition_variable schedulerTurn_;
  Worker* turn_ = nullptr;  ///< the virtual thread that runs now; null: the scheduler's thread
  std::vector<std::unique_ptr<Worker>> workers_;
  std::vector<Worker*> idle_;
  bool mainBusy_ = false;      ///< a main-lane task is waiting in `sleepFor`
  std::deque<Entry> backlog_;  ///< main-lane tasks due meanwhile, in order
};

}  // namespace zonaris::sim
