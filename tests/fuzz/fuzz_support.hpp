#pragma once

// What the fuzz harnesses share: the input as text, and a client on the simulated platform
// whose every request gets one canned answer.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "support/recording_delegate.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::fuzz {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Answers every request with the same status and body.
class CannedHttp final : public platform::HttpClient {
 public:
  CannedHttp(long status, std::string body) : status_(status), body_(std::move(body)) {}
  platform::HttpResponse send(const platform::HttpRequest&) override {
    platform::HttpResponse response;
    response.status = status_;
    response.body = body_;
    return response;
  }

 private:
  long status_;
  std::string body_;
};

/// A client in developer mode (so that every log line is formatted) on a fresh simulation
/// whose service answers `status` and `body`. The simulation is destroyed with this object,
/// dropping the work the client scheduled and with it the client.
struct CannedClient {
  CannedClient(long status, std::string_view body)
      : simulation(options(status, body)),
        delegate(std::make_shared<test::RecordingDelegate>()),
        client(Zonaris::initWithAppKey("fuzz", simulation.platform())) {
    client->setDevMode(true);
    client->setDelegate(delegate);
    client->setMInstallId(7);
  }

  static sim::SimulationOptions options(long status, std::string_view body) {
    sim::SimulationOptions o;
    o.http = std::make_shared<CannedHttp>(status, std::string(body));
    return o;
  }

  sim::Simulation simulation;
  std::shared_ptr<test::RecordingDelegate> delegate;
  std::shared_ptr<Zonaris> client;
};

}  // namespace zonaris::fuzz
