#include "zonaris/sim/scheduler.hpp"

#include <cstdio>
#include <exception>

namespace zonaris::sim {

Scheduler::Scheduler(platform::TimePoint start) : start_(start), now_(start) {}

platform::TimePoint Scheduler::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

void Scheduler::post(platform::TimePoint due, platform::Task task) {
  std::lock_guard lock(mutex_);
  if (due < now_)
    due = now_;
  queue_.push(Entry{due, nextSequence_++, std::move(task)});
}

void Scheduler::runUntil(platform::TimePoint end) {
  for (;;) {
    platform::Task task;
    {
      std::lock_guard lock(mutex_);
      if (queue_.empty() || queue_.top().due > end)
        break;
      // priority_queue::top is const; the entry is popped right after, so moving out is safe.
      auto& top = const_cast<Entry&>(queue_.top());
      task = std::move(top.task);
      now_ = top.due;
      queue_.pop();
      ++tasksRun_;
    }
    try {
      task();
    } catch (const std::exception& e) {
      std::fprintf(stderr, "zonaris sim: a task threw: %s\n", e.what());
    } catch (...) {
      std::fprintf(stderr, "zonaris sim: a task threw\n");
    }
  }
  std::lock_guard lock(mutex_);
  if (end > now_)
    now_ = end;
}

std::size_t Scheduler::pending() const {
  std::lock_guard lock(mutex_);
  return queue_.size();
}

platform::TimePoint Scheduler::nextDue(platform::TimePoint end) const {
  std::lock_guard lock(mutex_);
  if (queue_.empty() || queue_.top().due > end)
    return end;
  return queue_.top().due;
}

void Scheduler::clear() {
  // Destroy the tasks outside the lock: releasing what they hold may post or read the clock.
  std::priority_queue<Entry, std::vector<Entry>, Later> dropped;
  {
    std::lock_guard lock(mutex_);
    dropped.swap(queue_);
  }
}

std::uint64_t Scheduler::tasksRun() const {
  std::lock_guard lock(mutex_);
  return tasksRun_;
}

}  // namespace zonaris::sim
