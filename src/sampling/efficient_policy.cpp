#include "sampling/efficient_policy.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "fences/fence_cache.hpp"
#include "fences/geometry.hpp"
#include "fences/geos_support.hpp"

namespace zonaris::sampling {

namespace {

constexpr std::int32_t kMinInterval = 15;  // seconds, as the design's lower bound
// Two fixes of a still device lie within the sum of their accuracies, but never need to be
// closer than the floor, and an accuracy beyond the cap says nothing about stillness.
constexpr double kStillFloor = 20.0;  // metres
constexpr double kStillCap = 100.0;   // metres
constexpr double kBeaconReach = 70.0;
constexpr double kMovingSpeed = 1.0;  // m/s
// The centre of a stop follows its last fixes: a running mean over at most this many.
constexpr int kCentreFixes = 16;
// A fix this far from a stop that has lasted, followed by one back at it, is an outlier.
constexpr double kOutlierJump = 150.0;  // metres
// Within this many times the root mean square distance of a stop's fixes from its centre, a
// fix is the stop's own scatter.
constexpr double kNoiseSpread = 2.5;
// The least error of a stop's centre, metres.
constexpr double kCentreError = 5.0;

double accuracyOf(const platform::Location& fix) {
  return std::isfinite(fix.horizontalAccuracy) && fix.horizontalAccuracy > 0.0
             ? fix.horizontalAccuracy
             : 0.0;
}

// The distance from the device to the boundary of a geometry that holds it.
std::optional<double> distanceToBoundary(const std::string& wkt,
                                         const fences::geos::Context& context,
                                         const fences::geos::DevicePoint& device) {
  GEOSContextHandle_t ctx = context.get();
  const fences::geos::ReaderPtr reader(GEOSWKTReader_create_r(ctx), fences::geos::Release{ctx});
  if (!reader)
    return std::nullopt;
  std::string why;
  const auto geometry = fences::geos::readGeometry(context, reader.get(), wkt, why);
  if (!geometry)
    return std::nullopt;
  const fences::geos::GeomPtr boundary(GEOSBoundary_r(ctx, geometry.get()),
                                       fences::geos::Release{ctx});
  if (!boundary || GEOSisEmpty_r(ctx, boundary.get()) != 0)
    return std::nullopt;
  return fences::geos::nearestDistance(context, boundary.get(), device);
}

}  // namespace

std::int32_t saturatedSeconds(double x) {
  if (std::isnan(x))
    return 0;
  x = std::floor(x);
  if (x >= static_cast<double>(std::numeric_limits<std::int32_t>::max()))
    return std::numeric_limits<std::int32_t>::max();
  if (x <= static_cast<double>(std::numeric_limits<std::int32_t>::min()))
    return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(x);
}

namespace {

// The clearance of one fence from its raw distance; `boundary` measures the way out of a
// geometry that holds the device.
template <class Boundary>
double clearanceOf(fences::FenceKind kind, float radius, double raw, Boundary&& boundary) {
  switch (kind) {
    case fences::FenceKind::Point:
      return std::abs(raw - static_cast<double>(radius));
    case fences::FenceKind::Beacon:
      return std::abs(raw - kBeaconReach);
    case fences::FenceKind::Other:
      // Inside: the way out is the boundary. Without one (a point or line geometry the device
      // sits on) the device is on the edge.
      return raw <= 0.0 ? boundary().value_or(0.0) : raw;
  }
  return raw;
}

struct DeviceReader {
  fences::geos::Context& context = fences::geos::threadContext();
  std::optional<fences::geos::DevicePoint> device;
  explicit DeviceReader(const std::string& point) {
    if (context.get() == nullptr)
      return;
    const fences::geos::ReaderPtr reader(GEOSWKTReader_create_r(context.get()),
                                         fences::geos::Release{context.get()});
    std::string why;
    if (reader)
      device = fences::geos::readDevicePoint(context, reader.get(), point, why);
  }
};

// One fence measured from its text.
std::optional<double> clearanceFromText(const ZonarisFence& fence, const std::string& point,
                                        const DeviceReader& reader) {
  const std::string wkt = fence.location().value_or("");
  const auto measured = fences::distanceToGeometry(wkt, point);
  if (!measured.metres)
    return std::nullopt;
  return clearanceOf(
      fences::kindOf(fence.type()), static_cast<float>(fence.radius()), *measured.metres, [&] {
        return reader.device ? distanceToBoundary(wkt, reader.context, *reader.device)
                             : std::nullopt;
      });
}

}  // namespace

double boundaryClearance(const FenceList& fenceList, double longitude, double latitude) {
  double nearest = std::numeric_limits<double>::max();
  const std::string point = fences::devicePointWkt(longitude, latitude);
  const DeviceReader reader(point);
  for (const auto& fence : fenceList) {
    const auto clearance = clearanceFromText(*fence, point, reader);
    if (clearance && *clearance < nearest)
      nearest = *clearance;
  }
  return nearest;
}

double boundaryClearance(const std::shared_ptr<const FenceList>& snapshot, double longitude,
                         double latitude) {
  if (!snapshot)
    return std::numeric_limits<double>::max();
  const fences::FenceCache* cache = fences::cacheOf(snapshot);
  const std::string point = fences::devicePointWkt(longitude, latitude);
  const DeviceReader reader(point);
  if (cache == nullptr || !reader.device || cache->size() != snapshot->size())
    return boundaryClearance(*snapshot, longitude, latitude);
  const FenceList& list = *snapshot;
  const fences::geos::DevicePoint& device = *reader.device;
  double nearest = std::numeric_limits<double>::max();
  auto take = [&](std::optional<double> clearance) {
    if (clearance && *clearance < nearest)
      nearest = *clearance;
  };
  auto fromCache = [&](std::size_t i, std::optional<double> raw) {
    if (!raw)
      return;
    take(clearanceOf(cache->kind(i), static_cast<float>(list[i]->radius()), *raw,
                     [&] { return cache->measureBoundary(reader.context, i, device); }));
  };
  // The candidates of a pass hold every fence nearer than the nearest one outside; only a
  // polygon that holds the device can have its way out farther than a fence left out.
  bool holds = false;
  for (const auto& measured : cache->measureCandidates(reader.context, device, &list)) {
    if (cache->kind(measured.index) == fences::FenceKind::Other && measured.metres &&
        *measured.metres <= 0.0)
      holds = true;
    fromCache(measured.index, measured.metres);
  }
  for (std::size_t i = 0; i < list.size(); ++i) {
    // A fence whose shape changed since the cache read it is measured from its text.
    if (list[i]->shapeRevision() != cache->revision(i))
      take(clearanceFromText(*list[i], point, reader));
    else if (holds && cache->readable(i))
      fromCache(i, cache->measure(reader.context, i, device));
  }
  return nearest;
}

double EfficientPolicy::acceptFix(const platform::Location& fix) {
  ++accepted_;
  std::lock_guard lock(mutex_);
  // A new pass: one of the quick passes that follow an unconfirmed observation, or the end of
  // a row of them.
  if (doubt_ > 0) {
    --doubt_;
    ++quick_;
  } else {
    quick_ = 0;
  }
  const bool first = fixesSinceReport_++ == 0;
  lastFixAt_ = fix.timestamp;
  if (started_) {
    // A fix far from the stop followed by one back at it was an outlier: the stop goes on.
    const bool back = jumpedFrom_ && joins(*jumpedFrom_, fix);
    if (back) {
      stop_ = *jumpedFrom_;
      doubt_ = 0;  // the outlier's observation asks for no second look
    }
    jumpedFrom_.reset();
    if (back || joins(stop_, fix)) {
      Stop& s = stop_;
      // Averaging plain degrees is exact enough over a stop's few tens of metres.
      s.fixes = std::min(s.fixes + 1, kCentreFixes);
      s.latitude += (fix.latitude - s.latitude) / s.fixes;
      s.longitude += (fix.longitude - s.longitude) / s.fixes;
      s.accuracy += (accuracyOf(fix) - s.accuracy) / s.fixes;
      s.spread += (lastAway_ * lastAway_ - s.spread) / s.fixes;
      still_ = true;
      stillFor_ = std::max(0.0, std::chrono::duration<double>(fix.timestamp - s.since).count());
      jumped_ = false;
      movedSinceReport_ = false;
      return kWakeFilter;
    }
    // The first fix after a stationary report shows where the device stopped; a later one
    // away from the one before shows that it moves, until two fixes agree again.
    movedSinceReport_ = !first;
    if (still_ && lastAway_ > kOutlierJump)
      jumpedFrom_ = stop_;
  }
  started_ = true;
  still_ = false;
  jumped_ = false;
  stop_ = Stop{fix.latitude, fix.longitude, accuracyOf(fix), 0.0, 1, fix.timestamp};
  stillFor_ = 0.0;
  return kIdleFilter;
}

bool EfficientPolicy::joins(const Stop& stop, const platform::Location& fix) {
  platform::Location centre;
  centre.latitude = stop.latitude;
  centre.longitude = stop.longitude;
  const double tolerance = std::clamp(accuracyOf(fix) + stop.accuracy, kStillFloor, kStillCap);
  // A fix that measured a speed of its own (a receiver's Doppler speed) says the device moves
  // even where its noise keeps it near the stop.
  const bool moving = std::isfinite(fix.speed) && fix.speed > kMovingSpeed;
  lastAway_ = fix.distanceFrom(centre);
  return !moving && lastAway_ <= tolerance;
}

bool EfficientPolicy::wake(const platform::Location& delivered) {
  std::lock_guard lock(mutex_);
  // The motion sensor says better, and for a few milliwatts, whether the device moves.
  if (!still_ || motion_)
    return false;
  platform::Location centre;
  centre.latitude = stop_.latitude;
  centre.longitude = stop_.longitude;
  const double away = delivered.distanceFrom(centre);
  if (!(away > kWakeDistance + accuracyOf(delivered))) {
    jumped_ = false;
    return false;
  }
  if (away > kWakeJump && !jumped_) {
    jumped_ = true;
    return false;
  }
  jumped_ = false;
  return true;
}

bool EfficientPolicy::motion(const platform::MotionTransition& transition) {
  std::lock_guard lock(mutex_);
  const bool started =
      transition.motion == platform::Motion::Moving && motion_ != platform::Motion::Moving;
  if (motion_ != transition.motion) {
    fixesSinceReport_ = 0;
    movedSinceReport_ = false;
  }
  motion_ = transition.motion;
  motionAt_ = transition.timestamp;
  return started;
}

void EfficientPolicy::observed(bool confirmed) {
  std::lock_guard lock(mutex_);
  if (confirmed) {
    doubt_ = 0;
    doubtfulRests_ = 0;
  }
  unconfirmed_ = !confirmed;
  pending_ = !confirmed;
}

std::optional<std::pair<double, double>> EfficientPolicy::centre() const {
  std::lock_guard lock(mutex_);
  if (!still_)
    return std::nullopt;
  return std::make_pair(stop_.longitude, stop_.latitude);
}

bool EfficientPolicy::jumped() const {
  std::lock_guard lock(mutex_);
  return jumpedFrom_.has_value();
}

double EfficientPolicy::stillFor() const {
  std::lock_guard lock(mutex_);
  return still_ ? stillFor_ : 0.0;
}

std::int32_t EfficientPolicy::shortest() const {
  std::lock_guard lock(mutex_);
  return doubt_ > 0 ? kRetryAfter : kMinInterval;
}

std::int32_t EfficientPolicy::spacing(const PassFacts& facts) {
  const std::int32_t byDistance =
      saturatedSeconds(facts.clearance / static_cast<double>(facts.averageSpeed) * 0.5);
  std::lock_guard lock(mutex_);
  // The motion sensor vouches that a device at rest has not moved since even an old fix.
  // The rest starts with a fix taken after the report: one from before it may show the device
  // short of where it stopped.
  const bool resting =
      motion_ == platform::Motion::Stationary && !movedSinceReport_ && lastFixAt_ >= motionAt_;
  if (!(facts.clearance < facts.accuracy)) {
    pending_ = false;
    doubtfulRests_ = 0;
  }
  if (std::exchange(unconfirmed_, false)) {
    // Without motion, a fix whose accuracy disc holds the boundary, within the scatter of a stop
    // that has lasted a while (and within 20 m), is the noise of a fix near a wall; a real
    // crossing comes with movement, a young stop or a clear fix. (With motion the quick passes
    // are what confirms an arrival.)
    const bool noise = !motion_ && still_ && stillFor_ >= kSettledAfter &&
                       lastAway_ <= std::max(kStillFloor, kNoiseSpread * std::sqrt(stop_.spread)) &&
                       facts.clearance < facts.accuracy;
    if (quick_ < kQuickPasses && !noise)
      doubt_ = kRetries + 1;  // this pass's own interval, then kRetries more
  }
  if (facts.fixAge > kFreshFor && !resting)
    return std::min(byDistance, kMinInterval);
  if (doubt_ > 0)
    return std::min(byDistance, kRetryAfter);
  if (facts.ranging)
    return byDistance;
  if (motion_) {
    if (resting) {
      // Quick passes that ended on the old side, with a fix whose disc holds the boundary,
      // leave the crossing undecided: the device may stand just across the wall.
      if (pending_ && facts.clearance < facts.accuracy && doubtfulRests_ < kDoubtfulRests) {
        ++doubtfulRests_;
        return kDoubtfulRest;
      }
      // So may a young stop whose fixes fell just outside a wall and sent nothing.
      if (still_ && stillFor_ < kSettledAfter &&
          facts.clearance < std::min(facts.accuracy, kStillFloor))
        return kDoubtfulRest;
      return kRestInterval;
    }
    if (*motion_ == platform::Motion::Stationary && !movedSinceReport_)
      return std::min(byDistance, kMinInterval);
    return byDistance;
  }
  const double still = still_ ? stillFor_ : 0.0;
  // A young stop whose fix lies just outside a wall may be a visit that began across it, with
  // its fixes falling on the old side: it is sampled by distance, as a moving device is.
  if (still < kStillAfter ||
      (still < kSettledAfter && facts.clearance < std::min(facts.accuracy, kStillFloor)))
    return byDistance;
  // A walker leaving the accuracy disc now reaches the nearest boundary no sooner than this;
  // a visit there lasts a while, so the sample may come up to `kVisitSlack` later.
  // When the fix lies within the stop's own scatter, the device stands where the stop's fixes
  // average to, known far better than one fix's accuracy (a cached fix claims 65 m).
  double reach = facts.clearance - facts.accuracy;
  if (std::isfinite(facts.centreClearance) && still_ &&
      lastAway_ <= kNoiseSpread * std::sqrt(stop_.spread))
    reach = std::max(reach, facts.centreClearance -
                                std::max(kCentreError, std::sqrt(stop_.spread / stop_.fixes)));
  const std::int32_t walker = saturatedSeconds(std::max(0.0, reach) / kWalkerSpeed + kVisitSlack);
  return std::min(std::max(byDistance, saturatedSeconds(still)), walker);
}

std::int32_t EfficientPolicy::dwellCap(std::int32_t beforeDwell) {
  if (beforeDwell >= std::numeric_limits<std::int32_t>::max() - 1)
    return std::numeric_limits<std::int32_t>::max();
  return std::max(beforeDwell, 0) + 1;
}

}  // namespace zonaris::sampling
