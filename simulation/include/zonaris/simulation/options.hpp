#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "zonaris/service/event_rules.hpp"
#include "zonaris/sim/location_manager.hpp"
#include "zonaris/sim/network.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::sim_tool {

/// One simulated run, as given: file names and texts are read and checked when the run opens.
/// Exactly one of `fences` and `service` is set.
struct Options {
  std::string trace;                   ///< GPX or CSV trace
  std::optional<std::string> fences;   ///< run the embedded service with these fences
  std::optional<std::string> service;  ///< or talk to this one (see `isServiceBaseUrl`)
  std::string appKey = "demo";
  std::optional<std::string> store;  ///< install id store folder; else a temporary one
  std::optional<std::string> uuid;   ///< beacon proximity UUID
  std::optional<std::string> tags;   ///< a JSON object
  std::optional<std::pair<int, int>> silence;
  bool devMode = false;
  std::optional<std::string> beacons;  ///< beacon sightings (CSV)
  std::optional<std::string> start;    ///< local start time YYYY-MM-DDTHH:MM:SS
  std::optional<double> until;         ///< virtual seconds to run
  std::string systemVersion = "17.0";

  std::optional<double> pace;  ///< replay the trace's points at this speed (m/s)

  // The device and the network (defaults: the "ideal" preset, exact fixes at once and a network
  // that takes no time).
  sim::DeviceModel device{.idleFixes = sim::IdleFixes::Network};
  sim::NetworkModel network;
  /// Keep the fences' ground truth for a score of the run (`Inputs::scoreFences`; needs
  /// `fences`).
  bool score = false;
  SamplingPolicy sampling = SamplingPolicy::Design;
  bool compress = false;  ///< accept gzip-compressed fence catalogues
  /// The embedded service's confirmation rules.
  service_tool::ConfirmRule confirm = service_tool::ConfirmRule::Robust;
  service_tool::RobustParams robust;
};

/// What a device preset sets: the fix delay (s), the stale first fix, the noise (m), the
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

/// True for the names `devicePreset` knows.
bool isDevicePreset(std::string_view name);

/// Sets the device and the network of `options` as `preset` describes them (the other fields
/// of both stay).
void applyDevicePreset(const DevicePreset& preset, Options& options);

/// The idle fixes named "none", "network" or "gnss"; any other name reads as "network".
sim::IdleFixes idleFixesNamed(std::string_view name);

/// `url` without its trailing slashes, as a service's base URL is kept.
std::string withoutTrailingSlashes(std::string url);

/// True for an http:// or https:// URL without a trailing slash.
bool isServiceBaseUrl(std::string_view url);

/// Status of every error in the user's input: options, files, file contents.
inline constexpr int kUsageError = 2;

}  // namespace zonaris::sim_tool
