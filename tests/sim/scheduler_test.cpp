#include "zonaris/sim/scheduler.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zonaris/sim/sim_platform.hpp"

namespace zonaris::sim {
namespace {

using namespace std::chrono_literals;

TEST(Scheduler, EqualDueTimesRunInPostOrderAndTimeJumpsToEachTask) {
  Scheduler s(defaultStartTime());
  std::vector<std::string> order;
  s.postAfter(5s, [&] { order.push_back("b@5"); });
  s.postAfter(1s, [&] { order.push_back("a@1"); });
  s.postAfter(5s, [&] { order.push_back("c@5"); });
  s.postAfter(5s, [&] {
    order.push_back("d@5");
    EXPECT_EQ(s.elapsed(), 5s);
    s.postAfter(0s, [&] { order.push_back("e@5 posted by d"); });
  });
  s.runFor(10s);
  EXPECT_EQ(order, (std::vector<std::string>{"a@1", "b@5", "c@5", "d@5", "e@5 posted by d"}));
  EXPECT_EQ(s.elapsed(), 10s);
}

TEST(Scheduler, ThirtySecondTaskDoesNotRunOneMillisecondEarly) {
  Scheduler s(defaultStartTime());
  bool ran = false;
  s.postAfter(30s, [&] { ran = true; });
  s.runFor(29999ms);
  EXPECT_FALSE(ran);
  s.runFor(1ms);
  EXPECT_TRUE(ran);
}

TEST(Scheduler, PostingNeverRunsATaskAndAPastDueTimeMeansNow) {
  Scheduler s(defaultStartTime());
  s.runFor(10s);
  bool ran = false;
  s.post(defaultStartTime(), [&] { ran = true; });
  EXPECT_FALSE(ran);
  EXPECT_EQ(s.pending(), 1u);
  s.runFor(0s);
  EXPECT_TRUE(ran);
  EXPECT_EQ(s.elapsed(), 10s);
}

TEST(SimDispatcher, DetachedTaskRunsAfterThePosterAndMainQueueKeepsOrder) {
  auto s = std::make_shared<Scheduler>(defaultStartTime());
  SimDispatcher d(s);
  std::vector<std::string> order;
  d.mainAfter(0s, [&] {
    d.detach([&] { order.push_back("detached"); });
    order.push_back("poster");
  });
  d.mainAfter(0s, [&] { order.push_back("second main"); });
  s->runFor(0s);
  EXPECT_EQ(order, (std::vector<std::string>{"poster", "second main", "detached"}));
}

TEST(SimDispatcher, TickerTicksEverySecondUntilInvalidatedEvenFromInsideATick) {
  auto s = std::make_shared<Scheduler>(defaultStartTime());
  SimDispatcher d(s);
  int ticks = 0;
  std::shared_ptr<platform::TickerHandle> handle;
  handle = d.startTicker(1s, [&] {
    if (++ticks == 3)
      handle->invalidate();
  });
  s->runFor(999ms);
  EXPECT_EQ(ticks, 0);
  s->runFor(1ms);
  EXPECT_EQ(ticks, 1);
  s->runFor(10s);
  EXPECT_EQ(ticks, 3);
  EXPECT_EQ(s->pending(), 0u);
}

TEST(SimClock, HourOfDayFollowsVirtualTime) {
  auto s = std::make_shared<Scheduler>(*parseLocalTime("2026-03-01T22:59:59"));
  SimClock clock(s);
  EXPECT_EQ(clock.hourOfDay(clock.now()), 22);
  s->runFor(1s);
  EXPECT_EQ(clock.hourOfDay(clock.now()), 23);
  s->runFor(1h);
  EXPECT_EQ(clock.hourOfDay(clock.now()), 0);
}

TEST(SimClock, ParseLocalTimeRejectsMalformedText) {
  EXPECT_TRUE(parseLocalTime("2026-01-01T12:00:00"));
  for (const char* bad : {"", "2026-01-01", "2026-13-01T12:00:00", "2026-02-30T12:00:00",
                          "2026-01-01T24:00:00", "2026-01-01T12:00:00Z", "yesterday"}) {
    EXPECT_FALSE(parseLocalTime(bad)) << bad;
  }
}

}  // namespace
}  // namespace zonaris::sim
