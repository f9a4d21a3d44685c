// The fence catalogue answer: the client's reading against the general one (a nlohmann::json
// tree), which must give the same records field by field; then the answer through the client,
// JSON to fence records and one evaluation pass over them, which reads every record's fields
// and measures every geometry.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz_support.hpp"
#include "service/fence_answer.hpp"

namespace {

using zonaris::ZonarisFence;

bool sameFence(const ZonarisFence& a, const ZonarisFence& b) {
  const auto windows = [](const ZonarisFence& f) {
    std::vector<std::pair<std::int32_t, bool>> out;
    for (const auto& w : *f.dwell_events())
      out.emplace_back(w->dwell_time(), w->active());
    return out;
  };
  const auto bits = [](float f) {
    std::uint32_t u = 0;
    std::memcpy(&u, &f, sizeof u);
    return u;
  };
  return a.id() == b.id() && a.name() == b.name() && a.type() == b.type() &&
         a.location() == b.location() && bits(a.radius()) == bits(b.radius()) &&
         a.uuid() == b.uuid() && a.major() == b.major() && a.minor() == b.minor() &&
         a.time_zone() == b.time_zone() && windows(a) == windows(b) && a.entered() == b.entered() &&
         a.dwelled() == b.dwelled() && a.dwell_time() == b.dwell_time();
}

void checkSameReading(std::string_view body) {
  const auto fast = zonaris::service::readFenceAnswer(body);
  const auto tree = zonaris::service::readFenceAnswerTree(body);
  bool same = fast.isList == tree.isList && fast.elements.size() == tree.elements.size();
  for (std::size_t i = 0; same && i < fast.elements.size(); ++i) {
    const auto& a = fast.elements[i];
    const auto& b = tree.elements[i];
    same = (a == nullptr) == (b == nullptr) && (a == nullptr || sameFence(*a, *b));
  }
  if (!same) {
    std::fprintf(stderr, "the two readings of the fence answer differ\n");
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zonaris;
  checkSameReading(fuzz::textOf(data, size));
  fuzz::CannedClient f(200, fuzz::textOf(data, size));
  const platform::Location here{.latitude = 48.8566, .longitude = 2.3522};
  f.client->setUUID("5A4BCFCE-174E-4BAC-A814-092E77F6B7E5");
  f.client->setMInitLocation(std::make_shared<const platform::Location>(here));
  f.client->getFences();
  f.client->setMCurrentLocation(std::make_shared<const platform::Location>(here));
  f.client->handleFences();
  f.client->updateDwellTimes();
  return 0;
}
