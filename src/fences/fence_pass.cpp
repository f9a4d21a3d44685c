// The fence walk of an evaluation pass, measuring every fence or only the cache's candidates.
#include "fences/fence_pass.hpp"

#include <algorithm>
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

// Every shape as the cache read it and developer mode off (as if it were switched on after
// this pass): only the unreadable fences, the candidates and the entered fences are visited,
// in list order. A fence that is none of these is outside, and not entered: it adds nothing.
PassResult measureSteady(const FenceList& fences, const FenceCache& cache,
                         const std::string& pointWkt, PassHost& host, const geos::Context& context,
                         const geos::DevicePoint& device, const FenceCache::FlagSummary& summary) {
  const auto measured = cache.measureCandidates(context, device, nullptr);
  const auto& unreadable = cache.unreadable();
  const auto& entered = summary.entered;
  constexpr std::uint32_t kDone = std::numeric_limits<std::uint32_t>::max();
  std::size_t u = 0;
  std::size_t m = 0;
  std::size_t e = 0;
  PassResult pass;
  while (true) {
    const std::uint32_t nextU = u < unreadable.size() ? unreadable[u] : kDone;
    const std::uint32_t nextM = m < measured.size() ? measured[m].index : kDone;
    const std::uint32_t nextE = e < entered.size() ? entered[e] : kDone;
    const std::uint32_t i = std::min({nextU, nextM, nextE});
    if (i == kDone)
      break;
    ZonarisFence& fence = *fences[i];
    if (nextU == i) {
      account(pass, fence, cache.kind(i), host.calculateDistance(std::string(), pointWkt), host,
              false);
    } else if (nextM == i) {
      account(pass, fence, cache.kind(i), measured[m].metres.value_or(kNoDistance), host, false);
    } else {
      pass.report = true;  // entered, and provably outside: an exit to confirm
    }
    u += nextU == i;
    m += nextM == i;
    e += nextE == i;
  }
  return pass;
}

std::optional<PassResult> measureWithCache(const FenceList& fences, const FenceCache& cache,
                                           const std::string& pointWkt, PassHost& host) {
  std::string why;
  auto [contextPtr, reader] = geos::openThreadReader(why);
  if (!reader)
    return std::nullopt;
  const geos::Context& context = *contextPtr;
  const auto device = geos::readDevicePoint(context, reader.get(), pointWkt, why);
  if (!device)
    return std::nullopt;  // every fence reports the point; the full walk does exactly that

  const auto summary = cache.flagSummary(fences);
  if (summary->shapesCurrent && !host.devMode())
    return measureSteady(fences, cache, pointWkt, host, context, *device, *summary);

  const auto measured = cache.measureCandidates(context, *device, &fences);
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
    if (auto pass = measureWithCache(fences, *cache, pointWkt, host))
      return *pass;
  }
  return measureEveryFence(fences, pointWkt, host);
}

}  // namespace zonaris::fences
