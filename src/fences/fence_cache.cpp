// The geometry cache of a catalogue snapshot and its envelope index.
//
// Why skipping is exact: a pass keeps, per fence, the adjusted distance (or the depth when
// inside) and takes the minimum. For a fence whose envelope is at least L metres from the
// device, every point of the fence is too, so its raw distance d >= L; its adjusted distance is
// then at least L - reach, where reach is what the type takes off (the radius of a point fence,
// 70 m for a beacon, which also needs d >= 150 m, hence a reach of 150 m). A fence whose bound
// L - reach is above 0 is outside, and when the bound is also no less than the smallest
// distance already measured it cannot lower the minimum either. Subtraction and comparison
// keep their order under rounding, so the same holds for the computed values. Such a fence
// only contributes its `entered` flag, which the pass still reads.
#include "fences/fence_cache.hpp"
#include "fences/fence_counters.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <functional>
#include <limits>
#include <queue>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "fences/geometry.hpp"

namespace zonaris::fences {

namespace {

constexpr double kNoDistance = std::numeric_limits<double>::max();
constexpr double kDegreesToRadians = 0.017453292519943295;
constexpr double kSphereRadius = 6378137.0;
constexpr double kBeaconAdjustment = -70.0;
constexpr double kBeaconReach = 150.0;
// Longitudes this far out are legal WKT but not worth bounding; such fences are measured.
constexpr double kMaxIndexedLongitude = 1.0e6;
constexpr std::size_t kFanout = 16;

bool indexableLatitude(double lat) {
  return lat >= -90.0 && lat <= 90.0;
}
bool indexableLongitude(double lon) {
  return lon >= -kMaxIndexedLongitude && lon <= kMaxIndexedLongitude;
}

// Orders boxes for packing, sort-tile-recursive: vertical slices by centre X, each slice by
// centre Y, so that consecutive runs of `kFanout` make compact parents.
template <typename T>
void strOrder(std::vector<T>& items) {
  auto cx = [](const T& t) { return t.box.xmin + (t.box.xmax - t.box.xmin) * 0.5; };
  auto cy = [](const T& t) { return t.box.ymin + (t.box.ymax - t.box.ymin) * 0.5; };
  std::sort(items.begin(), items.end(), [&](const T& a, const T& b) { return cx(a) < cx(b); });
  const std::size_t parents = (items.size() + kFanout - 1) / kFanout;
  const auto slices = static_cast<std::size_t>(std::ceil(std::sqrt(static_cast<double>(parents))));
  const std::size_t perSlice = std::max<std::size_t>(1, slices) * kFanout;
  for (std::size_t at = 0; at < items.size(); at += perSlice) {
    auto end = items.begin() + static_cast<std::ptrdiff_t>(std::min(items.size(), at + perSlice));
    std::sort(items.begin() + static_cast<std::ptrdiff_t>(at), end,
              [&](const T& a, const T& b) { return cy(a) < cy(b); });
  }
}

// The texts services write for fences, "POINT (x y)" and "POLYGON ((x y, x y, ...), (...))",
// exactly so spaced and with plain decimal numbers, built straight into GEOS geometry: GEOS's
// WKT reader spends nearly all its time tokenising, and a dense catalogue brings hundreds of
// new polygons with each download. Both read a number correctly rounded and build the same
// rings and polygon from the same coordinates, so the geometry is the same. Any other text, and
// any the construction refuses (an unclosed ring, one of fewer than four points), is left to
// the reader, which then decides as it always did: nothing here makes a text readable.
class PlainWkt {
 public:
  PlainWkt(GEOSContextHandle_t ctx, std::string_view text)
      : ctx_(ctx), at_(text.data()), end_(text.data() + text.size()) {}

  geos::GeomPtr read() {
    geos::GeomPtr none(nullptr, geos::Release{ctx_});
    if (literal("POINT (")) {
      double x = 0.0;
      double y = 0.0;
      if (!coordinate(x, y) || !literal(")") || at_ != end_)
        return none;
      return geos::GeomPtr(GEOSGeom_createPointFromXY_r(ctx_, x, y), geos::Release{ctx_});
    }
    if (!literal("POLYGON ("))
      return none;
    std::vector<std::vector<double>> rings;
    do {
      rings.emplace_back();
      if (!ring(rings.back()))
        return none;
    } while (literal(", "));
    if (!literal(")") || at_ != end_)
      return none;
    std::vector<geos::GeomPtr> built;
    for (const auto& xy : rings) {
      GEOSCoordSequence* sequence =
          GEOSCoordSeq_copyFromBuffer_r(ctx_, xy.data(), xy.size() / 2, 0, 0);
      if (sequence == nullptr)
        return none;
      built.emplace_back(GEOSGeom_createLinearRing_r(ctx_, sequence), geos::Release{ctx_});
      if (!built.back())
        return none;
    }
    std::vector<GEOSGeometry*> holes;
    for (std::size_t i = 1; i < built.size(); ++i)
      holes.push_back(built[i].get());
    geos::GeomPtr polygon(GEOSGeom_createPolygon_r(ctx_, built[0].get(), holes.data(),
                                                   static_cast<unsigned>(holes.size())),
                          geos::Release{ctx_});
    if (polygon) {
      for (auto& ring : built)
        (void)ring.release();  // the polygon owns them now
    }
    return polygon;
  }

 private:
  static bool isDigit(char c) { return c >= '0' && c <= '9'; }

  bool literal(std::string_view word) {
    if (static_cast<std::size_t>(end_ - at_) < word.size() ||
        std::string_view(at_, word.size()) != word)
      return false;
    at_ += word.size();
    return true;
  }

  // -?d+(.d+)?([eE][+-]?d+)?, finite. Up to 15 significant digits and a power of ten up to 22
  // either way, the number is one exact integer scaled by one exact power of ten, so a single
  // multiplication or division rounds it correctly (Clinger's fast path); beyond that
  // from_chars reads it. Either way the result is the correctly rounded value, as strtod's.
  bool number(double& out) {
    const char* from = at_;
    const bool negative = at_ != end_ && *at_ == '-';
    if (negative)
      ++at_;
    std::uint64_t mantissa = 0;
    int significant = 0;  // digits from the first nonzero one
    int scale = 0;
    // Takes a run of digits into the mantissa, each moving the scale by `step`; false when
    // there are more than the mantissa holds.
    auto digits = [&](int step) {
      for (; at_ != end_ && isDigit(*at_); ++at_, scale += step) {
        mantissa = mantissa * 10 + static_cast<std::uint64_t>(*at_ - '0');
        significant += (mantissa != 0);
        if (significant > 19)
          return false;
      }
      return true;
    };
    const char* start = at_;
    if (!digits(0))
      return slow(from, out);
    if (at_ == start)
      return false;
    if (at_ != end_ && *at_ == '.') {
      start = ++at_;
      if (!digits(-1))
        return slow(from, out);
      if (at_ == start)
        return false;
    }
    if (at_ != end_ && (*at_ == 'e' || *at_ == 'E'))
      return slow(from, out);
    static constexpr double kPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                         1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                         1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    if (significant > 15 || scale < -22)
      return slow(from, out);
    const auto m = static_cast<double>(mantissa);
    out = scale < 0 ? m / kPowers[-scale] : m;
    if (negative)
      out = -out;
    return true;
  }

  // The rest of the number from `from` by from_chars, which must end where the grammar does.
  bool slow(const char* from, double& out) {
    at_ = from;
    if (at_ != end_ && *at_ == '-')
      ++at_;
    auto digits = [this] {
      const char* start = at_;
      while (at_ != end_ && isDigit(*at_))
        ++at_;
      return at_ != start;
    };
    if (!digits())
      return false;
    if (at_ != end_ && *at_ == '.') {
      ++at_;
      if (!digits())
        return false;
    }
    if (at_ != end_ && (*at_ == 'e' || *at_ == 'E')) {
      ++at_;
      if (at_ != end_ && (*at_ == '+' || *at_ == '-'))
        ++at_;
      if (!digits())
        return false;
    }
    const auto result = std::from_chars(from, at_, out);
    return result.ec == std::errc() && result.ptr == at_ && std::isfinite(out);
  }

  bool coordinate(double& x, double& y) { return number(x) && literal(" ") && number(y); }

  bool ring(std::vector<double>& xy) {
    if (!literal("("))
      return false;
    xy.reserve(130);
    do {
      double x = 0.0;
      double y = 0.0;
      if (!coordinate(x, y))
        return false;
      xy.push_back(x);
      xy.push_back(y);
    } while (literal(", "));
    return literal(")");
  }

  GEOSContextHandle_t ctx_;
  const char* at_;
  const char* end_;
};

}  // namespace

FenceKind kindOf(const std::optional<std::string>& type) {
  if (type && *type == "point")
    return FenceKind::Point;
  if (type && *type == "beacon")
    return FenceKind::Beacon;
  return FenceKind::Other;
}

double contribution(FenceKind kind, float radius, double metres) {
  double d = metres;
  if (kind == FenceKind::Point)
    d = d - static_cast<double>(radius);
  else if (kind == FenceKind::Beacon)
    d = d + kBeaconAdjustment;
  return d <= 0.0 ? std::fabs(d) : d;
}

namespace {

double smallerCosine(double ymin, double ymax) {
  return std::max(0.0,
                  std::min(std::cos(ymin * kDegreesToRadians), std::cos(ymax * kDegreesToRadians)));
}

// The bound below, with the device's cosine and the box's smaller cosine worked out once.
double boundMetres(double lon, double lat, double cosLat, double xmin, double xmax, double ymin,
                   double ymax, double cosBox) {
  // The haversine's a = sin²(Δlat/2) + cos(lat1)·cos(lat2)·sin²(Δlon/2) is a sum of two terms
  // that are each no smaller than with the smallest latitude gap, the smallest cosine of the
  // box's latitudes (cosine is concave on -90..90, so an end) and the smallest longitude gap
  // around the circle (the formula is periodic in Δlon).
  const double latGap = lat < ymin ? ymin - lat : (lat > ymax ? lat - ymax : 0.0);
  double lonGap = 0.0;
  const double width = xmax - xmin;
  if (width < 360.0) {
    double t = std::fmod(lon - xmin, 360.0);
    if (t < 0.0)
      t += 360.0;
    if (t > width)
      lonGap = std::min(t - width, 360.0 - t);
  }
  const double s1 = std::sin(latGap * kDegreesToRadians * 0.5);
  const double s2 = std::sin(lonGap * kDegreesToRadians * 0.5);
  double a = (s1 * s1 + cosLat * cosBox * s2 * s2) * (1.0 - 1e-9);
  a = std::clamp(a, 0.0, 1.0);
  const double metres = 2.0 * std::asin(std::sqrt(a)) * kSphereRadius;
  // The pass's own haversine loses up to centimetres near antipodes, and GEOS's nearest point
  // may sit an ulp outside the envelope: a metre and a part in a billion cover both.
  return metres * (1.0 - 1e-9) - 1.0;
}

// The latitude gap alone: the arc between two points is never shorter than the difference of
// their latitudes. Cheaper, and often enough to set a box aside.
double latitudeBoundMetres(double lat, double ymin, double ymax) {
  const double latGap = lat < ymin ? ymin - lat : (lat > ymax ? lat - ymax : 0.0);
  return latGap * kDegreesToRadians * kSphereRadius * (1.0 - 1e-9) - 1.0;
}

}  // namespace

double FenceCache::lowerBoundMetres(double lon, double lat, double xmin, double xmax, double ymin,
                                    double ymax) {
  return boundMetres(lon, lat, std::max(0.0, std::cos(lat * kDegreesToRadians)), xmin, xmax, ymin,
                     ymax, smallerCosine(ymin, ymax));
}

std::shared_ptr<const FenceCache> FenceCache::build(const FenceList& fences,
                                                    const FenceCache* previous) {
  std::shared_ptr<FenceCache> cache(new FenceCache());
  if (previous != nullptr)
    cache->measureMutex_ = previous->measureMutex_;
  // The previous cache's readings by fence id; the text decides. Comparing the texts of the
  // same id costs less than hashing every text: equal ones are compared in bulk, and changed
  // ones nearly always differ in length or early on.
  std::unordered_multimap<std::int64_t, const std::shared_ptr<const Reading>*> earlier;
  if (previous != nullptr) {
    earlier.reserve(previous->fences_.size());
    for (const Fence& fence : previous->fences_)
      earlier.emplace(fence.reading->id, &fence.reading);
  }
  // The texts not read before are read on a context of this cache's own, which each of their
  // readings keeps alive.
  std::shared_ptr<geos::Context> context;
  geos::ReaderPtr reader(nullptr, geos::Release{nullptr});
  cache->fences_.reserve(fences.size());
  for (const auto& fence : fences) {
    Fence entry;
    // The revision first: a change made while the text is read shows as a newer revision.
    entry.revision = fence->shapeRevision();
    entry.kind = kindOf(fence->type());
    entry.radius = fence->radius();
    auto text = fence->location();
    const std::int64_t id = fence->id();
    const auto [first, last] = earlier.equal_range(id);
    for (auto it = first; it != last && !entry.reading; ++it) {
      if ((*it->second)->text == text)
        entry.reading = *it->second;
    }
    if (entry.reading) {
      ++cache->carried_;
    } else {
      if (!context) {
        context = std::make_shared<geos::Context>();
        if (context->get() == nullptr)
          return nullptr;
        reader =
            geos::ReaderPtr(GEOSWKTReader_create_r(context->get()), geos::Release{context->get()});
        if (!reader)
          return nullptr;
      }
      auto reading = std::make_shared<Reading>();
      reading->context = context;
      std::string why;
      reading->geometry = PlainWkt(context->get(), text.value_or("")).read();
      if (!reading->geometry)
        reading->geometry = geos::readGeometry(*context, reader.get(), text.value_or(""), why);
      if (reading->geometry)
        reading->extent = geos::extent(context->get(), reading->geometry.get());
      reading->id = id;
      reading->text = std::move(text);
      entry.reading = std::move(reading);
    }
    entry.geometry = entry.reading->geometry.get();
    cache->fences_.push_back(std::move(entry));
  }
  cache->buildIndex();
  return cache;
}

FenceCache::~FenceCache() = default;

void FenceCache::buildIndex() {
  for (std::uint32_t i = 0; i < fences_.size(); ++i) {
    const Fence& fence = fences_[i];
    if (!fence.geometry) {
      unreadable_.push_back(i);
      continue;
    }
    Box box{};
    const auto& extent = fence.reading->extent;
    const bool bounded = extent.has_value();
    if (bounded)
      box = {extent->xmin, extent->xmax, extent->ymin, extent->ymax, 0.0};
    double reach = 0.0;
    if (fence.kind == FenceKind::Point)
      reach = static_cast<double>(fence.radius);
    else if (fence.kind == FenceKind::Beacon)
      reach = kBeaconReach;
    if (!bounded || !std::isfinite(reach) || !indexableLatitude(box.ymin) ||
        !indexableLatitude(box.ymax) || !indexableLongitude(box.xmin) ||
        !indexableLongitude(box.xmax)) {
      alwaysMeasure_.push_back(i);
      continue;
    }
    box.cosMin = smallerCosine(box.ymin, box.ymax);
    entries_.push_back({box, reach, i});
  }
  if (entries_.empty())
    return;

  // Leaves over runs of entries, then parents over runs of nodes, up to a single root.
  auto unite = [](Node& parent, const Box& box, double reach) {
    parent.box.xmin = std::min(parent.box.xmin, box.xmin);
    parent.box.xmax = std::max(parent.box.xmax, box.xmax);
    parent.box.ymin = std::min(parent.box.ymin, box.ymin);
    parent.box.ymax = std::max(parent.box.ymax, box.ymax);
    parent.reach = std::max(parent.reach, reach);
  };
  auto emptyNode = [](std::uint32_t first, bool leaf) {
    constexpr double inf = std::numeric_limits<double>::infinity();
    return Node{{inf, -inf, inf, -inf, 0.0}, -inf, first, 0, leaf};
  };
  strOrder(entries_);
  std::vector<Node> level;
  for (std::uint32_t at = 0; at < entries_.size(); at += kFanout) {
    Node node = emptyNode(at, true);
    for (std::uint32_t e = at; e < entries_.size() && e < at + kFanout; ++e, ++node.count)
      unite(node, entries_[e].box, entries_[e].reach);
    node.box.cosMin = smallerCosine(node.box.ymin, node.box.ymax);
    level.push_back(node);
  }
  while (true) {
    strOrder(level);
    const auto first = static_cast<std::uint32_t>(nodes_.size());
    nodes_.insert(nodes_.end(), level.begin(), level.end());
    if (level.size() == 1)
      break;
    std::vector<Node> parents;
    for (std::uint32_t at = 0; at < level.size(); at += kFanout) {
      Node node = emptyNode(first + at, false);
      for (std::uint32_t c = at; c < level.size() && c < at + kFanout; ++c, ++node.count)
        unite(node, level[c].box, level[c].reach);
      node.box.cosMin = smallerCosine(node.box.ymin, node.box.ymax);
      parents.push_back(node);
    }
    level = std::move(parents);
  }
}

std::optional<double> FenceCache::measure(const geos::Context& context, std::size_t i,
                                          const geos::DevicePoint& device) const {
  const std::lock_guard lock(*measureMutex_);
  return geos::nearestDistance(context, fences_[i].geometry, device);
}

std::optional<double> FenceCache::measureBoundary(const geos::Context& context, std::size_t i,
                                                  const geos::DevicePoint& device) const {
  GEOSContextHandle_t ctx = context.get();
  if (ctx == nullptr || !fences_[i].geometry)
    return std::nullopt;
  const std::lock_guard lock(*measureMutex_);
  const geos::GeomPtr boundary(GEOSBoundary_r(ctx, fences_[i].geometry), geos::Release{ctx});
  if (!boundary || GEOSisEmpty_r(ctx, boundary.get()) != 0)
    return std::nullopt;
  return geos::nearestDistance(context, boundary.get(), device);
}

std::vector<FenceCache::Measured> FenceCache::measureCandidates(const geos::Context& context,
                                                                const geos::DevicePoint& device,
                                                                const FenceList* fences) const {
  std::vector<Measured> out;
  double nearest = kNoDistance;
  auto consider = [&](std::uint32_t i) {
    const Fence& fence = fences_[i];
    if (fences != nullptr && (*fences)[i]->shapeRevision() != fence.revision)
      return;
    const auto metres = measure(context, i, device);
    out.push_back({i, metres});
    const double c = contribution(fence.kind, fence.radius, metres.value_or(kNoDistance));
    if (c < nearest)
      nearest = c;
  };
  for (std::uint32_t i : alwaysMeasure_)
    consider(i);

  const double lon = device.longitude;
  const double lat = device.latitude;
  if (!indexableLatitude(lat) || !indexableLongitude(lon)) {
    for (const Entry& entry : entries_)
      consider(entry.index);
  } else if (!nodes_.empty()) {
    // Best first: the smallest bound is opened next, and the walk ends at the first bound that
    // is above 0 and no less than the nearest distance measured so far.
    auto skippable = [&](double bound) { return bound > 0.0 && bound >= nearest; };
    const double cosLat = std::max(0.0, std::cos(lat * kDegreesToRadians));
    auto key = [&](const Box& box, double reach) {
      const double byLatitude = latitudeBoundMetres(lat, box.ymin, box.ymax) - reach;
      if (skippable(byLatitude))
        return byLatitude;
      return boundMetres(lon, lat, cosLat, box.xmin, box.xmax, box.ymin, box.ymax, box.cosMin) -
             reach;
    };
    using Item = std::pair<double, std::uint32_t>;  // bound; node, or entry after the nodes
    std::vector<Item> storage;
    storage.reserve(64);
    std::priority_queue<Item, std::vector<Item>, std::greater<>> open(std::greater<>(),
                                                                      std::move(storage));
    const Node& root = nodes_.back();
    open.emplace(key(root.box, root.reach), static_cast<std::uint32_t>(nodes_.size() - 1));
    const auto entryBase = static_cast<std::uint32_t>(nodes_.size());
    while (!open.empty()) {
      const auto [bound, id] = open.top();
      open.pop();
      if (skippable(bound))
        break;
      if (id >= entryBase) {
        consider(entries_[id - entryBase].index);
        continue;
      }
      const Node& node = nodes_[id];
      for (std::uint32_t c = node.first; c < node.first + node.count; ++c) {
        const double childBound = node.leaf ? key(entries_[c].box, entries_[c].reach)
                                            : key(nodes_[c].box, nodes_[c].reach);
        if (!skippable(childBound))
          open.emplace(childBound, node.leaf ? entryBase + c : c);
      }
    }
  }
  std::sort(out.begin(), out.end(),
            [](const Measured& a, const Measured& b) { return a.index < b.index; });
  return out;
}

std::shared_ptr<const FenceCache::FlagSummary> FenceCache::flagSummary(
    const FenceList& fences) const {
  // The counts first: a change made while the fences are read moves them on, and the next
  // pass reads the fences again.
  const std::uint64_t shapeChanges = fenceShapeChanges();
  const std::uint64_t enteredChanges = fenceEnteredChanges();
  const std::uint64_t dwellStarts = fenceDwellStarts();
  {
    const std::lock_guard lock(summaryMutex_);
    if (summary_ && summary_->shapeChanges == shapeChanges &&
        summary_->enteredChanges == enteredChanges && summary_->dwellStarts == dwellStarts)
      return summary_;
  }
  auto summary = std::make_shared<FlagSummary>(
      FlagSummary{shapeChanges, enteredChanges, dwellStarts, true, {}, {}});
  for (std::uint32_t i = 0; i < fences.size(); ++i) {
    if (fences[i]->shapeRevision() != fences_[i].revision)
      summary->shapesCurrent = false;
    const bool entered = fences[i]->entered();
    if (entered)
      summary->entered.push_back(i);
    if (entered || fences[i]->dwell_time() != 0)
      summary->counting.push_back(i);
  }
  const std::lock_guard lock(summaryMutex_);
  summary_ = summary;
  return summary;
}

std::size_t FenceCache::indexBytes() const {
  return sizeof(*this) + fences_.capacity() * sizeof(Fence) + entries_.capacity() * sizeof(Entry) +
         nodes_.capacity() * sizeof(Node) + alwaysMeasure_.capacity() * sizeof(std::uint32_t);
}

namespace {

// The snapshot's deleter carries the cache, so the cache lives exactly as long as the list
// and any copy of the pointer finds it (std::get_deleter).
struct SnapshotOwner {
  std::shared_ptr<const FenceCache> cache;
  void operator()(const FenceList* list) const { delete list; }
};

}  // namespace

FencesSnapshot withGeometryCache(FenceList fences, const FenceCache* previous) {
  auto cache = FenceCache::build(fences, previous);
  return FencesSnapshot(new FenceList(std::move(fences)), SnapshotOwner{std::move(cache)});
}

const FenceCache* cacheOf(const FencesSnapshot& snapshot) {
  const auto* owner = std::get_deleter<SnapshotOwner>(snapshot);
  return owner != nullptr ? owner->cache.get() : nullptr;
}

}  // namespace zonaris::fences
