// The production dispatcher: a detached thread per task, one main-queue thread and one ticker
// thread, both started on first use.
#include <algorithm>
#include <condition_variable>
#include <exception>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/thread_exit.hpp"
#include "zonaris/platform/thread_dispatcher.hpp"

namespace zonaris::platform {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr Duration kMinTickInterval = std::chrono::milliseconds(1);
// Longer delays and intervals are cut to this, so that due times cannot overflow the clock.
constexpr Duration kMaxDelay = std::chrono::hours(24 * 365 * 100);

}  // namespace

// The dispatcher's own failures go to the logger given to setLogger, if any (the production
// platform gives it the error logger of its options); never to stderr by themselves.
class ThreadDispatcher::Diagnostics {
 public:
  void set(std::shared_ptr<Logger> logger) {
    std::lock_guard lock(mutex_);
    logger_ = std::move(logger);
  }
  // Call without holding the dispatcher's lock: a logger may post work of its own. Not
  // noexcept: a logger may end the thread (see runCaught).
  void report(const std::string& line) const {
    try {
      std::shared_ptr<Logger> logger;
      {
        std::lock_guard lock(mutex_);
        logger = logger_;
      }
      if (logger)
        logger->log(line);
    } catch (...) {
      if (endingThread())
        throw;
      // A logger that fails has nowhere to report to.
    }
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<Logger> logger_;
};

namespace {

// The forced unwind that ends a thread (pthread_exit or pthread_cancel inside a task, for
// example in a callback of the application) is not an exception of the task: it goes on to the
// thread's start, which ends the thread (see platform/thread_exit.hpp). An exception is
// reported after its handler, since the logger may be the application's.
void runCaught(const ThreadDispatcher::Diagnostics& diagnostics, const Task& task,
               const char* where) {
  std::string failure;
  try {
    if (task)
      task();
    return;
  } catch (const std::exception& e) {
    failure = e.what();
  } catch (...) {
    if (endingThread())
      throw;
    failure = "unknown exception";
  }
  try {
    diagnostics.report(std::string("zonaris: an exception escaped a ") + where +
                       " task: " + failure);
  } catch (...) {
    if (endingThread())
      throw;
  }
}

// Joins a thread the dispatcher owns, unless it is the calling thread itself (shutdown from
// inside a task, or the last reference to the dispatcher dropped there): that one is left to
// finish on its own, holding the shared state.
void joinOrDetach(std::thread& thread) {
  if (!thread.joinable())
    return;
  if (thread.get_id() == std::this_thread::get_id())
    thread.detach();
  else
    thread.join();
}

class Ticker final : public TickerHandle {
 public:
  Ticker(Duration interval, Task tick)
      : interval_(std::clamp(interval, kMinTickInterval, kMaxDelay)),
        tick_(std::make_shared<const Task>(std::move(tick))) {}

  void invalidate() override {
    std::shared_ptr<const Task> released;
    {
      std::lock_guard lock(mutex_);
      released = std::move(tick_);
    }
    // `released` goes here, outside the lock: the tick may hold the last reference to
    // something whose destructor comes back to this ticker.
  }

  // The tick to run now, or null once invalidated. Taken under the lock that `invalidate`
  // takes: a tick handed out here is the one "already begun" when invalidate runs.
  std::shared_ptr<const Task> current() const {
    std::lock_guard lock(mutex_);
    return tick_;
  }

  Duration interval() const { return interval_; }

 private:
  const Duration interval_;
  mutable std::mutex mutex_;
  std::shared_ptr<const Task> tick_;
};

struct MainEntry {
  SteadyClock::time_point due;
  std::uint64_t sequence;
  Task task;
};

struct TickEntry {
  SteadyClock::time_point due;
  std::uint64_t sequence;
  std::shared_ptr<Ticker> ticker;
};

// Heap order: the entry with the earliest (due, sequence) on top.
struct Later {
  template <class Entry>
  bool operator()(const Entry& a, const Entry& b) const {
    return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
  }
};

// The next due time after a tick that was due at `due`, skipping ticks already missed.
SteadyClock::time_point nextTick(SteadyClock::time_point due, Duration interval,
                                 SteadyClock::time_point now) {
  auto next = due + interval;
  if (next <= now)
    next = due + interval * ((now - due) / interval + 1);
  return next;
}

}  // namespace

struct ThreadDispatcher::State {
  std::mutex mutex;
  std::condition_variable mainWake;
  std::condition_variable tickerWake;
  std::condition_variable detachedDone;
  bool stopping = false;
  std::uint64_t nextSequence = 0;
  std::vector<MainEntry> mainQueue;  // a heap ordered by Later
  std::vector<TickEntry> tickers;    // a heap ordered by Later
  std::thread mainThread;
  std::thread tickerThread;
  std::size_t detachedRunning = 0;
  Diagnostics diagnostics;
};

ThreadDispatcher::ThreadDispatcher() : state_(std::make_shared<State>()) {}

ThreadDispatcher::~ThreadDispatcher() {
  shutdown();
}

void ThreadDispatcher::detach(Task task) {
  auto state = state_;
  {
    std::lock_guard lock(state->mutex);
    if (state->stopping)
      return;
    ++state->detachedRunning;
  }
  try {
    std::thread([state, task = std::move(task)]() mutable {
      // Counted as finished, its captures released first, also when the thread is ended
      // inside the task (see runCaught).
      struct Finished {
        State& state;
        Task& task;
        ~Finished() {
          task = nullptr;
          {
            std::lock_guard lock(state.mutex);
            --state.detachedRunning;
          }
          state.detachedDone.notify_all();
        }
      } finished{*state, task};
      runCaught(state->diagnostics, task, "detached");
    }).detach();
  } catch (const std::system_error& e) {
    state->diagnostics.report(std::string("zonaris: could not start a thread, task dropped: ") +
                              e.what());
    {
      std::lock_guard lock(state->mutex);
      --state->detachedRunning;
    }
    state->detachedDone.notify_all();
  }
}

void ThreadDispatcher::mainAfter(Duration delay, Task task) {
  const auto due = SteadyClock::now() + std::clamp(delay, Duration::zero(), kMaxDelay);
  std::string failure;
  {
    std::lock_guard lock(state_->mutex);
    if (state_->stopping)
      return;  // `task` is released on return, outside the lock
    try {
      if (!state_->mainThread.joinable())
        state_->mainThread = std::thread(&ThreadDispatcher::mainLoop, state_);
      state_->mainQueue.push_back({due, state_->nextSequence++, std::move(task)});
      std::push_heap(state_->mainQueue.begin(), state_->mainQueue.end(), Later{});
    } catch (const std::system_error& e) {
      failure = e.what();
    }
  }
  if (!failure.empty()) {
    state_->diagnostics.report("zonaris: could not start the main queue, task dropped: " + failure);
    return;
  }
  state_->mainWake.notify_one();
}

std::shared_ptr<TickerHandle> ThreadDispatcher::startTicker(Duration interval, Task tick) {
  auto ticker = std::make_shared<Ticker>(interval, std::move(tick));
  bool queued = false;
  std::string failure;
  {
    std::lock_guard lock(state_->mutex);
    if (!state_->stopping) {
      try {
        if (!state_->tickerThread.joinable())
          state_->tickerThread = std::thread(&ThreadDispatcher::tickerLoop, state_);
        state_->tickers.push_back(
            {SteadyClock::now() + ticker->interval(), state_->nextSequence++, ticker});
        std::push_heap(state_->tickers.begin(), state_->tickers.end(), Later{});
        queued = true;
      } catch (const std::system_error& e) {
        failure = e.what();
      }
    }
  }
  if (!failure.empty())
    state_->diagnostics.report("zonaris: could not start the ticker thread: " + failure);
  if (queued)
    state_->tickerWake.notify_one();
  else
    ticker->invalidate();
  return ticker;
}

void ThreadDispatcher::shutdown() {
  std::vector<MainEntry> dropped;
  std::vector<TickEntry> stopped;
  std::thread mainThread;
  std::thread tickerThread;
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    dropped.swap(state_->mainQueue);
    stopped.swap(state_->tickers);
    mainThread = std::move(state_->mainThread);
    tickerThread = std::move(state_->tickerThread);
  }
  state_->mainWake.notify_all();
  state_->tickerWake.notify_all();
  // Released outside the lock: what the tasks hold may come back to the dispatcher.
  for (auto& entry : stopped)
    entry.ticker->invalidate();
  stopped.clear();
  dropped.clear();
  joinOrDetach(mainThread);
  joinOrDetach(tickerThread);
}

void ThreadDispatcher::setLogger(std::shared_ptr<Logger> logger) {
  state_->diagnostics.set(std::move(logger));
}

bool ThreadDispatcher::waitForDetachedTasks(std::chrono::milliseconds timeout) {
  std::unique_lock lock(state_->mutex);
  return state_->detachedDone.wait_for(lock, timeout,
                                       [this] { return state_->detachedRunning == 0; });
}

void ThreadDispatcher::mainLoop(std::shared_ptr<State> state) {
  std::unique_lock lock(state->mutex);
  while (!state->stopping) {
    if (state->mainQueue.empty()) {
      state->mainWake.wait(lock);
      continue;
    }
    const auto due = state->mainQueue.front().due;
    if (SteadyClock::now() < due) {
      state->mainWake.wait_until(lock, due);
      continue;
    }
    std::pop_heap(state->mainQueue.begin(), state->mainQueue.end(), Later{});
    Task task = std::move(state->mainQueue.back().task);
    state->mainQueue.pop_back();
    lock.unlock();
    runCaught(state->diagnostics, task, "main-queue");
    task = nullptr;  // may drop the last reference to the dispatcher; see joinOrDetach
    lock.lock();
  }
}

void ThreadDispatcher::tickerLoop(std::shared_ptr<State> state) {
  std::unique_lock lock(state->mutex);
  while (!state->stopping) {
    if (state->tickers.empty()) {
      state->tickerWake.wait(lock);
      continue;
    }
    const auto due = state->tickers.front().due;
    if (SteadyClock::now() < due) {
      state->tickerWake.wait_until(lock, due);
      continue;
    }
    std::pop_heap(state->tickers.begin(), state->tickers.end(), Later{});
    TickEntry entry = std::move(state->tickers.back());
    state->tickers.pop_back();
    lock.unlock();

    auto tick = entry.ticker->current();
    if (tick)
      runCaught(state->diagnostics, *tick, "ticker");
    const bool keep = tick != nullptr;
    tick.reset();

    lock.lock();
    if (state->stopping) {
      // Shutdown took the queued tickers; this one was out of the queue while it ticked.
      lock.unlock();
      entry.ticker->invalidate();
      return;
    }
    if (keep) {
      entry.due = nextTick(entry.due, entry.ticker->interval(), SteadyClock::now());
      entry.sequence = state->nextSequence++;
      state->tickers.push_back(std::move(entry));
      std::push_heap(state->tickers.begin(), state->tickers.end(), Later{});
    } else {
      lock.unlock();
      entry = {};  // drop the invalidated ticker outside the lock
      lock.lock();
    }
  }
}

}  // namespace zonaris::platform
