#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "zonaris-service/fence_set.hpp"
#include "zonaris/sim/beacon_sightings.hpp"
#include "zonaris/sim/network.hpp"
#include "zonaris/sim/trace.hpp"

namespace zonaris::sim_tool {

/// What the truth of a run is computed from: where the device really was, what it could
/// really see, and the fences.
struct ScoreInputs {
  std::shared_ptr<const sim::Trace> trace;
  std::shared_ptr<const sim::BeaconSightings> sightings;  ///< may be null: no beacon seen
  std::vector<service_tool::Fence> fences;                ///< as the service serves them
  double seconds = 0.0;                                   ///< length of the run
  std::vector<sim::Outage> outages;                       ///< when the service was away
};

/// An event type of fence `id` ("entry", "exit" or "dwell") at `t` virtual seconds.
struct FenceEvent {
  std::int64_t id = 0;
  std::string fence;  ///< its name
  std::string type;
  double t = 0.0;
};

/// The exchanges counted per run, in this order.
enum RequestKind { kRegistration, kFenceQuery, kObservation, kErrorReport, kRequestKinds };

/// What one run did, as far as the score is concerned.
struct RunRecord {
  /// The events confirmed to the application, in order (`id` is looked up by name when 0).
  std::vector<FenceEvent> confirmed;
  std::uint64_t fixesTaken = 0;
  std::array<std::uint64_t, kRequestKinds> requests{};
};

/// The true events at 1 s resolution, by time, then fence order: "entry" at the first second
/// found inside, "exit" at the first second outside again, "dwell" when a stay has lasted as
/// long as one of the fence's dwell windows. Inside follows the rules the device and the
/// service share: point fences within their radius of the geometry, beacon fences while one of
/// the sightings is the fence's beacon, any other fence inside its geometry. Fences without
/// event types take no part.
std::vector<FenceEvent> groundTruth(const ScoreInputs& inputs);

/// An idealised client that takes a perfect fix every `interval` seconds from 1 s on, fetches
/// the fences at the first fix and again after moving more than 1000 m, sees beacons the moment
/// they are visible, and reports an observation whenever the service's view of a fence differs
/// from what it sees (or after a download); the service answers at once by its own event rules.
/// No latency, no outage. It is the yardstick a sampling policy is measured against.
RunRecord fixedRateBaseline(const ScoreInputs& inputs, double interval);

/// A confirmed event matches the latest true event of the same fence and type at or before it,
/// unless that one was matched already (a repeat is false); failing that, an unmatched one up
/// to `kEarlyTolerance` after it, since a noisy fix can cross early. What is left over on either
/// side is missed or false.
inline constexpr double kEarlyTolerance = 30.0;

/// The score of a run as JSON: "truth", "matched", "missed", "false", "latency" (per type:
/// count, median, p95, max, nearest-rank), "hours", "fixes", "requests_per_hour",
/// "lost_visits" (visits that began and ended inside one outage, neither end confirmed),
/// "outages", and "baseline_15s" with the same figures for `fixedRateBaseline(inputs, 15)`.
/// All times are virtual seconds since the start, to the millisecond.
nlohmann::ordered_json score(const ScoreInputs& inputs, const RunRecord& run);

/// Reads the fences of a fences file for the score; nothing (and `error` set) when unreadable.
std::optional<std::vector<service_tool::Fence>> readScoreFences(const std::string& path,
                                                                std::string& error);

}  // namespace zonaris::sim_tool
