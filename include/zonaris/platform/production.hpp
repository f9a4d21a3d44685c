#pragma once

// The production platform's parts, for applications that assemble a platform of their own
// (or take `defaultPlatform()` and replace a part) and for tests of the parts themselves. Each
// part has its own header; this one includes them all.

#include "zonaris/platform/backtrace_call_stack.hpp"
#include "zonaris/platform/feed_location_manager.hpp"
#include "zonaris/platform/file_store.hpp"
#include "zonaris/platform/platform.hpp"
#include "zonaris/platform/production_platform.hpp"
#include "zonaris/platform/stderr_logger.hpp"
#include "zonaris/platform/system_clock.hpp"
#include "zonaris/platform/system_device_info.hpp"
#include "zonaris/platform/thread_dispatcher.hpp"

namespace zonaris::platform {

class GpsdLocationManager;

}  // namespace zonaris::platform
