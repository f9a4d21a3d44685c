// Dwell timing: a one-second tick counts the seconds spent inside entered fences and marks a
// fence `dwelled` when one of its dwell windows elapses; `getTimeBeforeDwell` tells sampling how
// soon the next window can fall due.
//
// Only fences that are entered or still hold a count have anything to do; the catalogue's cache
// keeps the list of those (see FenceCache::flagSummary), so a tick over a city's catalogue
// touches the few fences the device is in, not all of them. A snapshot without a cache is
// walked whole.
//
// Locking: the walk over the catalogue uses the snapshot it read and takes no lock (fence
// fields are atomics); each walk over one fence's windows holds the client's monitor, so a
// tick and `getTimeBeforeDwell` never see a fence's windows half updated by the other.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <limits>
#include <utility>

#include "client/zonaris_state.hpp"
#include "fences/fence_cache.hpp"
#include "platform/thread_exit.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {

namespace {

constexpr std::chrono::seconds kDwellTick{1};

// Seconds are counted in 64 bits and kept within the signed 32-bit range of the fields, so a
// count that reached the top stays there instead of overflowing.
std::int32_t clampToInt32(std::int64_t value) {
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(
      value, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

// Calls `visit` on every fence of the snapshot that is entered or holds a nonzero dwell count,
// and possibly on others, in catalogue order.
template <typename Visit>
void forCountingFences(const Zonaris::FencesPtr& fences, Visit&& visit) {
  if (const auto* cache = fences::cacheOf(fences)) {
    const auto summary = cache->flagSummary(*fences);
    for (const std::uint32_t i : summary->counting)
      visit(*(*fences)[i]);
    return;
  }
  for (const auto& fence : *fences)
    visit(*fence);
}

}  // namespace

// A second start cancels the earlier ticker instead of leaving it running: its tick holds the
// client, so an orphaned ticker would count every second twice and keep the client alive for
// good. One ticker per client is what the catalogue reload (stop, then start) expects anyway.
void Zonaris::startDwellTimer() {
  auto self = shared_from_this();
  auto ticker = state_->platform.dispatcher->startTicker(kDwellTick, [self] {
    // As runGuarded (client/zonaris.cpp): the report follows the handler.
    std::string failure;
    try {
      self->updateDwellTimes();
      return;
    } catch (const std::exception& e) {
      failure = e.what();
    } catch (...) {
      if (platform::endingThread())
        throw;
      failure = "unknown exception";
    }
    self->reportUnexpected("updateDwellTimes", failure.c_str());
  });
  std::shared_ptr<platform::TickerHandle> earlier;
  {
    std::lock_guard lock(state_->fieldsMutex);
    earlier = std::exchange(state_->mDwellTimer, std::move(ticker));
  }
  if (earlier)
    earlier->invalidate();
}

void Zonaris::stopDwellTimer() {
  std::shared_ptr<platform::TickerHandle> timer;
  {
    std::lock_guard lock(state_->fieldsMutex);
    timer = std::exchange(state_->mDwellTimer, nullptr);
  }
  if (timer)
    timer->invalidate();
}

void Zonaris::updateDwellTimes() {
  devLog("Update dwell times");
  const FencesPtr fences = mFences();
  if (!fences)
    return;
  forCountingFences(fences, [this](ZonarisFence& fence) {
    const bool entered = fence.entered();
    const std::int32_t count = fence.dwell_time();
    if (entered) {
      const std::int32_t now = clampToInt32(std::int64_t{count} + 1);
      fence.setDwell_time(now);
      const auto windows = fence.dwell_events();
      std::lock_guard lock(state_->monitor);
      for (const auto& window : *windows) {
        if (window->active() && now > window->dwell_time()) {
          window->setActive(false);
          fence.setDwelled(true);
        }
      }
    } else if (count != 0) {
      fence.setDwell_time(0);
      fence.setDwelled(false);
      const auto windows = fence.dwell_events();
      std::lock_guard lock(state_->monitor);
      for (const auto& window : *windows)
        window->setActive(true);
    }
  });
}

std::int32_t Zonaris::getTimeBeforeDwell() {
  std::int64_t result = kNoDwellPending;
  const FencesPtr fences = mFences();
  if (fences) {
    forCountingFences(fences, [&](const ZonarisFence& fence) {
      if (!fence.entered())
        return;
      const auto windows = fence.dwell_events();
      std::lock_guard lock(state_->monitor);
      const std::int64_t count = fence.dwell_time();
      for (const auto& window : *windows) {
        if (window->active())
          result = std::min<std::int64_t>(result, std::int64_t{window->dwell_time()} - count);
      }
    });
  }
  return result < 0 ? 0 : clampToInt32(result);
}

}  // namespace zonaris
