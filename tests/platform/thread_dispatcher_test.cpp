// The production dispatcher on real threads, meant to run under ThreadSanitizer too: the
// main-queue log below is written without a lock, so tasks that overlapped would be a race.
// Waits are unbounded on purpose: a broken dispatcher shows as a test that times out.
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

// Set while this thread is inside a dispatcher call: a task that sees it ran inline.
thread_local bool tInsidePost = false;
template <class Call>
auto posting(Call&& call) {
  tInsidePost = true;
  std::shared_ptr<void> restore(nullptr, [](void*) { tInsidePost = false; });
  return call();
}

// Captured by a tick function: counts down once the dispatcher destroyed every copy of it.
struct ReleaseSignal {
  std::latch& released;
  ~ReleaseSignal() { released.count_down(); }
};

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
  std::latch mainDone(kPosters * 2), ticksReleased(kTickers);
  std::vector<TickerProbe> probes(kTickers);  // never moved: no tick outlives the test

  auto mainTask = [&](int poster, int index) {
    return [&, poster, index] {
      ranInline += tInsidePost;
      overlaps += running.fetch_add(1) != 0;
      mainLog.emplace_back(poster, index);
      running.fetch_sub(1);
      mainDone.count_down();
      if (poster == 3 && index == 0)
        throw std::runtime_error("a main-queue task failed");  // the queue goes on
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
        auto* probe = &probes[poster / kTickerEvery];
        const bool fromTick = poster / kTickerEvery % 2 == 0;
        auto signal = std::make_shared<ReleaseSignal>(ticksReleased);
        auto handle = posting([&] {
          return dispatcher->startTicker(1ms, [&ranInline, probe, signal, fromTick] {
            ranInline += tInsidePost;
            probe->afterOwnInvalidate += probe->ownInvalidated.load();
            const int n = ++probe->started;
            std::lock_guard lock(probe->mutex);
            if (fromTick && n >= 3 && probe->handle && !probe->ownInvalidated) {
              probe->handle->invalidate();
              probe->ownInvalidated = true;
            }
            probe->ticked.notify_all();
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

  mainDone.wait();
  ticksReleased.wait();  // every tick function is destroyed: no tick can start any more
  ASSERT_TRUE(dispatcher->waitForDetachedTasks(60s));
  EXPECT_EQ(ranInline, 0);
  EXPECT_EQ(overlaps, 0);
  std::vector<int> seen(kPosters, 0);
  for (auto [poster, index] : mainLog)
    EXPECT_EQ(index, seen[poster]++) << "equal delays keep post order, poster " << poster;
  for (int which = 0; which < kTickers; ++which) {
    auto& probe = probes[which];
    if (which % 2 == 0) {
      EXPECT_TRUE(probe.ownInvalidated) << which;
      EXPECT_EQ(probe.afterOwnInvalidate, 0) << which;
    } else {
      // At most the tick the ticker thread had already begun when invalidate was called.
      EXPECT_LE(probe.started, probe.atInvalidate + 1) << which;
    }
  }
  dispatcher->shutdown();
}

}  // namespace
}  // namespace zonaris::platform
