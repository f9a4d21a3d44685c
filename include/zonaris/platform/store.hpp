#pragma once

#include "zonaris/export.h"

#include <cstdint>
#include <string>

namespace zonaris::platform {

/// The application's persistent key/value store. Values survive a restart of the process.
/// Callable from any thread.
class ZONARIS_API KeyValueStore {
 public:
  virtual ~KeyValueStore() = default;
  /// The integer stored under `key`; 0 when nothing (or something unreadable) is stored.
  virtual std::int64_t getLong(const std::string& key) const = 0;
  /// Stores `value` under `key`, replacing any earlier value. Never throws; a failed write
  /// leaves the earlier value in place.
  virtual void setLong(const std::string& key, std::int64_t value) = 0;
};

}  // namespace zonaris::platform
