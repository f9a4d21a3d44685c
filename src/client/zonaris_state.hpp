#pragma once

// The fields of a `Zonaris` client. They live here, out of the public header, so that a new
// field changes neither the class's layout nor what an application compiles against.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "zonaris/zonaris.hpp"

namespace zonaris {

namespace sampling {
class EfficientPolicy;
}  // namespace sampling

struct ZonarisState {
  explicit ZonarisState(platform::Platform p) : platform(std::move(p)) {}

  platform::Platform platform;

  // Fields, in their declared order. Scalars are atomic; object fields are immutable values
  // replaced whole under `fieldsMutex`.
  mutable std::mutex fieldsMutex;
  std::string mAppKey;
  std::atomic<bool> mDevMode{false};
  std::optional<std::string> mUUID;
  std::shared_ptr<ZonarisTags> mTags;
  std::atomic<std::int32_t> mSilenceStart{0};
  std::atomic<std::int32_t> mSilenceStop{0};
  // Set once by `initWithAppKey`, before the client is shared with any other thread.
  std::shared_ptr<platform::LocationManager> mLocationManager;
  std::weak_ptr<ZonarisDelegate> mDelegate;
  std::atomic<std::int64_t> mInstallId{0};
  std::atomic<bool> mUpdatingLocation{false};
  std::atomic<bool> mResetFences{false};
  std::atomic<bool> mBeaconEnabled{false};
  std::atomic<bool> mBeaconScanning{false};
  std::atomic<double> mMinDist{Zonaris::kNoDistance};
  std::atomic<float> mAverageSpeed{28.0f};
  std::atomic<float> mSpeed{0.0f};
  Zonaris::RegionPtr mBeaconRegion;
  Zonaris::LocationPtr mInitLocation;
  Zonaris::LocationPtr mCurrentLocation;
  Zonaris::FencesPtr mFences;
  Zonaris::BeaconRecords mBeacons;
  std::vector<platform::Beacon> mCurrentBeacons;
  std::shared_ptr<platform::TickerHandle> mDwellTimer;

  // Sampling beyond the design: the policy in force and the efficient policy's own state.
  std::atomic<SamplingPolicy> samplingPolicy{SamplingPolicy::Design};
  std::shared_ptr<sampling::EfficientPolicy> efficient;
  // Beyond the design: whether the fence query accepts a compressed answer.
  std::atomic<bool> compression{false};

  // The client's own monitor: held around each walk over a fence's dwell windows and around
  // the publication of the beacon list.
  mutable std::recursive_mutex monitor;
};

}  // namespace zonaris
