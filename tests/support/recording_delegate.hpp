#pragma once

#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "zonaris/delegate.hpp"

namespace zonaris::test {

/// A delegate that records every callback as {"name", "args"} in the order received.
/// `only` restricts the callbacks it claims to implement.
class RecordingDelegate : public ZonarisDelegate {
 public:
  RecordingDelegate() = default;
  explicit RecordingDelegate(std::set<ZonarisCallback> only) : only_(std::move(only)) {}

  bool respondsTo(ZonarisCallback callback) const override {
    return !only_ || only_->count(callback) > 0;
  }

  void updatedInitLocation(const platform::Location& l) override {
    record("updatedInitLocation", {{{"latitude", l.latitude}, {"longitude", l.longitude}}});
  }
  void updatedDistanceToNearestFence(double distance, bool inside) override {
    record("updatedDistanceToNearestFence", {distance, inside});
  }
  void updatedBeaconScan(bool scanning) override { record("updatedBeaconScan", {scanning}); }
  void reportSent() override { record("reportSent", nlohmann::json::array()); }
  void eventEnterCallback(const std::optional<std::string>& name) override {
    record("eventEnterCallback", {text(name)});
  }
  void eventExitCallback(const std::optional<std::string>& name) override {
    record("eventExitCallback", {text(name)});
  }
  void eventDwellCallback(const std::optional<std::string>& name) override {
    record("eventDwellCallback", {text(name)});
  }
  void actionBasicCallback(std::shared_ptr<const ZonarisActionBasic> a) override {
    record("actionBasicCallback",
           {{{"title", a->getTitle()}, {"body", a->getBody()}, {"url", a->getURL()}}});
  }
  void actionDataCallback(std::shared_ptr<const ZonarisActionData> a) override {
    record("actionDataCallback", {a->values()});
  }
  void updatedSpeed(float v) override { record("updatedSpeed", {v}); }
  void updatedAvgSpeed(float v) override { record("updatedAvgSpeed", {v}); }
  void updatedInterval(std::int32_t v) override { record("updatedInterval", {v}); }
  void updatedGPSAccuracy(float v) override { record("updatedGPSAccuracy", {v}); }

  /// Every call as {"name": ..., "args": [...]}.
  std::vector<nlohmann::json> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  /// Only the names, in order.
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const auto& c : calls())
      out.push_back(c["name"].get<std::string>());
    return out;
  }
  /// The calls of one callback.
  std::vector<nlohmann::json> calls(const std::string& name) const {
    std::vector<nlohmann::json> out;
    for (const auto& c : calls()) {
      if (c["name"] == name)
        out.push_back(c["args"]);
    }
    return out;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    calls_.clear();
  }

 private:
  static nlohmann::json text(const std::optional<std::string>& s) {
    return s ? nlohmann::json(*s) : nlohmann::json();
  }
  void record(const char* name, nlohmann::json args) {
    std::lock_guard lock(mutex_);
    calls_.push_back({{"name", name}, {"args", std::move(args)}});
  }

  std::optional<std::set<ZonarisCallback>> only_;
  mutable std::mutex mutex_;
  std::vector<nlohmann::json> calls_;
};

}  // namespace zonaris::test
