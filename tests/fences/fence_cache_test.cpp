// The cached fence walk against the straightforward one: seeded random catalogues (points with
// a radius, polygons with holes (some sticking out of their shell), multipolygons, beacons,
// unreadable and empty text, fences across the antimeridian and around the poles, a device on a
// boundary), compared pass by pass on every decision, flag, distance line and error report;
// half the catalogues follow the one before (most fences again, some changed, gone, new or
// moved) and build their cache from its cache.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "fence_fixture.hpp"
#include "fences/fence_cache.hpp"
#include "fences/fence_pass.hpp"
#include "fences/geometry.hpp"

namespace zonaris::test {
namespace {

#if defined(__SANITIZE_THREAD__)
constexpr int kCatalogues = 40;  // one thread: nothing to race, so a short walk checks the build
#elif defined(__SANITIZE_ADDRESS__)
constexpr int kCatalogues = 200;  // the sanitizers run the walk ten times slower
#else
constexpr int kCatalogues = 400;
#endif
constexpr int kPassesPerCatalogue = 25;

// Records what a pass shows the client, in order.
class RecordingHost final : public fences::PassHost {
 public:
  bool dev = false;
  bool reset = false;
  std::vector<std::string> transcript;

  double calculateDistance(const std::string& fenceWkt, const std::string& pointWkt) override {
    const auto measured = fences::distanceToGeometry(fenceWkt, pointWkt);
    if (measured.fenceReadable && measured.pointReadable)
      return measured.metres.value_or(std::numeric_limits<double>::max());
    transcript.push_back(fmt::format("Calculate distance error{}{}",
                                     measured.fenceReadable ? "" : " geometry1",
                                     measured.pointReadable ? "" : " geometry2"));
    return std::numeric_limits<double>::max();
  }
  bool devMode() override { return dev; }
  void distanceLine(const ZonarisFence& fence, double adjusted) override {
    transcript.push_back(
        fmt::format("Distance to {} zone = {:f}", fence.name().value_or("(null)"), adjusted));
  }
  bool resetFences() override { return reset; }
};

// Seeded catalogues and device positions.
class Generator {
 public:
  explicit Generator(std::uint64_t seed) : random_(seed) {}

  double uniform(double lo, double hi) { return std::uniform_real_distribution<>(lo, hi)(random_); }
  bool chance(double p) { return uniform(0, 1) < p; }
  int pick(int n) { return std::uniform_int_distribution<>(0, n - 1)(random_); }

  // Where a catalogue lies: anywhere, straddling the antimeridian, or around a pole.
  void newRegion() {
    const int kind = pick(4);
    centreLon_ = kind == 0 ? (chance(0.5) ? 179.999 : -179.999) : uniform(-180, 180);
    centreLat_ = kind == 0   ? uniform(-60, 60)
                 : kind == 1 ? (chance(0.5) ? 89.995 : -89.995)
                             : uniform(-70, 70);
    vertices_.clear();
  }

  // A position `metres` at most from the region's centre, on a 1e-7 degree grid (as real data
  // is) so that printing it for the device point gives back the same number. Longitudes may
  // run a little past 180, which WKT allows.
  std::pair<double, double> near(double metres) {
    const double dLat = uniform(-metres, metres) / kMetresPerDegree;
    const double cosLat = std::max(std::cos(centreLat_ * 0.017453292519943295), 1e-3);
    const double dLon = uniform(-metres, metres) / (kMetresPerDegree * cosLat);
    const double lat = std::clamp(centreLat_ + dLat, -90.0, 90.0);
    const double lon = std::clamp(centreLon_ + std::clamp(dLon, -30.0, 30.0), -200.0, 200.0);
    return {std::round(lon * 1e7) / 1e7, std::round(lat * 1e7) / 1e7};
  }

  std::string ring(double cx, double cy, double metres, int n) {
    const double cosLat = std::max(std::cos(cy * 0.017453292519943295), 1e-3);
    std::string text = "(";
    std::pair<double, double> first;
    // Mostly on the 1e-7 grid, as services print; sometimes every digit, sometimes with an
    // exponent, which take the slower ways through the number reading.
    const int style = pick(10);
    auto print = [style](double v) {
      return style == 0   ? fmt::format("{:.17g}", v)
             : style == 1 ? fmt::format("{:.9e}", v)
                          : fmt::format("{}", v);
    };
    for (int i = 0; i < n; ++i) {
      const double angle = 2 * M_PI * i / n;
      const double r = metres * uniform(0.7, 1.0);
      double lon = cx + r * std::cos(angle) / (kMetresPerDegree * cosLat);
      double lat = std::clamp(cy + r * std::sin(angle) / kMetresPerDegree, -90.0, 90.0);
      if (style > 1) {
        lon = std::round(lon * 1e7) / 1e7;
        lat = std::round(lat * 1e7) / 1e7;
      }
      if (i == 0)
        first = {lon, lat};
      vertices_.emplace_back(lon, lat);
      text += (i ? ", " : "") + print(lon) + " " + print(lat);
    }
    return text + ", " + print(first.first) + " " + print(first.second) + ")";
  }

  std::string polygon(double metres) {
    const auto [cx, cy] = near(3000);
    std::string text = "(" + ring(cx, cy, metres, 4 + pick(10));
    const double cosLat = std::max(std::cos(cy * 0.017453292519943295), 1e-3);
    const int kind = pick(10);
    if (kind < 4) {
      text += ", " + ring(cx, cy, metres * 0.3, 4 + pick(5));  // a hole
    } else if (kind == 4) {
      // Invalid but readable: a hole that sticks out of its shell or lies wholly outside it.
      // Distances are measured to it like to any ring, so the cache's box must cover it.
      const double east = metres * uniform(0.8, 2.5) / (kMetresPerDegree * cosLat);
      text += ", " + ring(cx + east, cy, metres * uniform(0.3, 0.9), 4 + pick(5));
    } else if (kind == 5) {
      text += ", " + ring(cx, cy, metres * 1.6, 4 + pick(5));  // a hole around its shell
    }
    return text + ")";
  }

  std::optional<std::string> location(const std::string& type) {
    const double size = std::exp(uniform(std::log(5.0), std::log(3000.0)));
    switch (pick(20)) {
      case 0:
        return std::nullopt;
      case 1: {
        // clang-format off
        static const char* kUnreadable[] = {"", "POLYGON ((1 2, 3", "POLYGON EMPTY",
            "GEOMETRYCOLLECTION EMPTY", "POINT (nan 1)", "POINT (1e400 0)", "POLYGON ()",
            "POLYGON ((0 0, 1 0, 0 0))", "POLYGON ((0 0, 1 0, 1 1, 0 1))", "POINT (1 2"};
        // clang-format on
        const int k = pick(11);
        return k < 10 ? kUnreadable[k]
                      : "GEOMETRYCOLLECTION " + std::string(34, '(') + "POINT (0 0)" +
                            std::string(35, ')');
      }
      case 2:
        return "MULTIPOLYGON (" + polygon(size) + ", " + polygon(size) + ")";
      case 3: {
        const auto [x1, y1] = near(3000);
        const auto [x2, y2] = near(3000);
        vertices_.emplace_back(x1, y1);
        return fmt::format("LINESTRING ({} {}, {} {})", x1, y1, x2, y2);
      }
      default:
        break;
    }
    if (type == "point" || type == "beacon" || chance(0.2)) {
      const auto [x, y] = near(3000);
      vertices_.emplace_back(x, y);
      return fmt::format("POINT ({} {})", x, y);
    }
    return "POLYGON " + polygon(size);
  }

  float radius() {
    constexpr float kOdd[] = {std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::infinity(),
                              -std::numeric_limits<float>::infinity(), -50.0f, 2.5e6f};
    const int kind = pick(25);
    return kind < 5 ? kOdd[kind] : static_cast<float>(uniform(0, 400));
  }

  FenceDef fence(std::int64_t id) {
    FenceDef drawn{.id = id, .name = "F" + std::to_string(id), .radius = radius()};
    drawn.type = chance(0.05) ? std::nullopt : std::optional<std::string>(kTypes[pick(5)]);
    drawn.location = location(drawn.type.value_or(""));
    return drawn;
  }

  std::vector<FenceDef> catalogue() {
    newRegion();
    std::vector<FenceDef> drawn;
    const int count = chance(0.05) ? 300 : 1 + pick(24);
    for (int i = 0; i < count; ++i)
      drawn.push_back(fence(i));
    return drawn;
  }

  // The next answer in the same region, as after moving on a little: most fences again as they
  // were, some with a new text or type, some gone, some new, in another order.
  std::vector<FenceDef> successor(const std::vector<FenceDef>& before) {
    std::vector<FenceDef> drawn;
    std::int64_t next = 0;
    for (const auto& old : before) {
      next = std::max(next, old.id + 1);
      if (chance(0.1))
        continue;
      drawn.push_back(old);
      if (chance(0.1))
        drawn.back().location = location(drawn.back().type.value_or(""));
      else if (chance(0.05))
        drawn.back().type = kTypes[pick(5)];
    }
    for (int added = pick(4); added > 0; --added)
      drawn.push_back(fence(next++));
    std::shuffle(drawn.begin(), drawn.end(), random_);
    return drawn;
  }

  // The device: near the fences, on a vertex of one, at a pole, or across the world.
  std::pair<double, double> device() {
    const int where = pick(20);
    if (where < 4 && !vertices_.empty())
      return vertices_[static_cast<std::size_t>(pick(static_cast<int>(vertices_.size())))];
    if (where == 4)
      return {std::round(uniform(-180, 180)), chance(0.5) ? 90.0 : -90.0};
    if (where == 5)  // about the antipode of the fences
      return {centreLon_ > 0 ? centreLon_ - 180 : centreLon_ + 180, -centreLat_};
    return near(std::exp(uniform(std::log(1.0), std::log(40000.0))));
  }

 private:
  static constexpr const char* kTypes[] = {"point", "beacon", "polygon", "zone", "Point"};
  std::mt19937_64 random_;
  double centreLon_ = 0;
  double centreLat_ = 0;
  std::vector<std::pair<double, double>> vertices_;
};

std::string flags(const FenceList& list) {
  std::string out;
  for (const auto& fence : list)
    out += fence->entered() ? 'E' : '-';
  return out;
}

TEST(FenceCacheTest, CachedWalkDecidesExactlyAsMeasuringEveryFence) {
  Generator generate(20260310);
  int passes = 0;
  int skipped = 0;  // fences the cache did not measure: the comparison must cover skipping
  std::size_t carried = 0;
  std::vector<FenceDef> drawn;
  std::shared_ptr<const fences::FenceCache> previous;
  for (int c = 0; c < kCatalogues; ++c) {
    const bool follows = c > 0 && generate.chance(0.5);
    std::set<std::pair<std::int64_t, std::optional<std::string>>> before;
    for (const auto& fence : drawn)
      before.emplace(fence.id, fence.location);
    drawn = follows ? generate.successor(drawn) : generate.catalogue();
    FenceList reference = makeFences(drawn);
    FenceList cached = makeFences(drawn);
    const auto cache = fences::FenceCache::build(cached, follows ? previous.get() : nullptr);
    ASSERT_NE(cache, nullptr);
    // Exactly the fences with an id and a text seen before are carried, whatever their type.
    const auto same = std::count_if(drawn.begin(), drawn.end(), [&](const auto& fence) {
      return follows && before.count({fence.id, fence.location}) > 0;
    });
    ASSERT_EQ(cache->carried(), static_cast<std::size_t>(same)) << "catalogue " << c;
    carried += cache->carried();
    previous = cache;
    for (int p = 0; p < kPassesPerCatalogue; ++p, ++passes) {
      if (generate.chance(0.01)) {
        // A fence changed after the cache read it: measured from its new text.
        const auto i = static_cast<std::size_t>(generate.pick(static_cast<int>(drawn.size())));
        const auto text = generate.location("polygon");
        reference[i]->setLocation(text);
        cached[i]->setLocation(text);
      }
      RecordingHost want;
      RecordingHost got;
      want.dev = got.dev = generate.chance(0.1);
      want.reset = got.reset = generate.chance(0.2);
      // Half the passes keep the flags the last one left, as a device standing still does.
      for (std::size_t i = 0; p % 2 == 0 && i < drawn.size(); ++i) {
        const bool entered = generate.chance(0.3);
        const bool dwelled = generate.chance(0.1);
        reference[i]->setEntered(entered);
        cached[i]->setEntered(entered);
        reference[i]->setDwelled(dwelled);
        cached[i]->setDwelled(dwelled);
      }
      const auto [lon, lat] = generate.device();
      const std::string point = fences::devicePointWkt(lon, lat);

      const auto expected = fences::evaluateFences(reference, nullptr, point, want);
      const auto actual = fences::evaluateFences(cached, cache.get(), point, got);

      const auto where = fmt::format("catalogue {} pass {} device {}", c, p, point);
      ASSERT_EQ(std::bit_cast<std::uint64_t>(actual.minimum),
                std::bit_cast<std::uint64_t>(expected.minimum))
          << where << ": " << actual.minimum << " vs " << expected.minimum;
      ASSERT_TRUE(actual == expected) << where;  // the flags it reports, and the minimum again
      ASSERT_EQ(flags(cached), flags(reference)) << where;
      ASSERT_EQ(got.transcript, want.transcript) << where;
      if (!want.dev)
        skipped += static_cast<int>(drawn.size() - got.transcript.size());
    }
  }
  EXPECT_GE(passes, kCatalogues * kPassesPerCatalogue);
  EXPECT_GT(skipped, passes);  // on average more than one fence per pass was never measured
  EXPECT_GT(carried, static_cast<std::size_t>(kCatalogues));
}

// Overlapping passes share one cache (its geometries, its flag summary), and the next
// catalogue's cache shares its readings, while another thread flips flags, as confirmations
// do; the first cache is dropped while passes still walk the second. ThreadSanitizer and
// AddressSanitizer watch the sharing.
TEST(FenceCacheTest, OverlappingPassesShareTheCache) {
  Generator generate(99);
  std::vector<FenceDef> drawn;
  while (drawn.size() < 40) {
    auto more = generate.catalogue();
    drawn.insert(drawn.end(), more.begin(), more.end());
  }
  const FenceList list = makeFences(drawn);
  auto cache = fences::FenceCache::build(list);
  const FenceList nextList = makeFences(drawn);
  const auto next = fences::FenceCache::build(nextList, cache.get());
  ASSERT_EQ(next->carried(), drawn.size());
  std::vector<std::string> points;
  for (int i = 0; i < 50; ++i) {
    const auto [lon, lat] = generate.device();
    points.push_back(fences::devicePointWkt(lon, lat));
  }
  std::atomic<bool> stop = false;
  std::thread confirmations([&] {
    for (std::size_t i = 0; !stop; i = (i + 1) % list.size())
      list[i]->setEntered(!list[i]->entered());
  });
  std::vector<std::thread> passes;
  std::atomic<int> walked = 0;
  for (int t = 0; t < 3; ++t) {
    passes.emplace_back([&, t] {
      for (std::size_t i = static_cast<std::size_t>(t); i < points.size(); i += 3) {
        RecordingHost host;
        if (t == 0)
          fences::evaluateFences(list, cache.get(), points[i], host);
        else
          fences::evaluateFences(nextList, next.get(), points[i], host);
        walked.fetch_add(1);
      }
    });
  }
  passes[0].join();
  cache.reset();  // the readings live on in the next cache
  for (std::size_t t = 1; t < passes.size(); ++t)
    passes[t].join();
  stop = true;
  confirmations.join();
  EXPECT_EQ(walked.load(), 50);
}

// The bound the index skips by, against the distance a pass computes, where it is tightest:
// across the antimeridian, at the poles, at the antipode and on the box itself.
TEST(FenceCacheTest, EnvelopeBoundNeverExceedsTheMeasuredDistance) {
  struct Case {
    double lon, lat, xmin, xmax, ymin, ymax;
  };
  const Case cases[] = {
      {179.9, 10, -179.95, -179.9, 9.9, 10.1},  // across the antimeridian
      {-180, 0, 180, 180.2, 0, 0},              // the same meridian by another name
      {0, 90, 10, 20, 89.99, 89.999},           // the device at the pole
      {0, 0, 179.9, 180.1, -0.1, 0.1},          // the antipode
      {5, 5, 4, 6, 4, 6},                       // inside the box
      {0, 0, 0.001, 0.001, 0, 0},               // a point due east
  };
  Generator generate(7);
  for (const auto& c : cases) {
    const double bound =
        fences::FenceCache::lowerBoundMetres(c.lon, c.lat, c.xmin, c.xmax, c.ymin, c.ymax);
    for (int i = 0; i < 2000; ++i) {
      const double x = i == 0 ? c.xmin : generate.uniform(c.xmin, c.xmax);
      const double y = i == 0 ? c.ymin : generate.uniform(c.ymin, c.ymax);
      ASSERT_LE(bound, fences::haversineMetres(x, y, c.lon, c.lat))
          << c.lon << " " << c.lat << " to " << x << " " << y;
    }
  }
}

}  // namespace
}  // namespace zonaris::test
