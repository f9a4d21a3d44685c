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

  // Every callback of the library's list records the parameter names of the whole list: in a
  // callback its own parameters hide the placeholders of the same names below, which the
  // record leaves out.
#define ZONARIS_CALLBACK(callback, parameters)                                                     \
  void callback parameters override {                                                              \
    record(#callback, location, distance, inside, scanning, name, action, speed, seconds, metres); \
  }
#include "client/delegate_callbacks.def"

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
  std::vector<nlohmann::json> calls(const std::string& callback) const {
    std::vector<nlohmann::json> out;
    for (const auto& c : calls()) {
      if (c["name"] == callback)
        out.push_back(c["args"]);
    }
    return out;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    calls_.clear();
  }

 private:
  struct Absent {};
  static constexpr Absent location{}, distance{}, inside{}, scanning{}, name{}, action{}, speed{},
      seconds{}, metres{};

  static void add(nlohmann::json&, Absent) {}
  static void add(nlohmann::json& args, const auto& value) {
    args.push_back(value);
  }
  static void add(nlohmann::json& args, const platform::Location& l) {
    args.push_back({{"latitude", l.latitude}, {"longitude", l.longitude}});
  }
  static void add(nlohmann::json& args, const std::optional<std::string>& text) {
    args.push_back(text ? nlohmann::json(*text) : nlohmann::json());
  }
  static void add(nlohmann::json& args, const std::shared_ptr<const ZonarisActionBasic>& a) {
    args.push_back({{"title", a->getTitle()}, {"body", a->getBody()}, {"url", a->getURL()}});
  }
  static void add(nlohmann::json& args, const std::shared_ptr<const ZonarisActionData>& a) {
    args.push_back(a->values());
  }
  template <class... Args>
  void record(const char* callback, const Args&... values) {
    nlohmann::json args = nlohmann::json::array();
    (add(args, values), ...);
    std::lock_guard lock(mutex_);
    calls_.push_back({{"name", callback}, {"args", std::move(args)}});
  }

  std::optional<std::set<ZonarisCallback>> only_;
  mutable std::mutex mutex_;
  std::vector<nlohmann::json> calls_;
};

}  // namespace zonaris::test
