#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "common/counting_http.hpp"
#include "zonaris/service/reference_service.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/simulation/counting_location.hpp"
#include "zonaris/simulation/options.hpp"
#include "zonaris/simulation/score.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::sim_tool {

/// What a run needs, read and checked before anything starts.
struct Inputs {
  std::shared_ptr<const sim::Trace> trace;
  std::shared_ptr<const sim::BeaconSightings> beacons;
  platform::TimePoint start;
  platform::Duration until;
  std::shared_ptr<ZonarisTags> tags;
  std::optional<std::string> uuid;
  std::vector<service_tool::Fence> scoreFences;  ///< with `Options::score`
};

/// Why a run could not be set up: a message of one line, and the exit status zonaris-sim gives
/// it (`kUsageError` for an error in the user's input, 1 for anything else).
struct RunError {
  int status = 1;
  std::string message;
};

/// One run of the client on the simulated platform, as its options describe it:
/// the embedded reference service (on the virtual clock) or an external one, the install id
/// store, the device and the network, and the client configured and started. Virtual time moves
/// only inside `runFor` and `runUntil`, on the calling thread; every callback and log line of the
/// client arrives there (and the first ones inside `start`).
class SimRun {
 public:
  /// Checks the options, reads the inputs and starts the embedded service; the clock stands at the
  /// start time.
  static std::variant<std::unique_ptr<SimRun>, RunError> open(const Options& options);
  ~SimRun();
  SimRun(const SimRun&) = delete;
  SimRun& operator=(const SimRun&) = delete;

  /// Makes the simulated platform and the client and starts it. `delegate` is held for the
  /// whole run; `logSink` receives every line the library logs.
  std::optional<RunError> start(std::shared_ptr<ZonarisDelegate> delegate,
                                std::function<void(std::string_view)> logSink);

  /// Advance virtual time; nothing happens before `start` or after `finish`.
  void runFor(platform::Duration duration);
  void runUntil(platform::TimePoint end);

  platform::TimePoint now() const;
  /// Virtual seconds since the start.
  double elapsedSeconds() const;
  /// The end the options ask for: `Options::until`, else the trace's length + 60 s.
  platform::TimePoint end() const { return inputs_.start + inputs_.until; }
  const Inputs& inputs() const { return inputs_; }
  const Options& options() const { return options_; }

  /// Drops the client and the simulated platform (what remains queued holds the client) and
  /// stops the embedded service. Idempotent; the destructor calls it.
  void finish();

  /// What the run did, readable during and after it (from `start` on).
  bool started() const { return http_ != nullptr; }
  tools::CountingHttpClient& http() const { return *http_; }
  const CountingLocationManager* location() const { return location_.get(); }
  const sim::SimNetwork* network() const { return network_.get(); }

 private:
  SimRun(Options options, Inputs inputs);

  Options options_;
  Inputs inputs_;
  // The scheduler exists only once the simulation does, but the service and the output need
  // its clock from the start; until then (and after the end) the clock stands at the start.
  std::shared_ptr<std::atomic<sim::Scheduler*>> clock_ =
      std::make_shared<std::atomic<sim::Scheduler*>>(nullptr);
  std::unique_ptr<service_tool::ReferenceService> service_;
  std::string baseUrl_;
  std::string temporaryStore_;  ///< removed by `finish`
  std::string storeFolder_;
  std::shared_ptr<sim::Scheduler> scheduler_;
  std::shared_ptr<sim::SimNetwork> network_;
  std::shared_ptr<tools::CountingHttpClient> http_;
  std::shared_ptr<CountingLocationManager> location_;
  std::shared_ptr<ZonarisDelegate> delegate_;
  std::unique_ptr<sim::Simulation> simulation_;
  std::shared_ptr<Zonaris> client_;
};

}  // namespace zonaris::sim_tool
