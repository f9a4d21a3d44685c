#pragma once

// The geometry cache of one catalogue snapshot: every fence's text read once into a GEOS
// geometry when the catalogue is built, and an envelope index over them, so that a pass
// measures only the fences whose decision can matter.
//
// A snapshot carries its cache with it: `withGeometryCache` publishes a list whose shared
// owner also owns the cache, and `cacheOf` finds it again from any copy of that pointer. A list
// published without a cache (an application's or a test's own) is simply measured in full.
//
// A new catalogue mostly repeats the last one (two answers a kilometre apart share nearly all
// their fences), so a cache may be built from the previous one: a fence whose id and text are
// the same as one the previous cache read shares that reading (its geometry and its extent)
// instead of reading the text again. Readings are immutable and shared between caches.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fences/geos_support.hpp"
#include "zonaris/fence.hpp"

namespace zonaris::fences {

/// How a fence's type adjusts its distance.
enum class FenceKind : std::uint8_t {
  Other,   ///< the distance as measured (0 inside a polygon)
  Point,   ///< the distance minus the radius
  Beacon,  ///< the distance minus 70 m; ranging when nearer than 150 m
};

FenceKind kindOf(const std::optional<std::string>& type);

/// The distance a pass keeps for a fence: the adjusted distance, or its depth when inside.
/// NaN for a NaN adjusted distance (which never counts as nearest).
double contribution(FenceKind kind, float radius, double metres);

/// Read-only once built; any number of passes may use it at once.
class FenceCache {
 public:
  /// One fence the cache measured for a pass: its index in the list and the raw distance
  /// (nothing when GEOS could not measure it).
  struct Measured {
    std::uint32_t index;
    std::optional<double> metres;
  };

  /// Reads every fence's text once, or takes the reading of `previous` (may be null) for a
  /// fence with the same id and the same text. Null only when GEOS cannot make a context.
  static std::shared_ptr<const FenceCache> build(const FenceList& fences,
                                                 const FenceCache* previous = nullptr);
  ~FenceCache();
  FenceCache(const FenceCache&) = delete;
  FenceCache& operator=(const FenceCache&) = delete;

  std::size_t size() const { return fences_.size(); }
  /// The fence's shape revision when the cache read it; a fence whose revision has moved on
  /// must be measured from its text.
  std::uint32_t revision(std::size_t i) const { return fences_[i].revision; }
  FenceKind kind(std::size_t i) const { return fences_[i].kind; }
  /// Whether the fence's text gave a geometry.
  bool readable(std::size_t i) const { return fences_[i].geometry != nullptr; }

  /// Measures, in index order, every fence whose decision can matter to a pass at `device`:
  /// those that may hold the device, may be the nearest, or (beacons) may lie within 150 m.
  /// Every readable fence left out is provably outside, provably no nearer than the nearest of
  /// those listed, and (beacons) provably 150 m away or more. With `fences`, those whose
  /// revision has moved on are left out too; the caller measures them from their text.
  std::vector<Measured> measureCandidates(const geos::Context& context,
                                          const geos::DevicePoint& device,
                                          const FenceList* fences) const;

  /// The unreadable fences, in index order.
  const std::vector<std::uint32_t>& unreadable() const { return unreadable_; }

  /// What the fences' own state looked like when last read: whether every shape is still the
  /// one the cache read, which fences are entered, and which are entered or still count dwell
  /// seconds (both in index order). Read again only when a fence's shape or `entered` flag
  /// changed, or a dwell count left zero, since (anywhere in the process); in a steady state a
  /// pass and a dwell tick therefore read no field of a fence that neither can change.
  struct FlagSummary {
    std::uint64_t shapeChanges;
    std::uint64_t enteredChanges;
    std::uint64_t dwellStarts;
    bool shapesCurrent;
    std::vector<std::uint32_t> entered;
    std::vector<std::uint32_t> counting;
  };
  std::shared_ptr<const FlagSummary> flagSummary(const FenceList& fences) const;

  /// The raw distance to one readable fence from its cached geometry.
  std::optional<double> measure(const geos::Context& context, std::size_t i,
                                const geos::DevicePoint& device) const;

  /// The distance from the device to the boundary of one readable fence's cached geometry (the
  /// rings of a polygon), or nothing when the geometry has no boundary (a point, a closed line)
  /// or GEOS cannot measure it.
  std::optional<double> measureBoundary(const geos::Context& context, std::size_t i,
                                        const geos::DevicePoint& device) const;

  /// Bytes held beyond the GEOS geometries themselves (index and per-fence records).
  std::size_t indexBytes() const;

  /// How many fences took their reading from the previous cache instead of reading the text.
  std::size_t carried() const { return carried_; }

  /// A lower bound, in metres, of the haversine distance from (lon, lat) to any point with a
  /// longitude in [xmin, xmax] and a latitude in [ymin, ymax] (degrees; the latitudes within
  /// -90..90, the device's too), with margins that cover the rounding of the distance itself.
  static double lowerBoundMetres(double lon, double lat, double xmin, double xmax, double ymin,
                                 double ymax);

 private:
  // One fence text as read: its geometry (null when unreadable) and the extent of all its
  // coordinates. Immutable; shared by every cache whose fence has this id and text. It holds
  // the context that made the geometry, which releases it on whichever thread drops it last.
  struct Reading {
    std::shared_ptr<const geos::Context> context;
    geos::GeomPtr geometry;
    std::optional<GeometryBounds> extent;
    std::int64_t id = 0;
    std::optional<std::string> text;
  };
  struct Fence {
    std::shared_ptr<const Reading> reading;
    const GEOSGeometry* geometry = nullptr;  // the reading's
    FenceKind kind = FenceKind::Other;
    float radius = 0.0f;
    std::uint32_t revision = 0;
  };
  struct Box {
    double xmin, xmax, ymin, ymax;
    double cosMin;  // the smaller cosine of its two latitudes
  };
  // A node of the packed envelope tree: its children are nodes [first, first + count), or
  // entries when `leaf`. `reach` is the largest amount by which a fence below it can be nearer
  // than its envelope (its radius, 150 m for beacons).
  struct Node {
    Box box;
    double reach;
    std::uint32_t first;
    std::uint32_t count;
    bool leaf;
  };
  struct Entry {
    Box box;
    double reach;
    std::uint32_t index;
  };

  FenceCache() = default;
  void buildIndex();

  std::vector<Fence> fences_;
  std::size_t carried_ = 0;
  std::vector<Entry> entries_;                // indexed fences, in tree order
  std::vector<Node> nodes_;                   // the root is the last node
  std::vector<std::uint32_t> alwaysMeasure_;  // readable fences the index cannot bound
  std::vector<std::uint32_t> unreadable_;
  mutable std::mutex summaryMutex_;
  mutable std::shared_ptr<const FlagSummary> summary_;
  // GEOS 3.11 does not promise that reading one geometry from several threads at once is safe
  // (its prepared geometries are known not to be), so measurements on the shared geometries
  // are serialised. They are the few candidates of a pass: microseconds. A cache built from a
  // previous one shares its geometries, so it shares this lock too.
  std::shared_ptr<std::mutex> measureMutex_ = std::make_shared<std::mutex>();
};

using FencesSnapshot = std::shared_ptr<const FenceList>;

/// Publishes `fences` as a snapshot that owns its geometry cache, built from `previous` (the
/// cache of the catalogue it replaces; may be null) as `FenceCache::build` says.
FencesSnapshot withGeometryCache(FenceList fences, const FenceCache* previous = nullptr);

/// The cache that `withGeometryCache` attached to this snapshot, or null.
const FenceCache* cacheOf(const FencesSnapshot& snapshot);

}  // namespace zonaris::fences
