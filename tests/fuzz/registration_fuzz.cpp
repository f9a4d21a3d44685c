// The registration answer: a 201 whose body carries the install id.
#include "fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zonaris;
  fuzz::CannedClient f(201, fuzz::textOf(data, size));
  f.client->setMInstallId(0);
  f.client->getInstallID();
  return 0;
}
