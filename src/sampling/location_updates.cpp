// Arming one position sample and accepting the one fix it yields.
#include <fmt/format.h>

#include "client/zonaris_state.hpp"
#include "sampling/efficient_policy.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {

namespace {
constexpr double kIdleDistanceFilter = 99999.0;
}  // namespace

void Zonaris::updateLocation() {
  state_->mUpdatingLocation.store(true);
  state_->mLocationManager->setDesiredAccuracy(platform::Accuracy::BestForNavigation);
  state_->mLocationManager->setDistanceFilter(platform::kDistanceFilterNone);
}

void Zonaris::didUpdateLocations(const std::vector<platform::Location>& locations) {
  // Only the first delivery after arming is used; exchange() makes that hold even when two
  // deliveries race.
  const auto efficient = efficientPolicy();
  if (locations.empty() || !state_->mUpdatingLocation.exchange(false)) {
    // Under the efficient policy a delivery between samples is the location service saying
    // that a still device moved: it is not used, but the next sample is taken now.
    if (efficient && !locations.empty() && efficient->wake(locations.back()))
      updateLocation();
    return;
  }
  auto fix = std::make_shared<const platform::Location>(locations.back());
  state_->mLocationManager->setDesiredAccuracy(platform::Accuracy::ThreeKilometers);
  state_->mLocationManager->setDistanceFilter(efficient ? efficient->acceptFix(*fix)
                                                        : kIdleDistanceFilter);

  devLog("-----------------------------------------------------------------");
  devLog(fmt::format("New location: {:f}, {:f}, {:f}, {:f}", fix->latitude, fix->longitude,
                     fix->speed, fix->horizontalAccuracy));

  if (!mInitLocation()) {
    devLog("Set new init location");
    setMInitLocation(fix);
    notifyDelegate(ZonarisCallback::updatedInitLocation,
                   [&](ZonarisDelegate& d) { d.updatedInitLocation(*fix); });
    detachGuarded("getFences", [](Zonaris& self) { self.getFences(); });
    return;
  }

  LocationPtr reference = mCurrentLocation();
  if (!reference)
    reference = mInitLocation();
  const double distance = fix->distanceFrom(*reference);
  const double seconds =
      std::chrono::duration<double>(fix->timestamp - reference->timestamp).count();
  state_->mSpeed.store(static_cast<float>(seconds > 0 ? distance / seconds : distance / 1.0));
  devLog("Set new current location");
  setMCurrentLocation(fix);
  detachGuarded("handleFences", [](Zonaris& self) { self.handleFences(); });
}

void Zonaris::didChangeMotion(const platform::MotionTransition& transition) {
  const auto efficient = efficientPolicy();
  if (!efficient)
    return;
  devLog(fmt::format("Motion          = {}",
                     transition.motion == platform::Motion::Moving ? "moving" : "stationary"));
  if (efficient->motion(transition))
    updateLocation();
}

}  // namespace zonaris
