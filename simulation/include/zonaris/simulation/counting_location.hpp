#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "zonaris/platform/location.hpp"

namespace zonaris::sim_tool {

/// Stands between the client and its location service to count the fixes the client took: a
/// delivery counts when the client had a sample armed (`mUpdatingLocation`) as it arrived.
/// Everything else passes through unchanged.
class CountingLocationManager final : public platform::LocationManager {
 public:
  explicit CountingLocationManager(std::shared_ptr<platform::LocationManager> inner);

  void setDelegate(std::weak_ptr<platform::LocationManagerDelegate> delegate) override;
  void setPausesLocationUpdatesAutomatically(bool pauses) override;
  void setDesiredAccuracy(platform::Accuracy accuracy) override;
  void setDistanceFilter(double metres) override;
  void setAllowsBackgroundLocationUpdates(bool allows) override;
  void requestAlwaysAuthorization() override;
  void startUpdatingLocation() override;
  void stopUpdatingLocation() override;
  void startRangingBeacons(const platform::BeaconRegion& region) override;
  void stopRangingBeacons(const platform::BeaconRegion& region) override;
  bool hasMotion() const override;
  void startMotionUpdates() override;
  void stopMotionUpdates() override;

  std::uint64_t fixesDelivered() const { return counters_->delivered.load(); }
  std::uint64_t fixesTaken() const { return counters_->taken.load(); }

 private:
  struct Counters {
    std::atomic<std::uint64_t> delivered{0};
    std::atomic<std::uint64_t> taken{0};
  };
  class Relay;

  std::shared_ptr<platform::LocationManager> inner_;
  std::shared_ptr<Counters> counters_ = std::make_shared<Counters>();
  std::shared_ptr<Relay> relay_;
};

}  // namespace zonaris::sim_tool
