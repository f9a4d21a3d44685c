#pragma once

#include <cstdint>
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
class Scheduler {
 public:
  explicit Scheduler(platform::TimePoint start);

  platform::TimePoint now() const;
  platform::TimePoint start() const { return start_; }
  /// Virtual time since the start.
  platform::Duration elapsed() const { return now() - start_; }

  /// Queues `task` to run at `due`; a due time in the past means now.
  void post(platform::TimePoint due, platform::Task task);
  void postAfter(platform::Duration delay, platform::Task task) {
    post(now() + delay, std::move(task));
  }

  /// Runs every task due up to and including `end`, then sets the time to `end` (time never
  /// goes back). Tasks posted while running are run too if they fall due by `end`.
  void runUntil(platform::TimePoint end);
  void runFor(platform::Duration duration) { runUntil(now() + duration); }

  /// Number of queued tasks.
  std::size_t pending() const;
  /// Due time of the earliest queued task, or `end` when none is queued before it.
  platform::TimePoint nextDue(platform::TimePoint end) const;
  /// Drops every queued task (used at shutdown to release what the tasks hold).
  void clear();
  /// Number of tasks run so far.
  std::uint64_t tasksRun() const;

 private:
  struct Entry {
    platform::TimePoint due;
    std::uint64_t sequence;
    platform::Task task;
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
};

}  // namespace zonaris::sim
