// The simulated location service: replays a trace and beacon sightings in virtual time.
//
// Location updates run as one chain of one-second timer tasks on the scheduler. Every change
// of a setting (accuracy, distance filter, start, stop) starts a new chain one second later and
// retires the old one through a generation number, so at most one chain delivers. Each tick
// reads the trace at the virtual time since the scheduler's start (the trace's first point is
// the simulation's start) and:
// - with no distance filter, delivers the position;
// - with a distance filter, delivers it only when the device moved farther than the filter
//   since the last delivered fix (the first fix after a start is delivered in any case, as a
//   real location service reports where the device is when updates begin).
// Ranging runs one such chain per ranged region and delivers every second, also empty lists.
//
// Timer tasks hold the manager's state weakly and the delegate is held weakly, so neither the
// manager nor the client is kept alive by pending ticks; clearing the scheduler ends the chains.
#include "zonaris/sim/location_manager.hpp"

#include <map>

namespace zonaris::sim {

using namespace std::chrono_literals;

struct SimLocationManager::State {
  std::mutex mutex;
  std::weak_ptr<Scheduler> scheduler;
  std::shared_ptr<const Trace> trace;
  std::shared_ptr<const BeaconSightings> sightings;
  std::weak_ptr<platform::LocationManagerDelegate> delegate;

  bool updating = false;
  // A real location service starts at its best accuracy and without a filter.
  platform::Accuracy accuracy = platform::Accuracy::BestForNavigation;
  double distanceFilter = platform::kDistanceFilterNone;
  std::uint64_t locationGeneration = 0;
  std::optional<platform::Location> lastDelivered;
  std::uint64_t fixesDelivered = 0;

  struct Ranging {
    platform::BeaconRegion region;
    std::uint64_t generation = 0;
  };
  std::map<std::string, Ranging> ranged;  // by region identifier, as the platform keys them
  std::uint64_t rangingGeneration = 0;
};

namespace {

double secondsSinceStart(const Scheduler& scheduler) {
  return std::chrono::duration<double>(scheduler.elapsed()).count();
}

}  // namespace

// Starts a new chain (the caller holds the state's mutex).
void SimLocationManager::restartLocationChain(const std::shared_ptr<State>& state) {
  const auto generation = ++state->locationGeneration;
  if (!state->updating)
    return;
  if (auto scheduler = state->scheduler.lock()) {
    std::weak_ptr<State> weak = state;
    scheduler->postAfter(1s, [weak, generation] { locationTick(weak, generation); });
  }
}

void SimLocationManager::locationTick(const std::weak_ptr<State>& weak, std::uint64_t generation) {
  auto state = weak.lock();
  if (!state)
    return;
  std::shared_ptr<platform::LocationManagerDelegate> delegate;
  platform::Location fix;
  {
    std::lock_guard lock(state->mutex);
    if (generation != state->locationGeneration || !state->updating)
      return;
    auto scheduler = state->scheduler.lock();
    if (!scheduler)
      return;
    scheduler->postAfter(1s, [weak, generation] { locationTick(weak, generation); });
    if (!state->trace || state->trace->points().empty())
      return;
    fix = state->trace->at(secondsSinceStart(*scheduler));
    fix.timestamp = scheduler->now();
    const bool filtered = state->distanceFilter >= 0.0;
    if (filtered && state->lastDelivered &&
        !(fix.distanceFrom(*state->lastDelivered) > state->distanceFilter)) {
      return;
    }
    delegate = state->delegate.lock();
    if (!delegate)
      return;
    state->lastDelivered = fix;
    ++state->fixesDelivered;
  }
  // Called without the lock: the delegate changes the settings from inside the callback.
  delegate->didUpdateLocations({fix});
}

void SimLocationManager::rangingTick(const std::weak_ptr<State>& weak,
                                     const std::string& identifier, std::uint64_t generation) {
  auto state = weak.lock();
  if (!state)
    return;
  std::shared_ptr<platform::LocationManagerDelegate> delegate;
  std::shared_ptr<const BeaconSightings> sightings;
  platform::BeaconRegion region;
  double t = 0.0;
  {
    std::lock_guard lock(state->mutex);
    const auto it = state->ranged.find(identifier);
    if (it == state->ranged.end() || it->second.generation != generation)
      return;
    auto scheduler = state->scheduler.lock();
    if (!scheduler)
      return;
    scheduler->postAfter(
        1s, [weak, identifier, generation] { rangingTick(weak, identifier, generation); });
    region = it->second.region;
    sightings = state->sightings;
    delegate = state->delegate.lock();
    t = secondsSinceStart(*scheduler);
  }
  if (!delegate)
    return;
  std::vector<platform::Beacon> beacons;
  if (sightings)
    beacons = sightings->at(t, region.uuid);
  delegate->didRangeBeacons(beacons, region);
}

SimLocationManager::SimLocationManager(std::shared_ptr<Scheduler> scheduler)
    : scheduler_(std::move(scheduler)), state_(std::make_shared<State>()) {
  state_->scheduler = scheduler_;
}

void SimLocationManager::setTrace(std::shared_ptr<const Trace> trace) {
  std::lock_guard lock(state_->mutex);
  state_->trace = std::move(trace);
}

void SimLocationManager::setBeaconSightings(std::shared_ptr<const BeaconSightings> sightings) {
  std::lock_guard lock(state_->mutex);
  state_->sightings = std::move(sightings);
}

void SimLocationManager::setDelegate(std::weak_ptr<platform::LocationManagerDelegate> delegate) {
  std::lock_guard lock(state_->mutex);
  state_->delegate = std::move(delegate);
}

void SimLocationManager::setPausesLocationUpdatesAutomatically(bool) {}

void SimLocationManager::setDesiredAccuracy(platform::Accuracy accuracy) {
  std::lock_guard lock(state_->mutex);
  state_->accuracy = accuracy;
  restartLocationChain(state_);
}

void SimLocationManager::setDistanceFilter(double metres) {
  std::lock_guard lock(state_->mutex);
  // Any negative value means "no filter", as on the platforms this stands for.
  state_->distanceFilter = metres < 0.0 ? platform::kDistanceFilterNone : metres;
  restartLocationChain(state_);
}

void SimLocationManager::setAllowsBackgroundLocationUpdates(bool) {}

void SimLocationManager::requestAlwaysAuthorization() {}

void SimLocationManager::startUpdatingLocation() {
  std::lock_guard lock(state_->mutex);
  if (state_->updating)
    return;
  state_->updating = true;
  state_->lastDelivered.reset();
  restartLocationChain(state_);
}

void SimLocationManager::stopUpdatingLocation() {
  std::lock_guard lock(state_->mutex);
  state_->updating = false;
  restartLocationChain(state_);
}

void SimLocationManager::startRangingBeacons(const platform::BeaconRegion& region) {
  std::lock_guard lock(state_->mutex);
  auto it = state_->ranged.find(region.identifier);
  if (it != state_->ranged.end() && it->second.region.uuid == region.uuid)
    return;  // already ranged: its one-second rhythm goes on
  const auto generation = ++state_->rangingGeneration;
  state_->ranged[region.identifier] = State::Ranging{region, generation};
  std::weak_ptr<State> weak = state_;
  scheduler_->postAfter(1s, [weak, identifier = region.identifier, generation] {
    rangingTick(weak, identifier, generation);
  });
}

void SimLocationManager::stopRangingBeacons(const platform::BeaconRegion& region) {
  std::lock_guard lock(state_->mutex);
  state_->ranged.erase(region.identifier);
}

bool SimLocationManager::updating() const {
  std::lock_guard lock(state_->mutex);
  return state_->updating;
}

platform::Accuracy SimLocationManager::desiredAccuracy() const {
  std::lock_guard lock(state_->mutex);
  return state_->accuracy;
}

double SimLocationManager::distanceFilter() const {
  std::lock_guard lock(state_->mutex);
  return state_->distanceFilter;
}

std::vector<std::string> SimLocationManager::rangedRegions() const {
  std::lock_guard lock(state_->mutex);
  std::vector<std::string> uuids;
  for (const auto& [identifier, ranging] : state_->ranged)
    uuids.push_back(ranging.region.uuid);
  return uuids;
}

std::uint64_t SimLocationManager::fixesDelivered() const {
  std::lock_guard lock(state_->mutex);
  return state_->fixesDelivered;
}

}  // namespace zonaris::sim
