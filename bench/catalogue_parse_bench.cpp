// Reading a dense fence query answer: 1,650 polygons of 64 vertices, about 2.7 MB, as the
// reference service answers within 10 km in a catalogue of 10,000 fences over 80 x 24 km.
//
//   Parse/*:  the JSON alone, by nlohmann::json (a tree, and SAX events into a handler that
//             keeps nothing: the least any SAX reader costs) and by simdjson (its DOM);
//   Read/*:   the answer into fence records, by the general reading (nlohmann::json tree) and
//             by the client's reading (simdjson).
#include <benchmark/benchmark.h>

#include <simdjson.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <string>

#include <nlohmann/json.hpp>

#include "service/fence_answer.hpp"

namespace {

constexpr int kFences = 1650;
constexpr int kVertices = 64;

// As bench/standing_still.py writes them (Python's json.dump), with the keys the service adds.
const std::string& answer() {
  static const std::string text = [] {
    std::mt19937_64 random(23);
    std::uniform_real_distribution<> offset(-0.09, 0.09);
    std::uniform_real_distribution<> size(10.0, 75.0);
    std::string out = "[";
    char number[64];
    for (int i = 0; i < kFences; ++i) {
      const double lat = 52.5 + offset(random);
      const double lon = 13.4 + offset(random) * 1.6;
      const double dLat = size(random) / 111319.49;
      const double dLon = dLat / std::cos(lat * 0.017453292519943295);
      std::string ring;
      for (int v = 0; v <= kVertices; ++v) {
        const double angle = 2 * M_PI * (v % kVertices) / kVertices;
        std::snprintf(number, sizeof number, "%s%.7f %.7f", v ? ", " : "",
                      lon + dLon * std::cos(angle), lat + dLat * std::sin(angle));
        ring += number;
      }
      out += (i ? ", " : "") + nlohmann::json{{"id", i + 1},
                                              {"name", "Zone " + std::to_string(i + 1)},
                                              {"type", "polygon"},
                                              {"location", "POLYGON ((" + ring + "))"},
                                              {"radius", 0},
                                              {"uuid", nullptr},
                                              {"major", 0},
                                              {"minor", 0},
                                              {"time_zone_id", "Europe/Berlin"},
                                              {"_event_types", {"entry", "exit"}},
                                              {"_dwell_windows", {300}}}
                                   .dump();
    }
    return out + "]";
  }();
  return text;
}

void setBytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(answer().size()));
  state.counters["answer_bytes"] = static_cast<double>(answer().size());
}

void ParseNlohmannTree(benchmark::State& state) {
  for (auto _ : state) {
    auto document = nlohmann::json::parse(answer(), nullptr, false);
    benchmark::DoNotOptimize(document);
  }
  setBytes(state);
}
BENCHMARK(ParseNlohmannTree)->Name("Parse/nlohmann_tree")->Unit(benchmark::kMillisecond);

// Takes every event and keeps nothing.
struct NullSax : nlohmann::json_sax<nlohmann::json> {
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool start_object(std::size_t) override { return true; }
  bool key(string_t&) override { return true; }
  bool end_object() override { return true; }
  bool start_array(std::size_t) override { return true; }
  bool end_array() override { return true; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }
};

void ParseNlohmannSax(benchmark::State& state) {
  for (auto _ : state) {
    NullSax sax;
    benchmark::DoNotOptimize(nlohmann::json::sax_parse(answer(), &sax));
  }
  setBytes(state);
}
BENCHMARK(ParseNlohmannSax)->Name("Parse/nlohmann_sax")->Unit(benchmark::kMillisecond);

void ParseSimdjson(benchmark::State& state) {
  for (auto _ : state) {
    simdjson::dom::parser parser;  // as the client does: one per download
    simdjson::dom::element document;
    benchmark::DoNotOptimize(parser.parse(answer()).get(document));
  }
  setBytes(state);
}
BENCHMARK(ParseSimdjson)->Name("Parse/simdjson_dom")->Unit(benchmark::kMillisecond);

void ReadTree(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(zonaris::service::readFenceAnswerTree(answer()));
  setBytes(state);
}
BENCHMARK(ReadTree)->Name("Read/nlohmann_tree")->Unit(benchmark::kMillisecond);

void ReadFast(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(zonaris::service::readFenceAnswer(answer()));
  setBytes(state);
}
BENCHMARK(ReadFast)->Name("Read/simdjson")->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
