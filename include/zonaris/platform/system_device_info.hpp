#pragma once

#include "zonaris/export.h"

#include <string>

#include "zonaris/platform/platform.hpp"

namespace zonaris::platform {

/// The operating system's version: VERSION_ID of os-release (/etc/os-release, else
/// /usr/lib/os-release), for example "12" or "22.04", which like a phone's system version names
/// the release the user installed; when there is none, the kernel release from uname (for
/// example "6.1.0-18-amd64"); "0" when even that fails. Read once, at construction.
class ZONARIS_API SystemDeviceInfo final : public DeviceInfo {
 public:
  SystemDeviceInfo();
  std::string systemVersion() const override { return version_; }

 private:
  std::string version_;
};

}  // namespace zonaris::platform
