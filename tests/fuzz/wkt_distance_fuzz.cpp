// WKT to distance, the straightforward path: the input as a fence's geometry, and as the device
// point.
#include <string>

#include "fences/geometry.hpp"
#include "fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zonaris;
  const auto text = fuzz::textOf(data, size);
  fences::distanceToGeometry(text, "POINT (2.3522 48.8566)");
  fences::distanceToGeometry("POLYGON ((0 0, 1 0, 1 1, 0 1, 0 0))", text);
  return 0;
}
