#pragma once

// A client on a simulated platform talking to a real recording server on 127.0.0.1 over the
// production libcurl client.

#include <gtest/gtest.h>

#include <algorithm>

#include "support/fake_location_manager.hpp"
#include "support/recording_delegate.hpp"
#include "support/recording_server.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::test {

class ServiceTest : public ::testing::Test {
 protected:
  explicit ServiceTest(platform::TimePoint start = sim::defaultStartTime()) {
    sim::SimulationOptions options;
    options.start = start;
    options.baseUrl = server.baseUrl();
    options.makeLocationManager = [](const auto&) {
      return std::make_shared<FakeLocationManager>();
    };
    simulation = std::make_unique<sim::Simulation>(std::move(options));
    client = Zonaris::initWithAppKey("demo-key", simulation->platform());
    client->setDevMode(true);
    client->setDelegate(delegate);
    client->setMInstallId(42);
    server.respond("POST", "/install/error", {200, ""});
  }

  long logCount(const std::string& line) const {
    const auto lines = simulation->logger().lines();
    return std::count(lines.begin(), lines.end(), line);
  }
  bool logged(const std::string& line) const { return logCount(line) > 0; }
  std::vector<nlohmann::json> errorReports() const {
    std::vector<nlohmann::json> out;
    for (const auto& r : server.requests("POST", "/install/error"))
      out.push_back(nlohmann::json::parse(r.body, nullptr, false));
    return out;
  }

  RecordingServer server;
  std::unique_ptr<sim::Simulation> simulation;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<Zonaris> client;
};

}  // namespace zonaris::test
