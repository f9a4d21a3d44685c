// A location service into which the application pushes fixes and beacon sightings.
#include <algorithm>
#include <cmath>
#include <utility>

#include "zonaris/platform/feed_location_manager.hpp"

namespace zonaris::platform {

FeedLocationManager::FeedLocationManager(std::shared_ptr<Dispatcher> dispatcher)
    : dispatcher_(std::move(dispatcher)) {}

// Applies a settings change under the lock, then tells the listener outside it.
template <class Change>
void FeedLocationManager::change(Change&& apply) {
  std::shared_ptr<const std::function<void(const FeedSettings&)>> listener;
  FeedSettings now;
  {
    std::lock_guard lock(mutex_);
    apply();
    listener = listener_;
    if (listener)
      now = settings_;
  }
  if (listener && *listener)
    (*listener)(now);
}

void FeedLocationManager::setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void FeedLocationManager::setPausesLocationUpdatesAutomatically(bool pauses) {
  change([&] { settings_.pausesAutomatically = pauses; });
}

void FeedLocationManager::setDesiredAccuracy(Accuracy accuracy) {
  change([&] { settings_.desiredAccuracy = accuracy; });
}

void FeedLocationManager::setDistanceFilter(double metres) {
  change([&] { settings_.distanceFilter = metres; });
}

void FeedLocationManager::setAllowsBackgroundLocationUpdates(bool allows) {
  change([&] { settings_.allowsBackgroundUpdates = allows; });
}

void FeedLocationManager::requestAlwaysAuthorization() {
  change([&] { settings_.alwaysAuthorizationRequested = true; });
}

void FeedLocationManager::startUpdatingLocation() {
  change([&] {
    if (!settings_.updating)
      lastDelivered_.reset();
    settings_.updating = true;
  });
}

void FeedLocationManager::stopUpdatingLocation() {
  change([&] { settings_.updating = false; });
}

void FeedLocationManager::startRangingBeacons(const BeaconRegion& region) {
  change([&] {
    auto& regions = settings_.rangedRegions;
    auto same = std::find_if(regions.begin(), regions.end(), [&](const BeaconRegion& r) {
      return r.identifier == region.identifier;
    });
    if (same != regions.end())
      *same = region;
    else
      regions.push_back(region);
  });
}

void FeedLocationManager::stopRangingBeacons(const BeaconRegion& region) {
  change([&] {
    std::erase_if(settings_.rangedRegions,
                  [&](const BeaconRegion& r) { return r.identifier == region.identifier; });
  });
}

FeedLocationManager::FixProblem FeedLocationManager::checkFix(const Location& fix) {
  if (!std::isfinite(fix.latitude) || !std::isfinite(fix.longitude) ||
      std::fabs(fix.latitude) > 90.0 || std::fabs(fix.longitude) > 180.0)
    return FixProblem::CoordinatesOutOfRange;
  if (!std::isfinite(fix.speed) || !std::isfinite(fix.horizontalAccuracy))
    return FixProblem::NotFinite;
  return FixProblem::None;
}

Beacon FeedLocationManager::normalizedBeacon(Beacon beacon) {
  if (!std::isfinite(beacon.accuracy))
    beacon.accuracy = -1.0;
  if (beacon.proximity < 0 || beacon.proximity > 3)
    beacon.proximity = 0;
  return beacon;
}

bool FeedLocationManager::pushLocation(const Location& fix) {
  // A fix the checks reject would poison the distance filter and every distance measured.
  if (!dispatcher_ || checkFix(fix) != FixProblem::None)
    return false;
  std::weak_ptr<LocationManagerDelegate> delegate;
  {
    std::lock_guard lock(mutex_);
    if (!settings_.updating)
      return false;
    const double filter = settings_.distanceFilter;
    if (filter > 0.0 && lastDelivered_ && !(lastDelivered_->distanceFrom(fix) > filter))
      return false;
    lastDelivered_ = std::make_shared<const Location>(fix);
    delegate = delegate_;
  }
  dispatcher_->mainAfter(Duration::zero(), [delegate, fix] {
    if (auto receiver = delegate.lock())
      receiver->didUpdateLocations({fix});
  });
  return true;
}

std::size_t FeedLocationManager::pushBeacons(const std::vector<Beacon>& beacons) {
  std::vector<BeaconRegion> regions;
  std::weak_ptr<LocationManagerDelegate> delegate;
  {
    std::lock_guard lock(mutex_);
    regions = settings_.rangedRegions;
    delegate = delegate_;
  }
  if (!dispatcher_)
    return 0;
  for (auto& region : regions) {
    const auto regionUUID = canonicalUUID(region.uuid);
    std::vector<Beacon> matching;
    for (const auto& beacon : beacons) {
      auto uuid = canonicalUUID(beacon.uuid);
      if (!uuid || uuid != regionUUID)
        continue;
      // Delivered in the canonical upper-case form, so that a beacon pushed in two cases is one
      // beacon to the scan and one text on the wire.
      matching.push_back(normalizedBeacon(beacon));
      matching.back().uuid = std::move(*uuid);
    }
    dispatcher_->mainAfter(Duration::zero(),
                           [delegate, matching = std::move(matching), region = std::move(region)] {
                             if (auto receiver = delegate.lock())
                               receiver->didRangeBeacons(matching, region);
                           });
  }
  return regions.size();
}

bool FeedLocationManager::pushMotion(const MotionTransition& transition) {
  std::weak_ptr<LocationManagerDelegate> delegate;
  {
    std::lock_guard lock(mutex_);
    motion_ = transition;
    if (!settings_.motionUpdates || !dispatcher_)
      return false;
    delegate = delegate_;
  }
  dispatcher_->mainAfter(Duration::zero(), [delegate, transition] {
    if (auto receiver = delegate.lock())
      receiver->didChangeMotion(transition);
  });
  return true;
}

bool FeedLocationManager::hasMotion() const {
  std::lock_guard lock(mutex_);
  return motion_.has_value();
}

void FeedLocationManager::startMotionUpdates() {
  std::optional<MotionTransition> current;
  std::weak_ptr<LocationManagerDelegate> delegate;
  change([&] {
    if (!settings_.motionUpdates)
      current = motion_;
    settings_.motionUpdates = true;
    delegate = delegate_;
  });
  if (current && dispatcher_)
    dispatcher_->mainAfter(Duration::zero(), [delegate, transition = *current] {
      if (auto receiver = delegate.lock())
        receiver->didChangeMotion(transition);
    });
}

void FeedLocationManager::stopMotionUpdates() {
  change([&] { settings_.motionUpdates = false; });
}

FeedSettings FeedLocationManager::settings() const {
  std::lock_guard lock(mutex_);
  return settings_;
}

void FeedLocationManager::setSettingsListener(std::function<void(const FeedSettings&)> listener) {
  auto shared =
      std::make_shared<const std::function<void(const FeedSettings&)>>(std::move(listener));
  std::lock_guard lock(mutex_);
  listener_ = std::move(shared);
}

}  // namespace zonaris::platform
