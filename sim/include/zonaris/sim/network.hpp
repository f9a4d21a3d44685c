#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zonaris/platform/clock.hpp"
#include "zonaris/platform/http.hpp"
#include "zonaris/sim/scheduler.hpp"

namespace zonaris::sim {

/// A time in which the service cannot be reached: from `start` (included) to `end` (excluded),
/// in virtual seconds since the start of the simulation.
struct Outage {
  double start = 0.0;
  double end = 0.0;
  bool contains(double t) const { return start <= t && t < end; }
  bool operator==(const Outage&) const = default;
};

/// What an exchange meets during an outage.
enum class OutageKind {
  Unreachable,  ///< no answer at all: a transport error, status 0
  Unavailable,  ///< the service answers 503 with a JSON error body
};

/// The network between the device and the service.
struct NetworkModel {
  /// The time one exchange takes, there and back. Half of it passes before the request reaches
  /// the service, the other half before the answer is back.
  platform::Duration latency{0};
  std::vector<Outage> outages;
  OutageKind outageKind = OutageKind::Unreachable;

  bool active() const { return latency > platform::Duration::zero() || !outages.empty(); }
};

/// Reads "START-END" (seconds, END later than START, both finite and not negative), or nothing.
std::optional<Outage> parseOutage(std::string_view text);
/// Reads "unreachable" or "503", or nothing.
std::optional<OutageKind> parseOutageKind(std::string_view text);

/// An HTTP client that puts a simulated network in front of another one. Each exchange takes
/// the model's latency in virtual time: the calling task waits in `Scheduler::sleepFor` (so the
/// scheduler must have waiting enabled; the constructor enables it when the latency is not
/// zero) while every other task goes on; where a task cannot wait (outside the scheduler, or
/// while it shuts down) the exchange takes no time. An exchange whose request reaches the service
/// inside an outage is not passed on; it gets what the outage kind says, after the full latency.
///
/// Works with any inner client: the embedded service or an external one. Thread-safe.
class SimNetwork final : public platform::HttpClient {
 public:
  SimNetwork(std::shared_ptr<platform::HttpClient> inner,
             const std::shared_ptr<Scheduler>& scheduler, NetworkModel model);

  platform::HttpResponse send(const platform::HttpRequest& request) override;

  /// Exchanges turned away by an outage so far.
  std::uint64_t refused() const;

 private:
  std::shared_ptr<platform::HttpClient> inner_;
  std::weak_ptr<Scheduler> scheduler_;
  NetworkModel model_;
  mutable std::mutex mutex_;
  std::uint64_t refused_ = 0;
};

}  // namespace zonaris::sim
