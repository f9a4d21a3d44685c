#include "zonaris/simulation/counting_location.hpp"

#include "zonaris/zonaris.hpp"

namespace zonaris::sim_tool {

// Receives the location service's deliveries in the client's place and hands them on. Holds the
// client weakly, as the location service itself does.
class CountingLocationManager::Relay final : public platform::LocationManagerDelegate {
 public:
  Relay(std::weak_ptr<platform::LocationManagerDelegate> target, std::shared_ptr<Counters> counters)
      : target_(std::move(target)), counters_(std::move(counters)) {}

  void didUpdateLocations(const std::vector<platform::Location>& locations) override {
    auto target = target_.lock();
    if (!target)
      return;
    ++counters_->delivered;
    const auto* client = dynamic_cast<const Zonaris*>(target.get());
    if (client && client->mUpdatingLocation())
      ++counters_->taken;
    target->didUpdateLocations(locations);
  }

  void didRangeBeacons(const std::vector<platform::Beacon>& beacons,
                       const platform::BeaconRegion& region) override {
    if (auto target = target_.lock())
      target->didRangeBeacons(beacons, region);
  }

  void didChangeMotion(const platform::MotionTransition& transition) override {
    if (auto target = target_.lock())
      target->didChangeMotion(transition);
  }

 private:
  std::weak_ptr<platform::LocationManagerDelegate> target_;
  std::shared_ptr<Counters> counters_;
};

CountingLocationManager::CountingLocationManager(std::shared_ptr<platform::LocationManager> inner)
    : inner_(std::move(inner)) {}

void CountingLocationManager::setDelegate(std::weak_ptr<platform::LocationManagerDelegate> d) {
  // The relay lives as long as this manager; the location service holds it weakly.
  relay_ = std::make_shared<Relay>(std::move(d), counters_);
  inner_->setDelegate(relay_);
}

void CountingLocationManager::setPausesLocationUpdatesAutomatically(bool pauses) {
  inner_->setPausesLocationUpdatesAutomatically(pauses);
}
void CountingLocationManager::setDesiredAccuracy(platform::Accuracy accuracy) {
  inner_->setDesiredAccuracy(accuracy);
}
void CountingLocationManager::setDistanceFilter(double metres) {
  inner_->setDistanceFilter(metres);
}
void CountingLocationManager::setAllowsBackgroundLocationUpdates(bool allows) {
  inner_->setAllowsBackgroundLocationUpdates(allows);
}
void CountingLocationManager::requestAlwaysAuthorization() {
  inner_->requestAlwaysAuthorization();
}
void CountingLocationManager::startUpdatingLocation() {
  inner_->startUpdatingLocation();
}
void CountingLocationManager::stopUpdatingLocation() {
  inner_->stopUpdatingLocation();
}
void CountingLocationManager::startRangingBeacons(const platform::BeaconRegion& region) {
  inner_->startRangingBeacons(region);
}
void CountingLocationManager::stopRangingBeacons(const platform::BeaconRegion& region) {
  inner_->stopRangingBeacons(region);
}
bool CountingLocationManager::hasMotion() const {
  return inner_->hasMotion();
}
void CountingLocationManager::startMotionUpdates() {
  inner_->startMotionUpdates();
}
void CountingLocationManager::stopMotionUpdates() {
  inner_->stopMotionUpdates();
}

}  // namespace zonaris::sim_tool
