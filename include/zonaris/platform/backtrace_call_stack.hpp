#pragma once

#include "zonaris/export.h"

#include <string>
#include <vector>

#include "zonaris/platform/platform.hpp"

namespace zonaris::platform {

/// The calling thread's stack through glibc's backtrace(): one text per frame, innermost first,
/// starting with the caller of `symbols()`. Names of functions in the executable itself appear
/// only when it is linked with -rdynamic; otherwise a frame shows its module and address.
class ZONARIS_API BacktraceCallStack final : public CallStack {
 public:
  std::vector<std::string> symbols() const override;
};

}  // namespace zonaris::platform
