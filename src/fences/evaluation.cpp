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

#include "client/zonaris_state.hpp"
#include "fences/fence_pass.hpp"
#include "fences/geometry.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {

namespace {

const char* orNull(const std::optional<std::string>& text) {
  return text ? text->c_str() : "(null)";
}

// The client as the fence walk sees it.
class ClientHost final : public fences::PassHost {
 public:
  explicit ClientHost(Zonaris& client) : client_(client) {}
  double calculateDistance(const std::string& fenceWkt, const std::string& pointWkt) override {
    return client_.calculateDistanceFrom(fenceWkt, pointWkt);
  }
  bool devMode() override { return client_.mDevMode(); }
  void distanceLine(const ZonarisFence& fence, double adjusted) override {
    // Checked again as the client's developer log does.
    if (client_.mDevMode())
      client_.platform().logger->log(
          fmt::format("Distance to {} zone = {:f}", orNull(fence.name()), adjusted));
  }
  bool resetFences() override { return client_.mResetFences(); }

 private:
  Zonaris& client_;
};

}  // namespace

void Zonaris::handleFences() {
  state_->mMinDist.store(kNoDistance);
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

  // The catalogue's geometry cache, when the download attached one, lets the walk measure
  // only the fences whose decision can matter; the outcome is the same either way.
  ClientHost host(*this);
  const fences::PassResult pass =
      fences::evaluateFences(*fences, fences::cacheOf(fences), point, host);
  const bool anyInside = pass.anyInside;
  const bool nearBeacon = pass.nearBeacon;

  state_->mMinDist.store(pass.minimum);
  const double nearest = state_->mMinDist.load();
  notifyDelegate(ZonarisCallback::updatedDistanceToNearestFence,
                 [&](ZonarisDelegate& d) { d.updatedDistanceToNearestFence(nearest, anyInside); });

  if (nearBeacon) {
    startUpdateBeacons();
  } else {
    stopUpdateBeacons();
  }
  notifyDelegate(ZonarisCallback::updatedBeaconScan,
                 [&](ZonarisDelegate& d) { d.updatedBeaconScan(nearBeacon); });

  if (pass.report || mResetFences())
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
