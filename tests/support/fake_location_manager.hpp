#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "zonaris/platform/location.hpp"

namespace zonaris::test {

/// A location service that records the calls made to it, in order, as text
/// ("setDesiredAccuracy(ThreeKilometers)", "setDistanceFilter(99999)", ...). It delivers
/// nothing by itself; a test hands fixes to the delegate directly.
class FakeLocationManager final : public platform::LocationManager {
 public:
  void setDelegate(std::weak_ptr<platform::LocationManagerDelegate> d) override {
    std::lock_guard lock(mutex_);
    delegate_ = d;
    calls_.push_back("setDelegate");
  }
  void setPausesLocationUpdatesAutomatically(bool v) override {
    add(fmt::format("setPausesLocationUpdatesAutomatically({})", v));
  }
  void setDesiredAccuracy(platform::Accuracy a) override {
    const bool best = a == platform::Accuracy::BestForNavigation;
    add(fmt::format("setDesiredAccuracy({})", best ? "BestForNavigation" : "ThreeKilometers"));
  }
  void setDistanceFilter(double m) override {
    const bool none = m == platform::kDistanceFilterNone;
    add(none ? "setDistanceFilter(None)" : fmt::format("setDistanceFilter({})", int(m)));
  }
  void setAllowsBackgroundLocationUpdates(bool v) override {
    add(fmt::format("setAllowsBackgroundLocationUpdates({})", v));
  }
  void requestAlwaysAuthorization() override { add("requestAlwaysAuthorization"); }
  void startUpdatingLocation() override { add("startUpdatingLocation"); }
  void stopUpdatingLocation() override { add("stopUpdatingLocation"); }
  void startRangingBeacons(const platform::BeaconRegion& r) override {
    add("startRangingBeacons(" + r.uuid + ")");
  }
  void stopRangingBeacons(const platform::BeaconRegion& r) override {
    add("stopRangingBeacons(" + r.uuid + ")");
  }

  std::vector<std::string> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  void clearCalls() {
    std::lock_guard lock(mutex_);
    calls_.clear();
  }
  std::shared_ptr<platform::LocationManagerDelegate> delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
  }

 private:
  void add(std::string call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }
  mutable std::mutex mutex_;
  std::weak_ptr<platform::LocationManagerDelegate> delegate_;
  std::vector<std::string> calls_;
};

}  // namespace zonaris::test
