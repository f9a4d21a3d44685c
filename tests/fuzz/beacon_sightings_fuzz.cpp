// Beacon sightings: read, then asked for what is visible at a few instants.
#include "fuzz_support.hpp"
#include "zonaris/sim/beacon_sightings.hpp"
#include "zonaris/sim/input_error.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zonaris;
  try {
    const auto sightings = sim::BeaconSightings::parseCsv(fuzz::textOf(data, size), "fuzz.csv");
    for (double t : {0.0, 1.0, 60.0, 1e9}) {
      for (const auto& s : sightings.sightings())
        sightings.at(t, s.beacon.uuid);
      sightings.at(t, "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5");
    }
  } catch (const sim::InputError&) {
  }
  return 0;
}
