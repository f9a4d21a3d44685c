// One evaluation pass over the fence catalogue, and the application of events the service
// confirmed.
//
// Threads: passes run on a thread of their own per accepted fix and may overlap; confirmations
// run on the thread that handles an observation's answer; the dwell tick runs on a worker. None
// of them takes a lock for the walk: each walks the catalogue snapshot it read (a download
// publishes a new list instead of changing this one), and every fence flag is an atomic. Two
// overlapping passes can therefore interleave their flag writes exactly as the unlocked design
// allows, but never read a torn value or a list that changes under them.
#include <cmath>

#include <fmt/format.h>

#include "fences/geometry.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {

namespace {

constexpr double kBeaconAdjustment = -70.0;
constexpr double kBeaconNearMetres = 150.0;

const char* orNull(const std::optional<std::string>& text) {
  return text ? text->c_str() : "(null)";
}

bool isType(const std::optional<std::string>& type, const char* wanted) {
  return type && *type == wanted;
}

}  // namespace

void Zonaris::handleFences() {
  mMinDist_.store(kNoDistance);
  devLog("Handle fences");

  const FencesPtr fences = mFences();
  if (!fences || fences->empty()) {
    stopUpdateBeacons();
    notifyDelegate(ZonarisCallback::updatedBeaconScan,
                   [](ZonarisDelegate& d) { d.updatedBeaconScan(false); });
    nlohmann::json variable =
        fences ? nlohmann::json{{"name", "fences.length"}, {"value", fences->size()}}
               : nlohmann::json{{"name", "fences"}, {"value", "nil"}};
    sendException("Handle fences error", callStackSymbols(), nlohmann::json::array({variable}));
    calculateIntervalAndAccuracy();
    return;
  }

  // Without a current location there is no device point; the empty text reads as unreadable,
  // so every fence counts as infinitely far and the distance error names "geometry2".
  const LocationPtr here = mCurrentLocation();
  const std::string point = here ? fences::devicePointWkt(here->longitude, here->latitude) : "";

  bool report = false;
  bool anyInside = false;
  bool nearBeacon = false;
  double minimum = kNoDistance;
  for (const auto& fence : *fences) {
    // A fence without geometry text is unreadable like any malformed one: the empty text
    // yields the "geometry1" report and the largest distance.
    const std::optional<std::string> type = fence->type();
    double d = calculateDistanceFrom(fence->location().value_or(""), point);
    if (isType(type, "point")) {
      d = d - static_cast<double>(fence->radius());
    } else if (isType(type, "beacon")) {
      if (d < kBeaconNearMetres)
        nearBeacon = true;
      d = d + kBeaconAdjustment;
    }
    if (mDevMode())
      devLog(fmt::format("Distance to {} zone = {:f}", orNull(fence->name()), d));

    if (d <= 0.0) {
      if (mResetFences() && !isType(type, "beacon"))
        fence->setEntered(true);
      if (!fence->entered())
        report = true;
      if (fence->dwelled())
        report = true;
      anyInside = true;
      d = std::fabs(d);
    } else if (fence->entered()) {
      report = true;
    }
    if (d < minimum)
      minimum = d;
  }

  mMinDist_.store(minimum);
  const double nearest = mMinDist_.load();
  notifyDelegate(ZonarisCallback::updatedDistanceToNearestFence,
                 [&](ZonarisDelegate& d) { d.updatedDistanceToNearestFence(nearest, anyInside); });

  if (nearBeacon) {
    startUpdateBeacons();
  } else {
    stopUpdateBeacons();
  }
  notifyDelegate(ZonarisCallback::updatedBeaconScan,
                 [&](ZonarisDelegate& d) { d.updatedBeaconScan(nearBeacon); });

  if (report || mResetFences())
    sendObservation();
  calculateIntervalAndAccuracy();
}

void Zonaris::confirmEventFor(std::int64_t locationId, const std::string& type) {
  const FencesPtr fences = mFences();
  if (!fences)
    return;
  for (const auto& fence : *fences) {
    if (fence->id() != locationId)
      continue;
    // Only the first fence with this id counts, whatever the type turns out to be.
    if (type == "entry") {
      devLog(fmt::format("Confirmed entry for {}", locationId));
      fence->setEntered(true);
      notifyDelegate(ZonarisCallback::eventEnterCallback,
                     [&](ZonarisDelegate& d) { d.eventEnterCallback(fence->name()); });
    } else if (type == "exit") {
      devLog(fmt::format("Confirmed exit for {}", locationId));
      fence->setEntered(false);
      notifyDelegate(ZonarisCallback::eventExitCallback,
                     [&](ZonarisDelegate& d) { d.eventExitCallback(fence->name()); });
    } else if (type == "dwell") {
      devLog(fmt::format("Confirmed dwell for {}", locationId));
      fence->setDwelled(false);
      notifyDelegate(ZonarisCallback::eventDwellCallback,
                     [&](ZonarisDelegate& d) { d.eventDwellCallback(fence->name()); });
    }
    return;
  }
}

}  // namespace zonaris
