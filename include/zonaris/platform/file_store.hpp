#pragma once

#include "zonaris/export.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "zonaris/platform/log.hpp"
#include "zonaris/platform/store.hpp"

namespace zonaris::platform {

/// The key/value store as one small JSON file ("zonaris-store.json", an object of integers) in
/// a folder that is created when missing.
///
/// Each write rewrites the whole file atomically: the new content goes into a temporary file in
/// the same folder, which is flushed to disk (fsync), renamed over the old file, and the folder
/// itself is flushed. A crash at any moment therefore leaves the old or the new file, never a
/// mix. Writers of every process serialise on an advisory lock (flock) on the folder and
/// re-read the file before changing it, so two stores over the same folder keep each other's
/// keys. Reads take the file as it is: missing, unreadable or malformed content, a value that is
/// not an integer or does not fit 64 bits, all read as 0. Thread-safe; never throws; a failed
/// write leaves the earlier value and is written to the logger given to `setLogger` (none by
/// default).
class ZONARIS_API FileStore final : public KeyValueStore {
 public:
  static constexpr const char* kFileName = "zonaris-store.json";

  explicit FileStore(std::string directory);
  std::int64_t getLong(const std::string& key) const override;
  void setLong(const std::string& key, std::int64_t value) override;

  const std::string& directory() const { return directory_; }
  /// The path of the store's file.
  std::string filePath() const;
  /// Where failed writes are reported; null, the default, reports them nowhere.
  void setLogger(std::shared_ptr<Logger> logger);

 private:
  std::string directory_;
  mutable std::mutex mutex_;
  std::shared_ptr<Logger> logger_;
};

}  // namespace zonaris::platform
