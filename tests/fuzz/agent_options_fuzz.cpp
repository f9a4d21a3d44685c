// zonaris-agent's command line: the input's NUL-separated parts are the arguments after the
// program name.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "zonaris-agent/agent_options.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto text = zonaris::fuzz::textOf(data, size);
  std::vector<std::string> args{"zonaris-agent"};
  std::size_t from = 0;
  while (from < text.size()) {
    const auto end = std::min(text.find('\0', from), text.size());
    args.emplace_back(text.substr(from, end - from));
    from = end + 1;
  }
  std::vector<const char*> argv;
  for (const auto& a : args)
    argv.push_back(a.c_str());
  zonaris::agent::parseOptions(static_cast<int>(argv.size()), argv.data());
  return 0;
}
