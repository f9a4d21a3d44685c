#include "zonaris/simulation/options.hpp"

#include <chrono>

namespace zonaris::sim_tool {

const DevicePreset& devicePreset(std::string_view name) {
  static const DevicePreset ideal{1.0, false, 0.0, 0.0, 0.0, "network"};
  static const DevicePreset realistic{5.0, true, 10.0, 0.005, 300.0, "network"};
  static const DevicePreset harsh{15.0, false, 25.0, 0.02, 2000.0, "none"};
  return name == "realistic" ? realistic : name == "harsh" ? harsh : ideal;
}

bool isDevicePreset(std::string_view name) {
  return name == "ideal" || name == "realistic" || name == "harsh";
}

sim::IdleFixes idleFixesNamed(std::string_view name) {
  return name == "none"   ? sim::IdleFixes::None
         : name == "gnss" ? sim::IdleFixes::Gnss
                          : sim::IdleFixes::Network;
}

void applyDevicePreset(const DevicePreset& preset, Options& options) {
  options.device.fixDelay =
      std::chrono::round<platform::Duration>(std::chrono::duration<double>(preset.fixDelay));
  options.device.staleFirst = preset.staleFirst;
  options.device.noise = preset.noise;
  options.device.outlierRate = preset.outliers;
  options.device.idleFixes = idleFixesNamed(preset.idleFixes);
  options.network.latency = std::chrono::round<platform::Duration>(
      std::chrono::duration<double, std::milli>(preset.latency));
}

std::string withoutTrailingSlashes(std::string url) {
  while (!url.empty() && url.back() == '/')
    url.pop_back();
  return url;
}

bool isServiceBaseUrl(std::string_view url) {
  return (url.starts_with("http://") || url.starts_with("https://")) && !url.ends_with('/');
}

}  // namespace zonaris::sim_tool
