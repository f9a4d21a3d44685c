// Beacon ranging: a 10-seconds-on, 30-seconds-off duty cycle over the configured beacon region,
// keeping the most accurate sighting of each beacon per scan and publishing each finished scan
// as beacon records for the next observation.
//
// The cycle runs on main-queue timers that are never cancelled. Each timer re-checks
// `mBeaconEnabled` when it fires, so switching off ends the cycle at the next timer. Switching
// off and on again while a timer is pending starts a new cycle at once while the old timer
// still fires later: two interleaved cycles then run. That follows from never cancelling
// deferred work and is kept on purpose.
//
// Threads: the switches run on an evaluation pass's thread or on the caller of `stop`, the
// timers and ranging results on the main queue. The flags are atomics; the scan in progress
// (`mCurrentBeacons`) is only touched under the fields' mutex, and nothing is logged or asked of
// the platform while that lock is held.
//
// Switching is ordered by the client's monitor: a scan's start (check the switch, set scanning,
// start ranging), a scan's end (check, clear scanning, stop ranging) and switching off (clear
// the switch, clear scanning, stop ranging) each run whole under it. Without that, switching
// off between a scan's check and its start of ranging would leave the device ranging for good
// with the switch off, since every later timer and switch-off then sees the switch already off.
// So whenever the switch is off and no switch is under way, ranging is off.
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "client/zonaris_state.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {

namespace {

using namespace std::chrono_literals;

constexpr platform::Duration kScanDuration = 10s;
constexpr platform::Duration kScanPause = 30s;

// The platform defines proximity 0 to 3 only. Any other value is reported as "unknown": it is
// what the platform itself says when it cannot tell how near a beacon is, and it keeps every
// record within the four names the service knows.
const char* proximityName(int proximity) {
  switch (proximity) {
    case 1:
      return "immediate";
    case 2:
      return "near";
    case 3:
      return "far";
    default:
      return "unknown";
  }
}

nlohmann::json beaconRecord(const platform::Beacon& beacon) {
  return {{"uuid", beacon.uuid},
          {"major", beacon.major},
          {"minor", beacon.minor},
          {"proximity", proximityName(beacon.proximity)}};
}

// Same beacon: minor, major, then the UUID text.
bool sameBeacon(const platform::Beacon& a, const platform::Beacon& b) {
  return a.minor == b.minor && a.major == b.major && a.uuid == b.uuid;
}

std::vector<platform::Beacon>::iterator findSame(std::vector<platform::Beacon>& list,
                                                 const platform::Beacon& beacon) {
  for (auto it = list.begin(); it != list.end(); ++it) {
    if (sameBeacon(*it, beacon))
      return it;
  }
  return list.end();
}

// A new sighting replaces a stored one only when it carries a usable distance (> 0; zero,
// negative and NaN do not) that is strictly nearer, or when the stored one had no distance
// (< 0). A stored zero or NaN is not "less than 0", so it is kept.
bool replaces(double newAccuracy, double storedAccuracy) {
  return newAccuracy > 0.0 && (newAccuracy < storedAccuracy || storedAccuracy < 0.0);
}

std::string beaconLine(const platform::Beacon& beacon) {
  // Minor before major, as this line has always had it.
  return fmt::format("    Beacon - {} - {} - {:f}", beacon.minor, beacon.major, beacon.accuracy);
}

}  // namespace

void Zonaris::startUpdateBeacons() {
  if (!mBeaconRegion()) {
    devLog("Can't start updating beacons");
    return;
  }
  devLog("Start updating beacons");
  // exchange: two overlapping evaluation passes switching on together start one cycle.
  if (state_->mBeaconEnabled.exchange(true))
    return;
  startScanBeacons();
}

void Zonaris::stopUpdateBeacons() {
  auto region = mBeaconRegion();
  if (!region) {
    devLog("Can't stop updating beacons");
    return;
  }
  devLog("Stop updating beacons");
  std::lock_guard order(state_->monitor);
  if (!state_->mBeaconEnabled.exchange(false))
    return;
  state_->mBeaconScanning.store(false);
  state_->mLocationManager->stopRangingBeacons(*region);
  // mBeacons stays as it is: the last finished scan remains the published list.
}

void Zonaris::startScanBeacons() {
  {
    std::lock_guard order(state_->monitor);
    if (!state_->mBeaconEnabled.load())
      return;
    alwaysLog("Started scan");
    {
      std::lock_guard lock(state_->fieldsMutex);
      state_->mCurrentBeacons.clear();
    }
    state_->mBeaconScanning.store(true);
    if (auto region = mBeaconRegion())
      state_->mLocationManager->startRangingBeacons(*region);
  }
  mainAfterGuarded("stopScanBeacons", kScanDuration, [](Zonaris& self) { self.stopScanBeacons(); });
}

void Zonaris::stopScanBeacons() {
  {
    std::lock_guard order(state_->monitor);
    if (!state_->mBeaconEnabled.load())
      return;
    alwaysLog("Stopped scan");
    state_->mBeaconScanning.store(false);
    if (auto region = mBeaconRegion())
      state_->mLocationManager->stopRangingBeacons(*region);
  }

  // The scan's list is left in place; the next scan empties it when it starts.
  const auto scanned = mCurrentBeacons();
  devLog(fmt::format("Total beacons - {}", scanned.size()));
  auto records = nlohmann::json::array();
  for (const auto& beacon : scanned) {
    devLog(beaconLine(beacon));
    records.push_back(beaconRecord(beacon));
  }
  {
    // Published under the client's monitor so that a reader sees the old or the new list whole.
    std::lock_guard lock(state_->monitor);
    setMBeacons(std::make_shared<const nlohmann::json>(std::move(records)));
  }
  mainAfterGuarded("startScanBeacons", kScanPause, [](Zonaris& self) { self.startScanBeacons(); });
}

void Zonaris::didRangeBeacons(const std::vector<platform::Beacon>& beacons,
                              const platform::BeaconRegion& region) {
  (void)region;  // only one region is ever ranged
  if (!state_->mBeaconScanning.load())
    return;
  devLog(fmt::format("Found beacons - {}", beacons.size()));
  for (const auto& beacon : beacons) {
    devLog(beaconLine(beacon));
    enum class Outcome { Added, Replaced, Kept } outcome;
    {
      // Lookup and change in one lock scope, so that a scan starting on another thread cannot
      // slip between them. Same identity test as isBeaconExists.
      std::lock_guard lock(state_->fieldsMutex);
      auto old = findSame(state_->mCurrentBeacons, beacon);
      if (old == state_->mCurrentBeacons.end()) {
        state_->mCurrentBeacons.push_back(beacon);
        outcome = Outcome::Added;
      } else if (replaces(beacon.accuracy, old->accuracy)) {
        state_->mCurrentBeacons.erase(old);
        state_->mCurrentBeacons.push_back(beacon);
        outcome = Outcome::Replaced;
      } else {
        outcome = Outcome::Kept;
      }
    }
    switch (outcome) {
      case Outcome::Replaced:
        alwaysLog("    Replace old beacon");
        [[fallthrough]];
      case Outcome::Added:
        alwaysLog("    Beacon added");
        break;
      case Outcome::Kept:
        alwaysLog("    Accuracy is worst or same then old one");
        break;
    }
  }
}

std::optional<platform::Beacon> Zonaris::isBeaconExists(const platform::Beacon& beacon) {
  std::lock_guard lock(state_->fieldsMutex);
  auto found = findSame(state_->mCurrentBeacons, beacon);
  if (found == state_->mCurrentBeacons.end())
    return std::nullopt;
  return *found;
}

}  // namespace zonaris
