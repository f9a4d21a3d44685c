#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "zonaris/service/event_rules.hpp"
#include "zonaris/sim/location_manager.hpp"
#include "zonaris/sim/network.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::sim_tool {

/// The command line of zonaris-sim, as given (files are read later).
struct Options {
  std::string trace;
  std::optional<std::string> fences;   ///< run the embedded service with these fences
  std::optional<std::string> service;  ///< or talk to this one
  std::string appKey = "demo";
  std::optional<std::string> store;
  std::optional<std::string> uuid;
  std::optional<std::string> tags;
  std::optional<std::pair<int, int>> silence;
  bool devMode = false;
  std::optional<std::string> beacons;
  std::optional<std::string> start;
  std::optional<double> until;
  std::string systemVersion = "17.0";

  std::optional<double> pace;  ///< --pace: replay the trace's points at this speed (m/s)

  // The device and the network (defaults: the ideal device, a network that takes no time).
  sim::DeviceModel device;           ///< --device, --seed, --fix-delay, --stale-first, --noise,
                                     ///< --outliers, --batch, --idle-fixes, --motion
  sim::NetworkModel network;         ///< --latency (also --device), --outage, --outage-kind
  std::optional<std::string> score;  ///< --score FILE
  SamplingPolicy sampling = SamplingPolicy::Design;  ///< --sampling design|efficient
  bool compress = false;                             ///< --compress: gzip catalogues
  /// The embedded service's confirmation rules: --confirm and its parameters.
  service_tool::ConfirmRule confirm = service_tool::ConfirmRule::Robust;
  service_tool::RobustParams robust;
};

/// What a --device preset sets: the fix delay (s), the stale first fix, the noise (m), the
/// outlier share, the latency (ms) and the idle fixes ("none", "network" or "gnss").
struct DevicePreset {
  double fixDelay;
  bool staleFirst;
  double noise;
  double outliers;
  double latency;
  const char* idleFixes;
};

/// The preset "ideal", "realistic" or "harsh"; any other name reads as "ideal".
const DevicePreset& devicePreset(std::string_view name);

/// What the command line asks for: a run, or an early exit with a status and a text (the help
/// text with status 0, or one error line with status 2).
struct EarlyExit {
  int status = 2;
  std::string text;
};

/// Reads a command line; never throws. Fit for fuzzing: it reads no file and starts nothing.
std::variant<Options, EarlyExit> parseOptions(int argc, const char* const* argv);

/// Status of every error in the user's input: options, files, file contents.
inline constexpr int kUsageError = 2;

}  // namespace zonaris::sim_tool
