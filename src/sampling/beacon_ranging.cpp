// Placeholder until this subsystem lands: the operations exist with their real signatures.
#include "zonaris/zonaris.hpp"

namespace zonaris {

void Zonaris::startUpdateBeacons() {}
void Zonaris::stopUpdateBeacons() {}
void Zonaris::startScanBeacons() {}
void Zonaris::stopScanBeacons() {}
void Zonaris::didRangeBeacons(const std::vector<platform::Beacon>& beacons,
                              const platform::BeaconRegion& region) {
  (void)beacons;
  (void)region;
}
std::optional<platform::Beacon> Zonaris::isBeaconExists(const platform::Beacon& beacon) {
  (void)beacon;
  return std::nullopt;
}

}  // namespace zonaris
