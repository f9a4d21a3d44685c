// The observation answer: events confirmed against a small catalogue, and messages delivered.
#include "fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zonaris;
  fuzz::CannedClient f(200, fuzz::textOf(data, size));
  FenceList fences;
  for (std::int64_t id = 1; id <= 3; ++id) {
    auto fence = std::make_shared<ZonarisFence>();
    fence->setId(id);
    fence->setName("fence " + std::to_string(id));
    fence->setDwell_events({std::make_shared<ZonarisDwell>(60)});
    fences.push_back(std::move(fence));
  }
  f.client->setMFences(std::make_shared<const FenceList>(std::move(fences)));
  f.client->setMResetFences(true);
  f.client->sendObservation();
  // The same answer once more inside a silence window that covers every hour.
  f.client->setSilenceWindowStart(1, 0);
  f.client->sendObservation();
  return 0;
}
