// What a fence costs per pass: calculateDistanceFrom on polygons of growing size, printed as a
// ratio to the cost of a point fence. Every call parses both texts and makes its own GEOS
// context, as a pass does, so the ratios show how much the geometry itself adds.
#include <benchmark/benchmark.h>

#include <cmath>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace {

constexpr const char* kDevice = "POINT (0.02 0.001)";

// A closed ring of `vertices` points on a circle of 0.01 degrees around (0, 0).
std::string polygonWkt(int vertices) {
  std::string text = "POLYGON ((";
  for (int i = 0; i <= vertices; ++i) {
    const double angle = 2 * M_PI * (i % vertices) / vertices;
    text += fmt::format("{}{:.9f} {:.9f}", i ? ", " : "", 0.01 * std::cos(angle),
                        0.01 * std::sin(angle));
  }
  return text + "))";
}

std::shared_ptr<zonaris::Zonaris> benchClient() {
  static zonaris::sim::Simulation simulation;
  static auto client = zonaris::Zonaris::initWithAppKey("bench", simulation.platform());
  return client;
}

void measure(benchmark::State& state, const std::string& fence) {
  auto client = benchClient();
  const std::string device = kDevice;
  for (auto _ : state)
    benchmark::DoNotOptimize(client->calculateDistanceFrom(fence, device));
}

void PointFence(benchmark::State& state) {
  measure(state, "POINT (0 0)");
}
void PolygonFence(benchmark::State& state) {
  measure(state, polygonWkt(static_cast<int>(state.range(0))));
}

BENCHMARK(PointFence);
BENCHMARK(PolygonFence)->Arg(4)->Arg(32)->Arg(256)->Arg(2048);

// Prints the usual table, then each benchmark's CPU time as a multiple of the point fence's
// (CPU time, because the machines this runs on are often shared and busy).
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(OO_Tabular) {}  // plain text, no colour codes
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0)
        perCall_[run.benchmark_name()] = run.GetAdjustedCPUTime();
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const auto point = perCall_.find("PointFence");
    if (point == perCall_.end() || point->second <= 0)
      return;
    std::cout << "\nCost relative to a point fence:\n";
    for (const auto& [name, time] : perCall_)
      std::cout << fmt::format("  {:<20} {:8.2f}x\n", name, time / point->second);
  }

 private:
  std::map<std::string, double> perCall_;
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
