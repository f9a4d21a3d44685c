#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "zonaris/service/fence_set.hpp"
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
  /// A true event that counts neither way: a crossing of a stay, or of an absence between two
  /// stays, shorter than `kShortVisit`, and the dwells of such a stay.
  bool optional = false;
};

/// The exchanges counted per run, in this order.
enum RequestKind { kRegistration, kFenceQuery, kObservation, kErrorReport, kRequestKinds };

/// What one run did, as far as the score is concerned.
struct RunRecord {
  /// The events confirmed to the application, in order (`id` is looked up by name when 0).
  std::vector<FenceEvent> confirmed;
  std::uint64_t fixesTaken = 0;
  std::array<std::uint64_t, kRequestKinds> requests{};
  /// Observations the service answered without an event although the client had reported
  /// them for a reason: every answered observation but the first after a fence download (which
  /// the client sends for the fresh catalogue whatever it sees). The client reports only when
  /// its view of a fence differs from the last confirmed one, so each is a crossing or a dwell
  /// the service withheld.
  std::uint64_t unconfirmedObservations = 0;
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

/// How a confirmed event is judged. It matches the earliest true event not yet matched of the
/// same fence (by id) and type whose window holds it: from `kEarlyTolerance` before the true
/// event (a noisy fix can cross early), but not before the fence's previous true crossing,
/// until the fence's next true crossing (a confirmation after the device crossed back is
/// wrong, not late), and at most `kLateLimit` after the true event, counted from the end of an
/// outage that holds it (the service could not hear of it before); for a dwell, also from the
/// end of an outage that holds its stay's entry plus the dwell window (the service counts the
/// stay from when it heard of the entry). A confirmed event without
/// such a match is false; a true event that is not optional and has no match is missed. The
/// latency of a match is clamped at 0.
inline constexpr double kEarlyTolerance = 30.0;
inline constexpr double kLateLimit = 15.0 * 60.0;
/// Stays and absences shorter than this (seconds) make their crossings optional.
inline constexpr double kShortVisit = 120.0;

/// The score of a run as JSON: "truth" (optional events marked "optional": true), "matched",
/// "missed", "false", "optional" (each optional true event with the time it was confirmed, or
/// null), "unconfirmed_observations", "latency" (per type, of the matches that are not
/// optional: count, median, p95, max, nearest-rank), "hours", "fixes", "requests_per_hour",
/// "lost_visits" (visits that began and ended inside one outage, neither end confirmed),
/// "outages", and "baseline_15s" with the same figures for `fixedRateBaseline(inputs, 15)`.
/// All times are virtual seconds since the start, to the millisecond.
nlohmann::ordered_json score(const ScoreInputs& inputs, const RunRecord& run);

/// Reads the fences of a fences file for the score; nothing (and `error` set) when unreadable.
std::optional<std::vector<service_tool::Fence>> readScoreFences(const std::string& path,
                                                                std::string& error);

}  // namespace zonaris::sim_tool
