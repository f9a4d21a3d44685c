#pragma once

#include "zonaris/export.h"

#include <cstdint>

#include "zonaris/platform/store.hpp"

namespace zonaris {

/// Keeps the installation's id across launches, under the key "installId" of the platform's
/// key/value store. Stateless: both operations are static.
class ZONARIS_API ZonarisUserDefaults {
 public:
  static constexpr const char* kInstallIdKey = "installId";

  /// Stores `installId` as it is (no check that it is 1 or more).
  static void setInstallId(platform::KeyValueStore& store, std::int64_t installId);
  /// The stored id; 0 when none was ever stored.
  static std::int64_t getInstallId(const platform::KeyValueStore& store);
};

}  // namespace zonaris
