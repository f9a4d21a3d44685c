// What a pass costs as the catalogue grows, measuring every fence from its text (Reparse) or
// from the catalogue's geometry cache (Cached); what the reference service's fence query costs
// as its fences file grows; what the cache holds in memory; and what one enormous fence costs.
// The closing table gives the ratios of one run (CPU time, as the machines are often shared).
#include <benchmark/benchmark.h>

#include <malloc.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "fences/fence_cache.hpp"
#include "fences/fence_pass.hpp"
#include "fences/geometry.hpp"
#include "zonaris/service/reference_service.hpp"

namespace {

constexpr double kMetresPerDegree = 6378137.0 * 0.017453292519943295;
constexpr double kCentreLon = 13.4;
constexpr double kCentreLat = 52.5;

// A closed ring of `vertices` points, `metres` around (lon, lat).
std::string polygonWkt(double lon, double lat, double metres, int vertices) {
  const double dLat = metres / kMetresPerDegree;
  const double dLon = dLat / std::cos(lat * 0.017453292519943295);
  std::string text = "POLYGON ((";
  for (int i = 0; i <= vertices; ++i) {
    const double angle = 2 * M_PI * (i % vertices) / vertices;
    text += fmt::format("{}{:.7f} {:.7f}", i ? ", " : "", lon + dLon * std::cos(angle),
                        lat + dLat * std::sin(angle));
  }
  return text + "))";
}

// `count` polygon fences of 64 vertices, 40 m across, spread over `sideMetres` square around
// the centre; the first one holds the centre.
std::vector<std::string> spreadPolygons(std::size_t count, double sideMetres, int vertices = 64) {
  std::mt19937_64 random(count);
  std::uniform_real_distribution<> offset(-sideMetres / 2, sideMetres / 2);
  std::vector<std::string> out;
  for (std::size_t i = 0; i < count; ++i) {
    const double north = i == 0 ? 0.0 : offset(random);
    const double east = i == 0 ? 0.0 : offset(random);
    const double lat = kCentreLat + north / kMetresPerDegree;
    const double lon =
        kCentreLon + east / (kMetresPerDegree * std::cos(kCentreLat * 0.017453292519943295));
    out.push_back(polygonWkt(lon, lat, 20.0, vertices));
  }
  return out;
}

zonaris::FenceList makeList(const std::vector<std::string>& locations) {
  zonaris::FenceList list;
  for (std::size_t i = 0; i < locations.size(); ++i) {
    auto fence = std::make_shared<zonaris::ZonarisFence>();
    fence->setId(static_cast<std::int64_t>(i));
    fence->setName("F" + std::to_string(i));
    fence->setType("polygon");
    fence->setLocation(locations[i]);
    fence->setRadius(0.0f);
    list.push_back(fence);
  }
  list.front()->setEntered(true);  // the device stays inside: nothing to report
  return list;
}

// A client that is not in developer mode and has reported its catalogue.
class QuietHost final : public zonaris::fences::PassHost {
 public:
  double calculateDistance(const std::string& fenceWkt, const std::string& pointWkt) override {
    return zonaris::fences::distanceToGeometry(fenceWkt, pointWkt)
        .metres.value_or(std::numeric_limits<double>::max());
  }
  bool devMode() override { return false; }
  void distanceLine(const zonaris::ZonarisFence&, double) override {}
  bool resetFences() override { return false; }
};

struct Catalogue {
  zonaris::FenceList list;
  std::shared_ptr<const zonaris::fences::FenceCache> cache;
};

const Catalogue& catalogue(std::size_t count) {
  static std::map<std::size_t, Catalogue> built;
  auto it = built.find(count);
  if (it == built.end()) {
    Catalogue c;
    c.list = makeList(spreadPolygons(count, 10000.0));
    c.cache = zonaris::fences::FenceCache::build(c.list);
    it = built.emplace(count, std::move(c)).first;
  }
  return it->second;
}

const std::string& devicePoint() {
  static const std::string point = zonaris::fences::devicePointWkt(kCentreLon, kCentreLat);
  return point;
}

void pass(benchmark::State& state, bool cached) {
  const Catalogue& c = catalogue(static_cast<std::size_t>(state.range(0)));
  QuietHost host;
  zonaris::fences::PassResult result;
  for (auto _ : state) {
    result = zonaris::fences::evaluateFences(c.list, cached ? c.cache.get() : nullptr,
                                             devicePoint(), host);
    benchmark::DoNotOptimize(result);
  }
  if (!result.anyInside || result.report)
    state.SkipWithError("the device should be inside one entered fence");
}

void PassReparse(benchmark::State& state) {
  pass(state, false);
}
void PassCached(benchmark::State& state) {
  pass(state, true);
}
BENCHMARK(PassReparse)->Arg(10)->Arg(1000)->Arg(10000);
BENCHMARK(PassCached)->Arg(10)->Arg(1000)->Arg(10000);

// The cache of 1,000 polygons of 64 vertices: heap bytes it holds, and the growth of the
// resident set while it was built.
void CacheMemoryPer1000(benchmark::State& state) {
  const auto list = makeList(spreadPolygons(1000, 10000.0));
  auto residentBytes = [] {
    std::ifstream statm("/proc/self/statm");
    long pages = 0;
    long resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
  };
  double heap = 0;
  double resident = 0;
  for (auto _ : state) {
    malloc_trim(0);
    const double heapBefore = static_cast<double>(mallinfo2().uordblks);
    const double residentBefore = residentBytes();
    auto cache = zonaris::fences::FenceCache::build(list);
    heap = static_cast<double>(mallinfo2().uordblks) - heapBefore;
    resident = residentBytes() - residentBefore;
    benchmark::DoNotOptimize(cache);
  }
  state.counters["heap_bytes"] = heap;
  state.counters["resident_bytes"] = resident;
}
BENCHMARK(CacheMemoryPer1000)->Iterations(1);

// One boundary of 100,000 vertices (a circle of 5 km), the device inside (0) or 1 km outside
// (1): read and measured on every pass, or measured from the cache.
void hugeFence(benchmark::State& state, bool cached) {
  static const auto list = [] {
    auto l = makeList({polygonWkt(kCentreLon, kCentreLat, 5000.0, 100000)});
    l.front()->setEntered(false);
    return l;
  }();
  static const auto cache = zonaris::fences::FenceCache::build(list);
  const double north = state.range(0) == 0 ? 0.0 : 6000.0 / kMetresPerDegree;
  const std::string point = zonaris::fences::devicePointWkt(kCentreLon, kCentreLat + north);
  list.front()->setEntered(state.range(0) == 0);
  QuietHost host;
  for (auto _ : state) {
    auto result =
        zonaris::fences::evaluateFences(list, cached ? cache.get() : nullptr, point, host);
    benchmark::DoNotOptimize(result);
  }
}
void HugeFenceReparse(benchmark::State& state) {
  hugeFence(state, false);
}
void HugeFenceCached(benchmark::State& state) {
  hugeFence(state, true);
}
BENCHMARK(HugeFenceReparse)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(HugeFenceCached)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The reference service's fence query at the same density of fences (1,000 per 20 km square,
// 16 vertices each), so that about as many fences lie within the 10 km of the query either way.
void ServiceFenceQuery(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  using zonaris::service_tool::ReferenceService;
  static std::map<std::size_t, std::unique_ptr<ReferenceService>> services;
  auto& service = services[count];
  if (!service) {
    nlohmann::json fences = nlohmann::json::array();
    const auto locations =
        spreadPolygons(count, 20000.0 * std::sqrt(static_cast<double>(count) / 1000.0), 16);
    for (std::size_t i = 0; i < locations.size(); ++i)
      fences.push_back({{"id", i},
                        {"type", "polygon"},
                        {"location", locations[i]},
                        {"_event_types", {"entry"}}});
    zonaris::service_tool::ServiceOptions options;
    options.fences = std::move(fences);
    service = std::make_unique<ReferenceService>(std::move(options));
    service->handle("POST", "/install", {}, R"({"appKey":"bench"})");
  }
  const std::map<std::string, std::string> query = {{"install", "1"},
                                                    {"lat", fmt::format("{}", kCentreLat)},
                                                    {"long", fmt::format("{}", kCentreLon)},
                                                    {"radius", "10000"}};
  std::size_t answered = 0;
  for (auto _ : state) {
    const auto response = service->handle("GET", "/install/location", query, "");
    answered = response.body.size();
    benchmark::DoNotOptimize(answered);
  }
  state.counters["answer_bytes"] = static_cast<double>(answered);
}
BENCHMARK(ServiceFenceQuery)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

// The usual table, then the ratios the closing note asks for.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0 && !run.error_occurred)
        cpu_[run.benchmark_name()] = run.GetAdjustedCPUTime();
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    auto ratio = [&](const std::string& a, const std::string& b, const std::string& what) {
      const auto x = cpu_.find(a);
      const auto y = cpu_.find(b);
      if (x != cpu_.end() && y != cpu_.end() && y->second > 0)
        std::cout << fmt::format("  {:<58} {:12.1f}x\n", what, x->second / y->second);
    };
    std::cout << "\nRatios of CPU time, this run:\n";
    for (const char* n : {"10", "1000", "10000"})
      ratio(fmt::format("PassReparse/{}", n), fmt::format("PassCached/{}", n),
            fmt::format("re-parse / cached pass, {} fences", n));
    ratio("PassCached/10000", "PassCached/10", "cached pass, 10,000 / 10 fences");
    ratio("ServiceFenceQuery/100000", "ServiceFenceQuery/1000",
          "service fence query, 100,000 / 1,000 fences");
    ratio("HugeFenceReparse/0", "HugeFenceCached/0",
          "100,000 vertices, device inside: re-parse / cached");
    ratio("HugeFenceReparse/1", "HugeFenceCached/1",
          "100,000 vertices, device outside: re-parse / cached");
  }

 private:
  std::map<std::string, double> cpu_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
