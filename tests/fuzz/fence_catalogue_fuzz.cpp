// The fence catalogue answer: JSON to fence records, then one evaluation pass over them, which
// reads every record's fields and measures every geometry.
#include "fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zonaris;
  fuzz::CannedClient f(200, fuzz::textOf(data, size));
  const platform::Location here{.latitude = 48.8566, .longitude = 2.3522};
  f.client->setUUID("5A4BCFCE-174E-4BAC-A814-092E77F6B7E5");
  f.client->setMInitLocation(std::make_shared<const platform::Location>(here));
  f.client->getFences();
  f.client->setMCurrentLocation(std::make_shared<const platform::Location>(here));
  f.client->handleFences();
  f.client->updateDwellTimes();
  return 0;
}
