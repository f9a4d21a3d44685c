#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "zonaris/delegate.hpp"

namespace zonaris::tools {

/// Writes the simulator's output: one compact JSON object per line, flushed line by line so a
/// reader downstream of a pipe sees events as they happen. Thread-safe; lines keep the order in
/// which they were written.
class JsonLinesWriter {
 public:
  /// `elapsedSeconds` gives the virtual seconds since the start, read at each line.
  JsonLinesWriter(std::FILE* out, std::function<double()> elapsedSeconds);

  /// {"t":..,"type":"log","line":..}
  void logLine(std::string_view line);
  /// {"t":..,"type":"callback","name":..,"args":[..]}; keys of objects in `args` keep the
  /// order in which they were inserted.
  void callback(std::string_view name, nlohmann::ordered_json args);

  /// How many times each callback was written so far.
  std::map<std::string, std::uint64_t> callbackCounts() const;

 private:
  void write(const std::string& fields);

  std::FILE* out_;
  std::function<double()> elapsedSeconds_;
  mutable std::mutex mutex_;
  std::map<std::string, std::uint64_t> counts_;
};

/// A delegate that implements every callback and writes each one as a JSON line.
class JsonLinesDelegate final : public ZonarisDelegate {
 public:
  explicit JsonLinesDelegate(JsonLinesWriter& writer) : writer_(writer) {}

  void updatedInitLocation(const platform::Location& location) override;
  void updatedDistanceToNearestFence(double distance, bool inside) override;
  void updatedBeaconScan(bool scanning) override;
  void reportSent() override;
  void eventEnterCallback(const std::optional<std::string>& name) override;
  void eventExitCallback(const std::optional<std::string>& name) override;
  void eventDwellCallback(const std::optional<std::string>& name) override;
  void actionBasicCallback(std::shared_ptr<const ZonarisActionBasic> action) override;
  void actionDataCallback(std::shared_ptr<const ZonarisActionData> action) override;
  void updatedSpeed(float speed) override;
  void updatedAvgSpeed(float speed) override;
  void updatedInterval(std::int32_t seconds) override;
  void updatedGPSAccuracy(float metres) override;

 private:
  JsonLinesWriter& writer_;
};

/// A 32-bit float widened to the double whose shortest text is the float's own (1.4f prints as
/// 1.4, not 1.399999976158142). Nothing for a non-finite value: JSON has no NaN, it prints null.
std::optional<double> shortestDouble(float value);

}  // namespace zonaris::tools
