#pragma once

#include "zonaris/export.h"

#include <mutex>
#include <string>
#include <string_view>

#include "zonaris/platform/log.hpp"

namespace zonaris::platform {

/// Writes each line to stderr (after `prefix`), with one write call per line so that lines
/// from several threads do not interleave.
class ZONARIS_API StderrLogger final : public Logger {
 public:
  explicit StderrLogger(std::string prefix = {});
  void log(std::string_view line) override;

 private:
  std::string prefix_;
  std::mutex mutex_;
};

}  // namespace zonaris::platform
