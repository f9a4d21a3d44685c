// The reference service's registration endpoint: the request body as sent.
#include "service_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto service = zonaris::fuzz::makeService();
  service->handle("POST", "/install", {}, zonaris::fuzz::textOf(data, size));
  return 0;
}
