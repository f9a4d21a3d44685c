#include "sampling/efficient_policy.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <string>

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
// The centre of a stop follows its last fixes: a running mean over at most this many.
constexpr int kCentreFixes = 16;

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

double boundaryClearance(const FenceList& fenceList, double longitude, double latitude) {
  double nearest = std::numeric_limits<double>::max();
  const std::string point = fences::devicePointWkt(longitude, latitude);
  fences::geos::Context& context = fences::geos::threadContext();
  std::optional<fences::geos::DevicePoint> device;
  if (context.get() != nullptr) {
    const fences::geos::ReaderPtr reader(GEOSWKTReader_create_r(context.get()),
                                         fences::geos::Release{context.get()});
    std::string why;
    if (reader)
      device = fences::geos::readDevicePoint(context, reader.get(), point, why);
  }
  for (const auto& fence : fenceList) {
    const std::string wkt = fence->location().value_or("");
    const auto measured = fences::distanceToGeometry(wkt, point);
    if (!measured.metres)
      continue;
    const double raw = *measured.metres;
    double clearance = raw;
    switch (fences::kindOf(fence->type())) {
      case fences::FenceKind::Point:
        clearance = std::abs(raw - static_cast<double>(fence->radius()));
        break;
      case fences::FenceKind::Beacon:
        clearance = std::abs(raw - kBeaconReach);
        break;
      case fences::FenceKind::Other:
        if (raw <= 0.0) {
          // Inside: the way out is the boundary. Without one (a point or line geometry the
          // device sits on) the device is on the edge.
          const auto edge = device ? distanceToBoundary(wkt, context, *device) : std::nullopt;
          clearance = edge.value_or(0.0);
        }
        break;
    }
    if (clearance < nearest)
      nearest = clearance;
  }
  return nearest;
}

double EfficientPolicy::acceptFix(const platform::Location& fix) {
  ++accepted_;
  std::lock_guard lock(mutex_);
  if (started_) {
    platform::Location centre;
    centre.latitude = latitude_;
    centre.longitude = longitude_;
    const double tolerance = std::clamp(accuracyOf(fix) + accuracy_, kStillFloor, kStillCap);
    if (fix.distanceFrom(centre) <= tolerance) {
      // Averaging plain degrees is exact enough over a stop's few tens of metres.
      fixes_ = std::min(fixes_ + 1, kCentreFixes);
      latitude_ += (fix.latitude - latitude_) / fixes_;
      longitude_ += (fix.longitude - longitude_) / fixes_;
      accuracy_ += (accuracyOf(fix) - accuracy_) / fixes_;
      still_ = true;
      stillFor_ = std::max(0.0, std::chrono::duration<double>(fix.timestamp - since_).count());
      jumped_ = false;
      return kWakeFilter;
    }
  }
  started_ = true;
  still_ = false;
  jumped_ = false;
  latitude_ = fix.latitude;
  longitude_ = fix.longitude;
  accuracy_ = accuracyOf(fix);
  fixes_ = 1;
  since_ = fix.timestamp;
  stillFor_ = 0.0;
  return kIdleFilter;
}

bool EfficientPolicy::wake(const platform::Location& delivered) {
  std::lock_guard lock(mutex_);
  if (!still_)
    return false;
  platform::Location centre;
  centre.latitude = latitude_;
  centre.longitude = longitude_;
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

double EfficientPolicy::stillFor() const {
  std::lock_guard lock(mutex_);
  return still_ ? stillFor_ : 0.0;
}

std::int32_t EfficientPolicy::spacing(const PassFacts& facts) const {
  const std::int32_t byDistance =
      saturatedSeconds(facts.clearance / static_cast<double>(facts.averageSpeed) * 0.5);
  if (facts.fixAge > kFreshFor)
    return std::min(byDistance, kMinInterval);
  if (facts.ranging)
    return byDistance;
  const double still = stillFor();
  if (still >= kStillAfter)
    return std::max(byDistance, saturatedSeconds(still));
  return byDistance;
}

std::int32_t EfficientPolicy::dwellCap(std::int32_t beforeDwell) {
  if (beforeDwell >= std::numeric_limits<std::int32_t>::max() - 1)
    return std::numeric_limits<std::int32_t>::max();
  return std::max(beforeDwell, 0) + 1;
}

}  // namespace zonaris::sampling
