// Speed statistics and the time until the next position sample.
//
// The next sample is taken after half the time the device needs, at its averaged speed, to
// reach the nearest fence, cut to the time left before the next dwell deadline and held
// between MIN_INTERVAL and MAX_INTERVAL. All speed arithmetic is single precision, as the
// speeds are 32-bit floats.
//
// Under `SamplingPolicy::Efficient` the same steps run, with the same speed statistics,
// callbacks and log lines; only the interval comes from the efficient policy
// (sampling/efficient_policy.hpp), a scheduled sample is skipped when another one was taken
// since it was scheduled, and a fix the policy takes for a possible outlier does not drop the
// init location.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>

#include <fmt/format.h>

#include "client/zonaris_state.hpp"
#include "sampling/efficient_policy.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {

namespace {

constexpr std::int32_t MIN_INTERVAL = 15;   // seconds
constexpr std::int32_t MAX_INTERVAL = 600;  // seconds
constexpr float kSpeedFloor = 0.5f;         // m/s; also what a faulty average is reset to
constexpr float kSmoothingBias = 0.0001f;
// Beyond this distance from the init location the catalogue around it is stale.
constexpr float kInitLocationRadius = 1000.0f;  // metres

// floor(x) as a signed 32-bit number, saturating at both ends; NaN becomes 0.
std::int32_t saturatedInt32(double x) {
  if (std::isnan(x))
    return 0;
  if (x >= static_cast<double>(std::numeric_limits<std::int32_t>::max()))
    return std::numeric_limits<std::int32_t>::max();
  if (x <= static_cast<double>(std::numeric_limits<std::int32_t>::min()))
    return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(x);
}

// What the chosen policy says about the next sample: the interval by speed, the cap before the
// next dwell deadline, and the smallest interval the bounds then allow.
struct IntervalBounds {
  std::int32_t bySpeed = 0;
  std::int32_t beforeDwell = 0;
  std::int32_t lowest = MIN_INTERVAL;
};

// The design's policy: half the time to the nearest fence at the averaged speed, and at least
// the design's minimum.
IntervalBounds designBounds(Zonaris& client, double minDist, float average) {
  IntervalBounds bounds;
  bounds.bySpeed = saturatedInt32(std::floor(minDist / static_cast<double>(average) * 0.5));
  bounds.beforeDwell = client.getTimeBeforeDwell();
  return bounds;
}

// The efficient policy: it spaces samples from what it knows of this pass, and may sample right
// after a dwell deadline that comes sooner than the design's minimum.
IntervalBounds efficientBounds(Zonaris& client, sampling::EfficientPolicy& efficient,
                               const Zonaris::LocationPtr& current, double minDist, float average) {
  sampling::PassFacts facts;
  facts.averageSpeed = average;
  facts.clearance = minDist;
  // Inside a polygon the nearest distance is 0; the policy measures the way out instead.
  const Zonaris::FencesPtr fences = client.mFences();
  if (current && fences && !(minDist > 0.0))
    facts.clearance = sampling::boundaryClearance(fences, current->longitude, current->latitude);
  facts.accuracy = current && std::isfinite(current->horizontalAccuracy)
                       ? std::max(current->horizontalAccuracy, 0.0)
                       : 0.0;
  if (const auto centre = efficient.centre(); centre && fences)
    facts.centreClearance = sampling::boundaryClearance(fences, centre->first, centre->second);
  facts.ranging = client.mBeaconEnabled();
  facts.fixAge =
      current ? std::chrono::duration<double>(client.platform().clock->now() - current->timestamp)
                    .count()
              : 0.0;
  facts.beforeDwell = client.getTimeBeforeDwell();
  IntervalBounds bounds;
  bounds.bySpeed = efficient.spacing(facts);
  bounds.beforeDwell = sampling::EfficientPolicy::dwellCap(facts.beforeDwell);
  bounds.lowest = std::clamp(bounds.beforeDwell, 1, efficient.shortest());
  return bounds;
}

}  // namespace

void Zonaris::setSamplingPolicy(SamplingPolicy policy) {
  {
    std::lock_guard lock(state_->fieldsMutex);
    if (policy == SamplingPolicy::Efficient && !state_->efficient)
      state_->efficient = std::make_shared<sampling::EfficientPolicy>();
  }
  const SamplingPolicy before = state_->samplingPolicy.exchange(policy);
  // Only the efficient policy listens to the motion sensor.
  if (policy == SamplingPolicy::Efficient && before != policy)
    state_->mLocationManager->startMotionUpdates();
  else if (before == SamplingPolicy::Efficient && policy != before)
    state_->mLocationManager->stopMotionUpdates();
}

std::shared_ptr<sampling::EfficientPolicy> Zonaris::efficientPolicy() const {
  if (state_->samplingPolicy.load() != SamplingPolicy::Efficient)
    return nullptr;
  std::lock_guard lock(state_->fieldsMutex);
  return state_->efficient;
}

void Zonaris::calculateIntervalAndAccuracy() {
  const LocationPtr init = mInitLocation();
  const LocationPtr current = mCurrentLocation();
  const double fromInit = init && current ? current->distanceFrom(*init) : 0.0;

  if (state_->mSpeed.load() < 0.0f)
    state_->mSpeed.store(0.0f);
  const float speed = state_->mSpeed.load();
  devLog(fmt::format("Speed           = {:f}m/s", speed));

  // Written as "floor > x ? floor : x" so that a NaN average stays NaN and is reported below.
  const float smoothed = (speed + state_->mAverageSpeed.load()) * 0.5f + kSmoothingBias;
  state_->mAverageSpeed.store(kSpeedFloor > smoothed ? kSpeedFloor : smoothed);
  const float average = state_->mAverageSpeed.load();
  devLog(fmt::format("Avr Speed       = {:f}m/s", average));

  if (!(average > 0.0f && average <= std::numeric_limits<float>::max())) {
    sendException("Calculate avg speed error", callStackSymbols(),
                  nlohmann::json::array({{{"name", "mSpeed"}, {"value", speed}},
                                         {{"name", "mAverageSpeed"}, {"value", average}}}));
    state_->mAverageSpeed.store(kSpeedFloor);
  }

  const double minDist = state_->mMinDist.load();
  devLog(fmt::format("Min Dist        = {:f}m", minDist));
  const auto efficient = efficientPolicy();
  const IntervalBounds bounds =
      efficient ? efficientBounds(*this, *efficient, current, minDist, state_->mAverageSpeed.load())
                : designBounds(*this, minDist, state_->mAverageSpeed.load());
  devLog(fmt::format("Interval(sp)    = {}", bounds.bySpeed));
  std::int32_t interval = bounds.bySpeed < bounds.beforeDwell ? bounds.bySpeed : bounds.beforeDwell;
  devLog(fmt::format("Interval(dw)    = {}", interval));

  if (interval > MAX_INTERVAL) {
    interval = MAX_INTERVAL;
    devLog(fmt::format("Interval is too big. Set to MAX_INTERVAL = {}", MAX_INTERVAL));
  } else if (interval < bounds.lowest) {
    interval = bounds.lowest;
    devLog(fmt::format("Interval is too small. Set to MIN_INTERVAL = {}", bounds.lowest));
  }

  // Compared in single precision: 1000.00001 m still counts as 1000. Under the efficient policy
  // a fix that jumped far from a stop is not believed until the next fix stays away: an outlier
  // would otherwise drop the catalogue, and the download's first observation decides alone.
  if (static_cast<float>(fromInit) > kInitLocationRadius && !(efficient && efficient->jumped()))
    setMInitLocation(nullptr);

  notifyDelegate(ZonarisCallback::updatedSpeed,
                 [&](ZonarisDelegate& d) { d.updatedSpeed(state_->mSpeed.load()); });
  notifyDelegate(ZonarisCallback::updatedAvgSpeed,
                 [&](ZonarisDelegate& d) { d.updatedAvgSpeed(state_->mAverageSpeed.load()); });
  notifyDelegate(ZonarisCallback::updatedInterval,
                 [&](ZonarisDelegate& d) { d.updatedInterval(interval); });
  // Without a current fix there is no accuracy to report; 0 is what an absent fix reads as.
  const float accuracy = current ? static_cast<float>(current->horizontalAccuracy) : 0.0f;
  notifyDelegate(ZonarisCallback::updatedGPSAccuracy,
                 [&](ZonarisDelegate& d) { d.updatedGPSAccuracy(accuracy); });

  devLog(fmt::format("Update location after {} second(s)", interval));
  // Under the efficient policy a sample taken meanwhile (woken by movement) has scheduled its
  // own successor, and this one is skipped.
  mainAfterGuarded(
      "updateLocation", std::chrono::seconds(interval),
      [efficient, ticket = efficient ? efficient->accepted() : std::uint64_t{0}](Zonaris& self) {
        if (!efficient || efficient->accepted() == ticket)
          self.updateLocation();
      });
}

}  // namespace zonaris
