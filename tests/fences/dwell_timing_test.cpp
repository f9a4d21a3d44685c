// Dwell timing: counting seconds inside entered fences, firing windows, and the time left.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <vector>

#include "fence_fixture.hpp"

namespace zonaris {
namespace {

using namespace std::chrono_literals;
using test::FenceSpec;

constexpr std::int32_t kNothingPending = std::numeric_limits<std::int32_t>::max();

using DwellTiming = test::FenceFixture;

FenceSpec withWindows(std::vector<std::int32_t> windows, std::int64_t id = 1) {
  FenceSpec spec;
  spec.id = id;
  spec.windows = std::move(windows);
  return spec;
}

std::vector<bool> activeFlags(const ZonarisFence& fence) {
  std::vector<bool> out;
  for (const auto& window : *fence.dwell_events())
    out.push_back(window->active());
  return out;
}

TEST_F(DwellTiming, ATenSecondWindowFiresOnTheEleventhTickOnly) {
  auto fence = publish({withWindows({10})})[0];
  fence->setEntered(true);
  EXPECT_EQ(client->getTimeBeforeDwell(), 10);
  for (int tick = 1; tick <= 10; ++tick) {
    client->updateDwellTimes();
    ASSERT_FALSE(fence->dwelled()) << "tick " << tick;
    EXPECT_EQ(fence->dwell_time(), tick);
    EXPECT_EQ(client->getTimeBeforeDwell(), 10 - tick);
  }
  client->updateDwellTimes();
  EXPECT_TRUE(fence->dwelled());
  EXPECT_EQ(activeFlags(*fence), std::vector<bool>{false});
  EXPECT_EQ(client->getTimeBeforeDwell(), kNothingPending);
  // A confirmed dwell clears the marker; the fired window stays quiet for the rest of the stay.
  fence->setDwelled(false);
  for (int tick = 0; tick < 20; ++tick)
    client->updateDwellTimes();
  EXPECT_FALSE(fence->dwelled());
}

TEST_F(DwellTiming, WindowsFireInTurnAndAZeroSecondWindowOnTheFirstTick) {
  auto fence = publish({withWindows({3, 0, 3, 5})})[0];
  fence->setEntered(true);
  client->updateDwellTimes();
  EXPECT_TRUE(fence->dwelled());
  EXPECT_EQ(activeFlags(*fence), (std::vector<bool>{true, false, true, true}));
  EXPECT_EQ(client->getTimeBeforeDwell(), 2);

  fence->setDwelled(false);
  for (int tick = 2; tick <= 4; ++tick)
    client->updateDwellTimes();
  // Both 3-second windows fire on count 4 and set the one marker.
  EXPECT_TRUE(fence->dwelled());
  EXPECT_EQ(activeFlags(*fence), (std::vector<bool>{false, false, false, true}));
  EXPECT_EQ(client->getTimeBeforeDwell(), 1);
}

TEST_F(DwellTiming, LeavingTheFenceResetsTheCountAndRearmsEveryWindowOnTheNextTick) {
  auto fence = publish({withWindows({2, 100})})[0];
  fence->setEntered(true);
  for (int tick = 0; tick < 3; ++tick)
    client->updateDwellTimes();
  ASSERT_TRUE(fence->dwelled());
  ASSERT_EQ(activeFlags(*fence), (std::vector<bool>{false, true}));

  client->confirmEventFor(1, "exit");
  EXPECT_EQ(fence->dwell_time(), 3);  // nothing changes until the tick
  client->updateDwellTimes();
  EXPECT_EQ(fence->dwell_time(), 0);
  EXPECT_FALSE(fence->dwelled());
  EXPECT_EQ(activeFlags(*fence), (std::vector<bool>{true, true}));
  EXPECT_EQ(client->getTimeBeforeDwell(), kNothingPending);
}

TEST_F(DwellTiming, AFenceNeverCountedIsLeftAlone) {
  auto fence = publish({withWindows({5, 6})})[0];
  fence->dwell_events()->at(0)->setActive(false);
  fence->setDwelled(true);
  client->updateDwellTimes();
  EXPECT_EQ(fence->dwell_time(), 0);
  EXPECT_TRUE(fence->dwelled());
  EXPECT_EQ(activeFlags(*fence), (std::vector<bool>{false, true}));
}

TEST_F(DwellTiming, TimeBeforeDwellIsTheSoonestArmedWindowOfAnEnteredFence) {
  auto fences = publish({withWindows({30}, 1), withWindows({5}, 2), withWindows({12, 40}, 3)});
  EXPECT_EQ(client->getTimeBeforeDwell(), kNothingPending);  // none entered
  fences[0]->setEntered(true);
  fences[2]->setEntered(true);
  fences[2]->setDwell_time(4);
  EXPECT_EQ(client->getTimeBeforeDwell(), 8);
  // A window shorter than the count already reached (added mid-stay) means "due now".
  fences[0]->setDwell_time(31);
  fences[0]->dwell_events()->at(0)->setActive(true);
  EXPECT_EQ(client->getTimeBeforeDwell(), 0);

  client->setMFences(std::make_shared<const FenceList>());
  EXPECT_EQ(client->getTimeBeforeDwell(), kNothingPending);
  client->setMFences(nullptr);
  EXPECT_EQ(client->getTimeBeforeDwell(), kNothingPending);
  client->updateDwellTimes();  // nothing to walk, nothing to fail
}

TEST_F(DwellTiming, ExtremeCountsAndWindowsStayWithinRange) {
  auto fence =
      publish({withWindows({std::numeric_limits<std::int32_t>::min(), kNothingPending})})[0];
  fence->setEntered(true);
  fence->setDwell_time(kNothingPending);
  EXPECT_EQ(client->getTimeBeforeDwell(), 0);
  client->updateDwellTimes();
  EXPECT_EQ(fence->dwell_time(), kNothingPending);
  EXPECT_EQ(activeFlags(*fence), (std::vector<bool>{false, true}));
  EXPECT_EQ(client->getTimeBeforeDwell(), 0);
}

TEST_F(DwellTiming, TheTimerTicksEverySecondUntilStopped) {
  auto fence = publish({withWindows({10})})[0];
  fence->setEntered(true);
  client->stopDwellTimer();  // none yet: nothing happens
  client->startDwellTimer();
  ASSERT_TRUE(client->mDwellTimer());
  simulation->runFor(10s);
  EXPECT_EQ(fence->dwell_time(), 10);
  EXPECT_FALSE(fence->dwelled());
  simulation->runFor(1s);
  EXPECT_TRUE(fence->dwelled());

  client->stopDwellTimer();
  EXPECT_FALSE(client->mDwellTimer());
  simulation->runFor(5s);
  EXPECT_EQ(fence->dwell_time(), 11);
}

TEST_F(DwellTiming, ASecondStartReplacesTheRunningTimer) {
  auto fence = publish({withWindows({})})[0];
  fence->setEntered(true);
  client->startDwellTimer();
  auto first = client->mDwellTimer();
  simulation->runFor(500ms);
  client->startDwellTimer();
  EXPECT_NE(client->mDwellTimer(), first);
  simulation->runFor(10s);
  // One count per second: the first timer no longer ticks.
  EXPECT_EQ(fence->dwell_time(), 10);
}

}  // namespace
}  // namespace zonaris
