#include "zonaris/platform/platform.hpp"

namespace zonaris::platform {

bool Platform::complete() const {
  return makeLocationManager && http && store && dispatcher && clock && logger && device &&
         callStack;
}

}  // namespace zonaris::platform
