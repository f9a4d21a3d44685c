// The fence walk of an evaluation pass, measuring every fence or only the cache's candidates.
#include "fences/fence_pass.hpp"

#include <cmath>
#include <optional>

#include "fences/geos_support.hpp"

namespace zonaris::fences {

namespace {

constexpr double kNoDistance = std::numeric_limits<double>::max();
constexpr double kBeaconAdjustment = -70.0;
constexpr double kBeaconNearMetres = 150.0;

// One fence's share of the pass, from its raw distance `d`. `devMode` is asked once, after the
// distance, unless the caller already asked.
void account(PassResult& pass, ZonarisFence& fence, FenceKind kind, double d, PassHost& host,
             std::optional<bool> devMode = std::nullopt) {
  if (kind == FenceKind::Point) {
    d = d - static_cast<double>(fence.radius());
  } else if (kind == FenceKind::Beacon) {
    if (d < kBeaconNearMetres)
      pass.nearBeacon = true;
    d = d + kBeaconAdjustment;
  }
  if (devMode.value_or(host.devMode()))
    host.distanceLine(fence, d);

  if (d <= 0.0) {
    if (host.resetFences() && kind != FenceKind::Beacon)
      fence.setEntered(true);
    if (!fence.entered())
      pass.report = true;
    if (fence.dwelled())
      pass.report = true;
    pass.anyInside = true;
    d = std::fabs(d);
  } else if (fence.entered()) {
    pass.report = true;
  }
  if (d < pass.minimum)
    pass.minimum = d;
}

// A fence without geometry text is unreadable like any malformed one: the empty text yields
// the "geometry1" report and the largest distance.
double measureText(const ZonarisFence& fence, const std::string& pointWkt, PassHost& host) {
  return host.calculateDistance(fence.location().value_or(""), pointWkt);
}

PassResult measureEveryFence(const FenceList& fences, const std::string& pointWkt, PassHost& host) {
  PassResult pass;
  for (const auto& fence : fences) {
    const FenceKind kind = kindOf(fence->type());
    account(pass, *fence, kind, measureText(*fence, pointWkt, host), host);
  }
  return pass;
}

std::optional<PassResult> measureCandidates(const FenceList& fences, const FenceCache& cache,
                                            const std::string& pointWkt, PassHost& host) {
  geos::Context& context = geos::threadContext();
  GEOSContextHandle_t ctx = context.get();
  if (ctx == nullptr)
    return std::nullopt;
  context.clearMessages();
  const geos::ReaderPtr reader(GEOSWKTReader_create_r(ctx), geos::Release{ctx});
  if (!reader)
    return std::nullopt;
  std::string why;
  const auto device = geos::readDevicePoint(context, reader.get(), pointWkt, why);
  if (!device)
    return std::nullopt;  // every fence reports the point; the full walk does exactly that

  const auto measured = cache.measureCandidates(context, *device, fences);
  auto next = measured.begin();
  PassResult pass;
  for (std::size_t i = 0; i < fences.size(); ++i) {
    ZonarisFence& fence = *fences[i];
    const FenceCache::Measured* candidate = nullptr;
    if (next != measured.end() && next->index == i)
      candidate = &*next++;

    if (fence.shapeRevision() != cache.revision(i)) {
      // Changed since the cache read it: measured from its text, like the full walk does.
      account(pass, fence, kindOf(fence.type()), measureText(fence, pointWkt, host), host);
      continue;
    }
    const FenceKind kind = cache.kind(i);
    if (!cache.readable(i)) {
      // The same report as reading the text again would give, without reading it again.
      account(pass, fence, kind, host.calculateDistance(std::string(), pointWkt), host);
      continue;
    }
    if (candidate != nullptr) {
      account(pass, fence, kind, candidate->metres.value_or(kNoDistance), host);
      continue;
    }
    // Provably outside and no nearer than the nearest: only its flag counts, unless developer
    // mode wants its distance line.
    if (host.devMode()) {
      account(pass, fence, kind, cache.measure(context, i, *device).value_or(kNoDistance), host,
              true);
    } else if (fence.entered()) {
      pass.report = true;
    }
  }
  return pass;
}

}  // namespace

PassResult evaluateFences(const FenceList& fences, const FenceCache* cache,
                          const std::string& pointWkt, PassHost& host) {
  if (cache != nullptr && cache->size() == fences.size()) {
    if (auto pass = measureCandidates(fences, *cache, pointWkt, host))
      return *pass;
  }
  return measureEveryFence(fences, pointWkt, host);
}

}  // namespace zonaris::fences
