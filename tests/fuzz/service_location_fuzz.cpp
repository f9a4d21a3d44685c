// The reference service's fence query: the input's lines are the decoded values of "install",
// "lat", "long" and "radius", in this order; a missing line leaves that parameter out.
#include <map>
#include <string>

#include "fuzz_support.hpp"
#include "service_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto text = zonaris::fuzz::textOf(data, size);
  std::map<std::string, std::string> query;
  for (const char* key : {"install", "lat", "long", "radius"}) {
    if (text.empty())
      break;
    const auto end = text.find('\n');
    query[key] = std::string(text.substr(0, end));
    text = end == text.npos ? std::string_view() : text.substr(end + 1);
  }
  auto service = zonaris::fuzz::makeService();
  service->handle("GET", "/install/location", query, {});
  return 0;
}
