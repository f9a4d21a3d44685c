// The reference service's observation endpoint: the request body as sent, twice, so that the
// second observation meets the state the first one left (entries, dwell starts).
#include "service_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto service = zonaris::fuzz::makeService();
  service->handle("POST", "/install", {}, R"({"appKey":"fuzz"})");
  const auto body = zonaris::fuzz::textOf(data, size);
  service->handle("POST", "/observation", {}, body);
  service->handle("POST", "/observation", {}, body);
  return 0;
}
