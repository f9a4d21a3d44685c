// Virtual time: one queue of tasks ordered by (due time, post sequence).
//
// Waiting tasks. Once waiting is enabled, each task runs on a worker thread, and exactly one
// thread runs at any moment: the scheduler hands "the turn" to a worker and blocks until the
// worker gives it back, either because its task finished or because the task called `sleepFor`.
// A sleeping worker queues a resume entry at its wake-up time and gives the turn back; when the
// entry comes up, the scheduler hands the turn to that worker again. The hand-over goes through
// one mutex, so everything a task wrote is visible to the next one, and the order of the run is
// decided by the queue alone.
#include "zonaris/sim/scheduler.hpp"
#include "platform/thread_exit.hpp"

#include <cstdio>
#include <exception>
#include <thread>

namespace zonaris::sim {

struct Scheduler::Worker {
  std::thread thread;
  std::condition_variable turn;
  platform::Task task;
  Lane lane = Lane::Detached;
  bool finished = false;   ///< the task has run to its end
  bool cancelled = false;  ///< shutting down: `sleepFor` returns at once
  bool quit = false;
};

namespace {

// The worker (and its scheduler) of the calling thread, if it is a virtual thread.
thread_local void* tCurrentWorker = nullptr;
thread_local const Scheduler* tCurrentScheduler = nullptr;

void runGuarded(const platform::Task& task) {
  try {
    task();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zonaris sim: a task threw: %s\n", e.what());
  } catch (...) {
    if (platform::endingThread())
      throw;
    std::fprintf(stderr, "zonaris sim: a task threw\n");
  }
}

}  // namespace

Scheduler::Scheduler(platform::TimePoint start) : start_(start), now_(start) {}

Scheduler::~Scheduler() {
  clear();
  for (auto& worker : workers_) {
    {
      std::lock_guard lock(turnMutex_);
      worker->quit = true;
    }
    handTurnTo(worker.get());
    worker->thread.join();
  }
}

platform::TimePoint Scheduler::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

void Scheduler::post(platform::TimePoint due, platform::Task task, Lane lane) {
  std::lock_guard lock(mutex_);
  if (due < now_)
    due = now_;
  queue_.push(Entry{due, nextSequence_++, std::move(task), lane, nullptr});
}

void Scheduler::enableWaiting() {
  std::lock_guard lock(mutex_);
  waiting_ = true;
}

bool Scheduler::waitingEnabled() const {
  std::lock_guard lock(mutex_);
  return waiting_;
}

bool Scheduler::sleepFor(platform::Duration duration) {
  if (tCurrentScheduler != this || tCurrentWorker == nullptr)
    return false;
  auto* worker = static_cast<Worker*>(tCurrentWorker);
  {
    std::lock_guard lock(turnMutex_);
    if (worker->cancelled)
      return false;
  }
  {
    std::lock_guard lock(mutex_);
    queue_.push(Entry{now_ + duration, nextSequence_++, nullptr, worker->lane, worker});
  }
  std::unique_lock lock(turnMutex_);
  turn_ = nullptr;
  schedulerTurn_.notify_one();
  worker->turn.wait(lock, [&] { return turn_ == worker; });
  return !worker->cancelled;
}

void Scheduler::handTurnTo(Worker* worker) {
  std::unique_lock lock(turnMutex_);
  turn_ = worker;
  worker->turn.notify_one();
  schedulerTurn_.wait(lock, [&] { return turn_ == nullptr; });
}

void Scheduler::workerLoop(Worker* worker) {
  tCurrentWorker = worker;
  tCurrentScheduler = this;
  std::unique_lock lock(turnMutex_);
  for (;;) {
    worker->turn.wait(lock, [&] { return turn_ == worker; });
    if (worker->quit)
      break;
    platform::Task task = std::move(worker->task);
    lock.unlock();
    runGuarded(task);
    task = nullptr;  // what the task held is released while it still has the turn
    lock.lock();
    worker->finished = true;
    turn_ = nullptr;
    schedulerTurn_.notify_one();
  }
  turn_ = nullptr;
  schedulerTurn_.notify_one();
}

void Scheduler::runTask(Entry entry) {
  Worker* worker = entry.resume;
  if (!worker) {
    if (!waitingEnabled()) {
      runGuarded(entry.task);
      return;
    }
    if (entry.lane == Lane::Main && mainBusy_) {
      backlog_.push_back(std::move(entry));
      return;
    }
    if (idle_.empty()) {
      workers_.push_back(std::make_unique<Worker>());
      worker = workers_.back().get();
      worker->thread = std::thread([this, worker] { workerLoop(worker); });
    } else {
      worker = idle_.back();
      idle_.pop_back();
    }
    std::lock_guard lock(turnMutex_);
    worker->task = std::move(entry.task);
    worker->lane = entry.lane;
    worker->finished = false;
    worker->cancelled = false;
  }
  handTurnTo(worker);

  bool finished = false;
  {
    std::lock_guard lock(turnMutex_);
    finished = worker->finished;
  }
  if (worker->lane == Lane::Main)
    mainBusy_ = !finished;
  if (!finished)
    return;
  idle_.push_back(worker);
  if (worker->lane == Lane::Main && !backlog_.empty()) {
    // The main queue is free again: what waited behind the task runs now, in its order.
    std::lock_guard lock(mutex_);
    for (auto& waiting : backlog_) {
      waiting.due = now_;
      queue_.push(std::move(waiting));
    }
    backlog_.clear();
  }
}

void Scheduler::runUntil(platform::TimePoint end) {
  for (;;) {
    Entry entry;
    {
      std::lock_guard lock(mutex_);
      if (queue_.empty() || queue_.top().due > end)
        break;
      // priority_queue::top is const; the entry is popped right after, so moving out is safe.
      entry = std::move(const_cast<Entry&>(queue_.top()));
      now_ = entry.due;
      queue_.pop();
      if (!entry.resume)
        ++tasksRun_;
    }
    runTask(std::move(entry));
  }
  std::lock_guard lock(mutex_);
  if (end > now_)
    now_ = end;
}

std::size_t Scheduler::pending() const {
  std::lock_guard lock(mutex_);
  return queue_.size() + backlog_.size();
}

platform::TimePoint Scheduler::nextDue(platform::TimePoint end) const {
  std::lock_guard lock(mutex_);
  if (queue_.empty() || queue_.top().due > end)
    return end;
  return queue_.top().due;
}

void Scheduler::finishWaitingTasks() {
  // Waiting tasks hold the turn of their thread: each is run to its end, its waits cut short.
  for (;;) {
    std::vector<Entry> resumes, others;
    {
      std::lock_guard lock(mutex_);
      while (!queue_.empty()) {
        auto& top = const_cast<Entry&>(queue_.top());
        (top.resume ? resumes : others).push_back(std::move(top));
        queue_.pop();
      }
      for (auto& entry : others)
        queue_.push(std::move(entry));
    }
    if (resumes.empty())
      return;
    for (auto& entry : resumes) {
      {
        std::lock_guard lock(turnMutex_);
        entry.resume->cancelled = true;
      }
      runTask(std::move(entry));
    }
  }
}

void Scheduler::clear() {
  finishWaitingTasks();
  // Destroy the tasks outside the lock: releasing what they hold may post or read the clock.
  std::priority_queue<Entry, std::vector<Entry>, Later> dropped;
  std::deque<Entry> droppedBacklog;
  {
    std::lock_guard lock(mutex_);
    dropped.swap(queue_);
  }
  droppedBacklog.swap(backlog_);
  mainBusy_ = false;
}

std::uint64_t Scheduler::tasksRun() const {
  std::lock_guard lock(mutex_);
  return tasksRun_;
}

}  // namespace zonaris::sim
