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
//
// The device model changes only what a tick delivers and when: the first tick of a chain comes
// after the fix delay instead of 1 s, the position gets its noise or outlier jump, and with
// batching the fixes of several ticks travel in one callback. Random draws are keyed by the
// seed and the tick's virtual time (counter-based), not taken from a running sequence, so a
// fix's error does not depend on how many fixes came before it.
//
// In the coarse setting the model's idle fixes decide what a tick has to offer: the receiver's
// fix (as above), nothing, or a network position. Network positions have their own rhythm, at
// most one a minute whatever the settings do, and their own draws (a different key), so that
// choosing them changes no fix taken at the best accuracy.
#include "zonaris/sim/location_manager.hpp"

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>

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
  // The last position the satellite receiver worked out, delivered or not: what a stale first
  // fix repeats.
  std::optional<platform::Location> lastKnown;
  // When the last network position was worked out (network idle fixes only).
  std::optional<platform::Duration> lastNetworkFix;
  std::uint64_t fixesDelivered = 0;
  DeviceModel model;
  std::vector<platform::Location> batch;  // fixes waiting to travel together

  bool motionUpdates = false;
  std::uint64_t motionGeneration = 0;
  std::optional<std::vector<MotionReport>> motionReports;  // made on first use

  struct Ranging {
    platform::BeaconRegion region;
    std::uint64_t generation = 0;
  };
  std::map<std::string, Ranging> ranged;  // by region identifier, as the platform keys them
  std::uint64_t rangingGeneration = 0;
};

namespace {

using Lane = Scheduler::Lane;

double secondsSinceStart(const Scheduler& scheduler) {
  return std::chrono::duration<double>(scheduler.elapsed()).count();
}

// SplitMix64: a small, well-mixed 64-bit generator; the same numbers on every platform.
std::uint64_t mix(std::uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// Uniform numbers in [0, 1) for one fix, from the seed and the fix's virtual time.
class FixRandom {
 public:
  FixRandom(std::uint64_t seed, platform::Duration elapsed)
      : state_(mix(seed ^ mix(static_cast<std::uint64_t>(elapsed.count())))) {}
  double uniform() {
    state_ = mix(state_);
    return static_cast<double>(state_ >> 11) * 0x1.0p-53;
  }
  // Box-Muller: one standard normal number.
  double normal() {
    const double u = 1.0 - uniform();  // (0, 1]
    return std::sqrt(-2.0 * std::log(u)) * std::cos(2.0 * std::numbers::pi * uniform());
  }

 private:
  std::uint64_t state_;
};

// Metres east and north of a fix, on the sphere the design's distances use.
void displace(platform::Location& fix, double east, double north) {
  constexpr double kEarthRadius = 6378137.0;
  constexpr double kDegrees = 180.0 / std::numbers::pi;
  fix.latitude = std::clamp(fix.latitude + north / kEarthRadius * kDegrees, -90.0, 90.0);
  const double cosLat = std::max(std::cos(fix.latitude / kDegrees), 1e-9);
  fix.longitude += east / (kEarthRadius * cosLat) * kDegrees;
  fix.longitude = std::remainder(fix.longitude, 360.0);
}

// The radius around the true position that holds 68 % of 2-D Gaussian errors of unit standard
// deviation per axis: sqrt(-2 ln 0.32).
constexpr double kRadius68PerSigma = 1.5096;
constexpr double kOutlierMin = 200.0, kOutlierMax = 800.0;  // metres

// The fix the device makes of the true position at `elapsed`.
void applyModel(const DeviceModel& model, platform::Duration elapsed, platform::Location& fix) {
  if (model.noise <= 0.0 && model.outlierRate <= 0.0)
    return;
  FixRandom random(model.seed, elapsed);
  if (model.outlierRate > 0.0 && random.uniform() < model.outlierRate) {
    const double distance = kOutlierMin + (kOutlierMax - kOutlierMin) * random.uniform();
    const double bearing = 2.0 * std::numbers::pi * random.uniform();
    displace(fix, distance * std::sin(bearing), distance * std::cos(bearing));
    return;  // and it claims the accuracy of a good fix
  }
  if (model.noise > 0.0) {
    const double east = model.noise * random.normal();
    const double north = model.noise * random.normal();
    displace(fix, east, north);
    fix.horizontalAccuracy = std::hypot(fix.horizontalAccuracy, kRadius68PerSigma * model.noise);
  }
}

// Keys the draws of network positions apart from those of the receiver's fixes.
constexpr std::uint64_t kNetworkKey = 0x6E6574776F726B31ull;

// The network position the phone works out of the true position at `elapsed`: an accuracy
// drawn log-uniformly from its range, and an error whose 68 % radius is that accuracy.
void networkFix(const DeviceModel& model, platform::Duration elapsed, platform::Location& fix) {
  FixRandom random(model.seed ^ kNetworkKey, elapsed);
  const double accuracy =
      kNetworkAccuracyMin * std::pow(kNetworkAccuracyMax / kNetworkAccuracyMin, random.uniform());
  const double sigma = accuracy / kRadius68PerSigma;
  const double east = sigma * random.normal();
  const double north = sigma * random.normal();
  displace(fix, east, north);
  fix.horizontalAccuracy = accuracy;
  fix.speed = -1.0;  // a network position measures no speed
}

// Keys the motion sensor's draws apart from the others.
constexpr std::uint64_t kMotionKey = 0x6D6F74696F6E3031ull;
constexpr double kMovingSpeed = 0.3;                              // m/s
constexpr double kReportDelayMin = 10.0, kReportDelayMax = 30.0;  // seconds

}  // namespace

std::vector<MotionReport> phoneMotionReports(const Trace& trace, std::uint64_t seed) {
  // The true motion as (time of change, moving) from segment speeds.
  struct Change {
    double t;
    bool moving;
  };
  std::vector<Change> changes;
  const auto& points = trace.points();
  for (std::size_t i = 0; i + 1 < points.size(); ++i) {
    const double dt = points[i + 1].t - points[i].t;
    if (!(dt > 0.0))
      continue;
    platform::Location a, b;
    a.latitude = points[i].latitude;
    a.longitude = points[i].longitude;
    b.latitude = points[i + 1].latitude;
    b.longitude = points[i + 1].longitude;
    const bool moving = a.distanceFrom(b) > kMovingSpeed * dt;
    if (changes.empty() || changes.back().moving != moving)
      changes.push_back({changes.empty() ? 0.0 : points[i].t, moving});
  }
  std::vector<MotionReport> reports;
  const auto motionOf = [](bool moving) {
    return moving ? platform::Motion::Moving : platform::Motion::Stationary;
  };
  reports.push_back({0.0, motionOf(!changes.empty() && changes.front().moving)});
  for (std::size_t i = 1; i < changes.size(); ++i) {
    const Change& c = changes[i];
    FixRandom random(seed ^ kMotionKey, std::chrono::duration_cast<platform::Duration>(
                                            std::chrono::duration<double>(c.t)));
    const double delay = kReportDelayMin + (kReportDelayMax - kReportDelayMin) * random.uniform();
    const bool missed = c.moving && random.uniform() < kMissedStart;
    const platform::Motion motion = motionOf(c.moving);
    // After a missed start the stop that ends the movement changes nothing either.
    if (missed || reports.back().motion == motion)
      continue;
    // Reports keep their order: a quick stop is told right after its start.
    reports.push_back({std::max(c.t + delay, reports.back().t + 1.0), motion});
  }
  return reports;
}

// Starts a new chain (the caller holds the state's mutex).
void SimLocationManager::restartLocationChain(const std::shared_ptr<State>& state) {
  const auto generation = ++state->locationGeneration;
  state->batch.clear();
  if (!state->updating)
    return;
  if (auto scheduler = state->scheduler.lock()) {
    std::weak_ptr<State> weak = state;
    scheduler->postAfter(
        state->model.fixDelay, [weak, generation] { locationTick(weak, generation); }, Lane::Main);
  }
}

void SimLocationManager::deliverStale(const std::weak_ptr<State>& weak) {
  auto state = weak.lock();
  if (!state)
    return;
  std::shared_ptr<platform::LocationManagerDelegate> delegate;
  platform::Location stale;
  {
    std::lock_guard lock(state->mutex);
    if (!state->updating || !state->lastKnown)
      return;
    delegate = state->delegate.lock();
    if (!delegate)
      return;
    stale = *state->lastKnown;  // where it was, when it was
    stale.horizontalAccuracy = std::max(stale.horizontalAccuracy, kStaleFixAccuracy);
    ++state->fixesDelivered;
  }
  delegate->didUpdateLocations({stale});
}

// The receiver, woken by a switch to the best accuracy, finishes its fix one fix delay later even
// when the application has gone back to the coarse setting meanwhile: the platform keeps it as
// its last known position without delivering it.
void SimLocationManager::finishFix(const std::weak_ptr<State>& weak) {
  auto state = weak.lock();
  if (!state)
    return;
  std::lock_guard lock(state->mutex);
  auto scheduler = state->scheduler.lock();
  if (!scheduler || !state->updating || !state->trace || state->trace->points().empty())
    return;
  platform::Location fix = state->trace->at(secondsSinceStart(*scheduler));
  fix.timestamp = scheduler->now();
  applyModel(state->model, scheduler->elapsed(), fix);
  state->lastKnown = fix;
}

void SimLocationManager::locationTick(const std::weak_ptr<State>& weak, std::uint64_t generation) {
  auto state = weak.lock();
  if (!state)
    return;
  std::shared_ptr<platform::LocationManagerDelegate> delegate;
  std::vector<platform::Location> fixes;
  {
    std::lock_guard lock(state->mutex);
    if (generation != state->locationGeneration || !state->updating)
      return;
    auto scheduler = state->scheduler.lock();
    if (!scheduler)
      return;
    scheduler->postAfter(
        1s, [weak, generation] { locationTick(weak, generation); }, Lane::Main);
    if (!state->trace || state->trace->points().empty())
      return;
    const auto elapsed = scheduler->elapsed();
    platform::Location fix = state->trace->at(secondsSinceStart(*scheduler));
    fix.timestamp = scheduler->now();
    const bool idle = state->accuracy == platform::Accuracy::ThreeKilometers;
    if (idle && state->model.idleFixes == IdleFixes::None)
      return;
    if (idle && state->model.idleFixes == IdleFixes::Network) {
      if (state->lastNetworkFix && elapsed - *state->lastNetworkFix < kNetworkFixEvery)
        return;
      state->lastNetworkFix = elapsed;
      networkFix(state->model, elapsed, fix);
    } else {
      applyModel(state->model, elapsed, fix);
    }
    if (state->accuracy == platform::Accuracy::BestForNavigation)
      state->lastKnown = fix;
    const bool filtered = state->distanceFilter >= 0.0;
    if (filtered && state->lastDelivered &&
        !(fix.distanceFrom(*state->lastDelivered) > state->distanceFilter)) {
      return;
    }
    delegate = state->delegate.lock();
    if (!delegate)
      return;
    state->lastDelivered = fix;
    state->batch.push_back(fix);
    if (!filtered && static_cast<int>(state->batch.size()) < state->model.batch)
      return;
    fixes.swap(state->batch);
    state->fixesDelivered += fixes.size();
  }
  // Called without the lock: the delegate changes the settings from inside the callback.
  delegate->didUpdateLocations(fixes);
}

// Delivers one report (or, without one, the motion last reported) and arms the next.
void SimLocationManager::motionTick(const std::weak_ptr<State>& weak, std::uint64_t generation,
                                    std::optional<std::size_t> report) {
  auto state = weak.lock();
  if (!state)
    return;
  std::shared_ptr<platform::LocationManagerDelegate> delegate;
  platform::MotionTransition transition;
  {
    std::lock_guard lock(state->mutex);
    auto scheduler = state->scheduler.lock();
    if (!scheduler || generation != state->motionGeneration || !state->motionUpdates ||
        !state->motionReports || state->motionReports->empty())
      return;
    const auto& reports = *state->motionReports;
    const double now = secondsSinceStart(*scheduler);
    std::size_t index = 0;
    if (report) {
      index = *report;
    } else {
      while (index + 1 < reports.size() && reports[index + 1].t <= now)
        ++index;
    }
    if (index + 1 < reports.size()) {
      const auto wait = std::chrono::duration_cast<platform::Duration>(
          std::chrono::duration<double>(std::max(0.0, reports[index + 1].t - now)));
      const std::size_t next = index + 1;
      scheduler->postAfter(
          wait, [weak, generation, next] { motionTick(weak, generation, next); }, Lane::Main);
    }
    transition.motion = reports[index].motion;
    transition.timestamp = scheduler->now();
    delegate = state->delegate.lock();
  }
  if (delegate)
    delegate->didChangeMotion(transition);
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
        1s, [weak, identifier, generation] { rangingTick(weak, identifier, generation); },
        Lane::Main);
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

void SimLocationManager::setDeviceModel(const DeviceModel& model) {
  std::lock_guard lock(state_->mutex);
  state_->model = model;
  state_->model.batch = std::max(1, model.batch);
}

void SimLocationManager::setDelegate(std::weak_ptr<platform::LocationManagerDelegate> delegate) {
  std::lock_guard lock(state_->mutex);
  state_->delegate = std::move(delegate);
}

void SimLocationManager::setPausesLocationUpdatesAutomatically(bool) {}

void SimLocationManager::setDesiredAccuracy(platform::Accuracy accuracy) {
  std::lock_guard lock(state_->mutex);
  const bool sharpened = state_->accuracy == platform::Accuracy::ThreeKilometers &&
                         accuracy == platform::Accuracy::BestForNavigation;
  state_->accuracy = accuracy;
  restartLocationChain(state_);
  if (sharpened && state_->model.staleFirst && state_->updating) {
    std::weak_ptr<State> weak = state_;
    if (state_->lastKnown)
      scheduler_->postAfter(
          0s, [weak] { deliverStale(weak); }, Lane::Main);
    scheduler_->postAfter(
        state_->model.fixDelay, [weak] { finishFix(weak); }, Lane::Main);
  }
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
  state_->lastKnown.reset();
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
  scheduler_->postAfter(
      1s,
      [weak, identifier = region.identifier, generation] {
        rangingTick(weak, identifier, generation);
      },
      Lane::Main);
}

void SimLocationManager::stopRangingBeacons(const platform::BeaconRegion& region) {
  std::lock_guard lock(state_->mutex);
  state_->ranged.erase(region.identifier);
}

bool SimLocationManager::hasMotion() const {
  std::lock_guard lock(state_->mutex);
  return state_->model.motion != MotionSensor::None;
}

void SimLocationManager::startMotionUpdates() {
  std::lock_guard lock(state_->mutex);
  if (state_->model.motion == MotionSensor::None || state_->motionUpdates)
    return;
  state_->motionUpdates = true;
  const auto generation = ++state_->motionGeneration;
  if (!state_->motionReports && state_->trace)
    state_->motionReports = phoneMotionReports(*state_->trace, state_->model.seed);
  std::weak_ptr<State> weak = state_;
  scheduler_->postAfter(
      1s, [weak, generation] { motionTick(weak, generation, std::nullopt); }, Lane::Main);
}

void SimLocationManager::stopMotionUpdates() {
  std::lock_guard lock(state_->mutex);
  state_->motionUpdates = false;
  ++state_->motionGeneration;
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
