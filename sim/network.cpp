// The simulated network: latency in virtual time and outages of the service.
#include "zonaris/sim/network.hpp"

#include <charconv>
#include <cmath>

namespace zonaris::sim {

namespace {

std::optional<double> seconds(std::string_view text) {
  double value = 0.0;
  const auto* end = text.data() + text.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (text.empty() || ec != std::errc() || ptr != end || !std::isfinite(value) || value < 0.0)
    return std::nullopt;
  return value;
}

}  // namespace

std::optional<Outage> parseOutage(std::string_view text) {
  const auto dash = text.find('-');
  if (dash == std::string_view::npos)
    return std::nullopt;
  const auto start = seconds(text.substr(0, dash));
  const auto end = seconds(text.substr(dash + 1));
  if (!start || !end || !(*end > *start))
    return std::nullopt;
  return Outage{*start, *end};
}

std::optional<OutageKind> parseOutageKind(std::string_view text) {
  if (text == "unreachable")
    return OutageKind::Unreachable;
  if (text == "503")
    return OutageKind::Unavailable;
  return std::nullopt;
}

SimNetwork::SimNetwork(std::shared_ptr<platform::HttpClient> inner,
                       const std::shared_ptr<Scheduler>& scheduler, NetworkModel model)
    : inner_(std::move(inner)), scheduler_(scheduler), model_(std::move(model)) {
  if (model_.latency > platform::Duration::zero())
    scheduler->enableWaiting();
}

platform::HttpResponse SimNetwork::send(const platform::HttpRequest& request) {
  auto scheduler = scheduler_.lock();
  if (!scheduler)
    return platform::HttpResponse{true, 0, {}, "the simulation has ended"};
  const auto there = model_.latency / 2;
  const auto back = model_.latency - there;
  // A wait that cannot be made (outside a task, or while the simulation shuts down) is skipped:
  // the exchange then takes no time, as without a latency.
  auto wait = [&](platform::Duration d) {
    if (d > platform::Duration::zero())
      scheduler->sleepFor(d);
  };
  wait(there);

  const double arrival = std::chrono::duration<double>(scheduler->elapsed()).count();
  bool down = false;
  for (const auto& outage : model_.outages)
    down = down || outage.contains(arrival);

  platform::HttpResponse response;
  if (!down) {
    response = inner_->send(request);
  } else {
    {
      std::lock_guard lock(mutex_);
      ++refused_;
    }
    if (model_.outageKind == OutageKind::Unreachable)
      response =
          platform::HttpResponse{true, 0, {}, "simulated outage: the service is unreachable"};
    else
      response = platform::HttpResponse{false, 503, R"({"error":"service unavailable"})", {}};
  }
  wait(back);
  return response;
}

std::uint64_t SimNetwork::refused() const {
  std::lock_guard lock(mutex_);
  return refused_;
}

}  // namespace zonaris::sim
