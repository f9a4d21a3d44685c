// The reference service's fence query: the input's lines are the decoded values of "install",
// "lat", "long" and "radius", in this order; a missing line leaves that parameter out.
#include <map>
#include <string>

#include "service_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto lines = zonaris::fuzz::linesOf(zonaris::fuzz::textOf(data, size), 4);
  std::map<std::string, std::string> query;
  const char* const keys[] = {"install", "lat", "long", "radius"};
  for (std::size_t i = 0; i < lines.size(); ++i)
    query[keys[i]] = lines[i];
  auto service = zonaris::fuzz::makeService();
  service->handle("GET", "/install/location", query, {});
  return 0;
}
