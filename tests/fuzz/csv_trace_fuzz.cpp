// CSV traces: read, then replayed at a few instants.
#include "fuzz_support.hpp"
#include "zonaris/sim/input_error.hpp"
#include "zonaris/sim/trace.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zonaris;
  try {
    const auto trace = sim::Trace::parseCsv(fuzz::textOf(data, size), "fuzz.csv");
    const double length = trace.duration();
    for (double t : {-1.0, 0.0, 0.5, length / 2, length, length + 1})
      trace.at(t);
  } catch (const sim::InputError&) {
  }
  return 0;
}
