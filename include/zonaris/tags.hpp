#pragma once

#include "zonaris/export.h"

#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

namespace zonaris {

/// The application's tags: a JSON object sent with every observation under "data".
///
/// The client keeps the tags by reference (`Zonaris::setTags`), so changes the application
/// makes later are carried by later observations. All operations are thread-safe.
class ZONARIS_API ZonarisTags {
 public:
  ZonarisTags() = default;
  /// `values` should be a JSON object; anything else starts an empty one.
  explicit ZonarisTags(nlohmann::json values)
      : values_(values.is_object() ? std::move(values) : nlohmann::json::object()) {}

  void set(const std::string& key, nlohmann::json value) {
    std::lock_guard lock(mutex_);
    values_[key] = std::move(value);
  }
  void erase(const std::string& key) {
    std::lock_guard lock(mutex_);
    values_.erase(key);
  }
  /// Replaces all tags; a value that is not a JSON object clears them.
  void replace(nlohmann::json values) {
    std::lock_guard lock(mutex_);
    values_ = values.is_object() ? std::move(values) : nlohmann::json::object();
  }
  /// A copy of the tags as they are now.
  nlohmann::json snapshot() const {
    std::lock_guard lock(mutex_);
    return values_;
  }

 private:
  mutable std::mutex mutex_;
  nlohmann::json values_ = nlohmann::json::object();
};

}  // namespace zonaris
