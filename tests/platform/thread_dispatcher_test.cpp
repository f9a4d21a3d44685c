// The production dispatcher on real threads, meant to run under ThreadSanitizer too: the
// main-queue log below is written without a lock, so tasks that overlapped would be a race.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <latch>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "zonaris/platform/production.hpp"

namespace zonaris::platform {
namespace {

using namespace std::chrono_literals;

// Waits are unbounded on purpose: a broken dispatcher shows as a test that times out.
using Latch = std::shared_ptr<std::latch>;
Latch latch(int count) {
  return std::make_shared<std::latch>(count);
}

// Captured by a task: counts down once the dispatcher destroyed every copy of the task, that
// is, released what it held (the client, in real use).
struct ReleaseSignal {
  Latch released;
  ~ReleaseSignal() { released->count_down(); }
};

// Set while this thread is inside a dispatcher call: a task that sees it ran inline.
thread_local bool tInsidePost = false;
template <class Call>
auto posting(Call&& call) {
  tInsidePost = true;
  std::shared_ptr<void> restore(nullptr, [](void*) { tInsidePost = false; });
  return call();
}

struct TickerProbe {
  std::atomic<int> started{0}, atInvalidate{-1}, afterOwnInvalidate{0};
  std::atomic<bool> ownInvalidated{false};
  std::mutex mutex;
  std::condition_variable ticked;
  std::shared_ptr<TickerHandle> handle;  // guarded by mutex
};

TEST(ThreadDispatcher, OverlappingDetachedMainQueueAndTickerWorkStaysOrderedSerialAndDeferred) {
  constexpr int kPosters = 200, kTickerEvery = 10, kTickers = kPosters / kTickerEvery;
  auto dispatcher = std::make_shared<ThreadDispatcher>();
  std::atomic<int> ranInline{0}, running{0}, overlaps{0};
  std::vector<std::pair<int, int>> mainLog;  // main-queue tasks only, unlocked
  auto mainDone = latch(kPosters * 2);
  auto ticksReleased = latch(kTickers);
  std::vector<std::shared_ptr<TickerProbe>> probes(kTickers);
  for (auto& p : probes)
    p = std::make_shared<TickerProbe>();

  auto mainTask = [&](int poster, int index) {
    return [&, poster, index] {
      ranInline += tInsidePost;
      overlaps += running.fetch_add(1) != 0;
      mainLog.emplace_back(poster, index);
      running.fetch_sub(1);
      mainDone->count_down();
    };
  };
  for (int poster = 0; poster < kPosters; ++poster) {
    posting([&] {
      dispatcher->detach([&, poster] {
        ranInline += tInsidePost;
        const auto delay = std::chrono::milliseconds(poster % 4);
        posting([&] { dispatcher->mainAfter(delay, mainTask(poster, 0)); });
        posting([&] { dispatcher->mainAfter(delay, mainTask(poster, 1)); });
        if (poster == 1)
          throw std::runtime_error("a detached task failed");  // must not end the process
        if (poster % kTickerEvery != 0)
          return;
        // Half the tickers invalidate themselves from inside a tick, half from this thread.
        auto probe = probes[poster / kTickerEvery];
        const bool fromTick = poster / kTickerEvery % 2 == 0;
        auto signal = std::make_shared<ReleaseSignal>(ticksReleased);
        auto handle = posting([&] {
          return dispatcher->startTicker(1ms, [&ranInline, probe, signal, fromTick, poster] {
            ranInline += tInsidePost;
            probe->afterOwnInvalidate += probe->ownInvalidated.load();
            const int n = ++probe->started;
            std::lock_guard lock(probe->mutex);
            if (fromTick && n >= 3 && probe->handle && !probe->ownInvalidated) {
              probe->handle->invalidate();
              probe->ownInvalidated = true;
            }
            probe->ticked.notify_all();
            if (n == 1 && poster == 0)
              throw std::logic_error("a tick failed");  // ticking goes on
          });
        });
        std::unique_lock lock(probe->mutex);
        probe->handle = handle;
        if (fromTick)
          return;
        probe->ticked.wait(lock, [&] { return probe->started >= 2; });
        lock.unlock();
        handle->invalidate();
        handle->invalidate();
        probe->atInvalidate = probe->started.load();
      });
    });
  }

  mainDone->wait();
  ticksReleased->wait();  // every tick function is destroyed: no tick can start any more
  ASSERT_TRUE(dispatcher->waitForDetachedTasks(60s));
  EXPECT_EQ(ranInline, 0);
  EXPECT_EQ(overlaps, 0);
  std::vector<int> seen(kPosters, 0);
  for (auto [poster, index] : mainLog)
    EXPECT_EQ(index, seen[poster]++) << "equal delays keep post order, poster " << poster;
  for (int which = 0; which < kTickers; ++which) {
    auto& probe = *probes[which];
    if (which % 2 == 0) {
      EXPECT_TRUE(probe.ownInvalidated) << which;
      EXPECT_EQ(probe.afterOwnInvalidate, 0) << which;
    } else {
      // At most the tick the ticker thread had already begun when invalidate was called.
      EXPECT_LE(probe.started, probe.atInvalidate + 1) << which;
    }
    probe.handle->invalidate();  // idempotent, also once the tick is gone
    probe.handle.reset();
  }
  dispatcher->shutdown();
}

TEST(ThreadDispatcher, MainQueueRunsInPostOrderPastAFailureAndShutdownDropsTheRest) {
  auto dispatcher = std::make_shared<ThreadDispatcher>();
  auto blocked = latch(1);
  auto gate = latch(1);
  // Holds the main queue so that everything below is queued before anything runs.
  dispatcher->mainAfter(0ms, [=] {
    blocked->count_down();
    gate->wait();
    throw std::runtime_error("a main-queue task failed");
  });
  blocked->wait();
  auto farReleased = latch(1);
  std::atomic<bool> farRan{false};
  dispatcher->mainAfter(
      1h, [&farRan, s = std::make_shared<ReleaseSignal>(farReleased)] { farRan = true; });
  std::vector<int> order, expected;  // main queue only
  auto done = latch(100);
  for (int i = 0; i < 100; ++i) {
    expected.push_back(i);
    dispatcher->mainAfter(0ms, [&order, done, i] {
      order.push_back(i);
      done->count_down();
    });
  }
  gate->count_down();
  done->wait();
  EXPECT_EQ(order, expected);

  dispatcher->shutdown();
  farReleased->wait();  // shutdown released what the dropped task held
  auto lateReleased = latch(1);
  Task late = [&farRan, s = std::make_shared<ReleaseSignal>(lateReleased)] { farRan = true; };
  dispatcher->detach(late);
  dispatcher->mainAfter(0ms, late);
  dispatcher->startTicker(1ms, late)->invalidate();
  late = nullptr;
  lateReleased->wait();  // after shutdown every task is dropped at once
  EXPECT_FALSE(farRan);
}

TEST(ThreadDispatcher, DroppingTheLastReferenceInsideItsOwnTaskShutsDownWithoutDeadlock) {
  // Shutdown then runs on the very thread it would join: the main-queue thread, or the ticker.
  for (bool fromTicker : {false, true}) {
    struct LastHolder {
      std::shared_ptr<ThreadDispatcher> dispatcher;
      Latch released;
      ~LastHolder() {
        dispatcher.reset();
        released->count_down();
      }
    };
    auto released = latch(1);
    auto testDropped = latch(1);
    auto dispatcher = std::make_shared<ThreadDispatcher>();
    std::weak_ptr<ThreadDispatcher> watch = dispatcher;
    auto holder = std::make_shared<LastHolder>(dispatcher, released);
    Task dropLast = [holder, testDropped]() mutable {
      testDropped->wait();
      holder.reset();
    };
    std::shared_ptr<TickerHandle> ticker;
    if (fromTicker)
      ticker = dispatcher->startTicker(1ms, dropLast);
    else
      dispatcher->mainAfter(0ms, dropLast);
    dropLast = nullptr;
    holder.reset();
    dispatcher.reset();
    testDropped->count_down();
    released->wait();
    EXPECT_TRUE(watch.expired());
  }
}

}  // namespace
}  // namespace zonaris::platform
