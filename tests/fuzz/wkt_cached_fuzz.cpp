// WKT to distance, the cached fast path, checked against the straightforward one: the input's
// lines are fence geometries (typed polygon, point and beacon in turn); a catalogue of them is
// walked with its geometry cache and, separately, measured fence by fence, for a few device
// points in turn. The two walks must decide alike and ask their host alike.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fences/fence_pass.hpp"
#include "fences/geometry.hpp"
#include "fuzz_support.hpp"

namespace {

using namespace zonaris;

// Measures as the client does; records the unreadable texts and the distance lines.
class RecordingHost final : public fences::PassHost {
 public:
  double calculateDistance(const std::string& fenceWkt, const std::string& pointWkt) override {
    const auto measured = fences::distanceToGeometry(fenceWkt, pointWkt);
    // The fast path measures readable fences itself; only unreadable text comes here both ways,
    // and what the client reports of it is which of the two texts was unreadable. Two readable
    // texts that GEOS cannot measure (coordinates near the double range) give the largest
    // distance and no report, in the client as on the fast path, so they are not recorded.
    if (!measured.metres && (!measured.fenceReadable || !measured.pointReadable))
      asked += std::string("unreadable:") + (measured.fenceReadable ? "" : " fence") +
               (measured.pointReadable ? "" : " point") + "\n";
    return measured.metres.value_or(Zonaris::kNoDistance);
  }
  bool devMode() override { return true; }
  void distanceLine(const ZonarisFence& fence, double adjusted) override {
    asked += "l:" + std::to_string(fence.id()) + "=" + std::to_string(adjusted) + "\n";
  }
  bool resetFences() override { return false; }
  std::string asked;
};

FenceList catalogue(const std::vector<std::string>& texts) {
  static const char* const kTypes[] = {"polygon", "point", "beacon"};
  FenceList fences;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    auto fence = std::make_shared<ZonarisFence>();
    fence->setId(static_cast<std::int64_t>(i));
    fence->setType(std::string(kTypes[i % 3]));
    fence->setRadius(static_cast<float>(i * 25));
    fence->setLocation(texts[i]);
    fences.push_back(std::move(fence));
  }
  return fences;
}

bool same(double a, double b) {
  return a == b || (std::isnan(a) && std::isnan(b));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto texts = fuzz::linesOf(fuzz::textOf(data, size), 16);
  const FenceList measuredList = catalogue(texts);
  const auto cached = fences::withGeometryCache(catalogue(texts));
  for (const char* point : {"POINT (2.3522 48.8566)", "POINT (0 0)", "POINT (11.5761 48.1371)",
                            "POINT (2.3522 48.8566)"}) {
    RecordingHost full, fast;
    const auto a = fences::evaluateFences(measuredList, nullptr, point, full);
    const auto b = fences::evaluateFences(*cached, fences::cacheOf(cached), point, fast);
    if (a.report != b.report || a.anyInside != b.anyInside || a.nearBeacon != b.nearBeacon ||
        !same(a.minimum, b.minimum) || full.asked != fast.asked) {
      std::fprintf(stderr, "full: %d %d %d %.17g\n%s\nfast: %d %d %d %.17g\n%s\n", a.report,
                   a.anyInside, a.nearBeacon, a.minimum, full.asked.c_str(), b.report, b.anyInside,
                   b.nearBeacon, b.minimum, fast.asked.c_str());
      std::abort();  // the fast path decided or asked differently
    }
  }
  return 0;
}
