// zonaris-sim's command line: the input's NUL-separated parts are the arguments after the
// program name.
#include "fuzz_support.hpp"
#include "zonaris-sim/sim_options.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const zonaris::fuzz::CommandLine line(zonaris::fuzz::textOf(data, size), "zonaris-sim");
  zonaris::sim_tool::parseOptions(line.argc(), line.argv.data());
  return 0;
}
