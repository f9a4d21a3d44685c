#pragma once

// A client on the simulated platform with its real simulated location service, talking to a
// recording server, with every log line stamped with the virtual second it was written at.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/recording_delegate.hpp"
#include "support/recording_server.hpp"
#include "zonaris/sim/location_manager.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::test {

class SamplingTest : public ::testing::Test {
 protected:
  /// Without a trace the location service delivers nothing by itself.
  explicit SamplingTest(std::shared_ptr<const sim::Trace> trace = nullptr) {
    server.respond("POST", "/install/error", {200, ""});
    sim::SimulationOptions options;
    options.baseUrl = server.baseUrl();
    options.trace = std::move(trace);
    options.logSink = [this](std::string_view line) {
      std::lock_guard lock(logMutex);
      stamped.emplace_back(simulation->elapsedSeconds(), std::string(line));
    };
    simulation = std::make_unique<sim::Simulation>(std::move(options));
    client = Zonaris::initWithAppKey("demo-key", simulation->platform());
    client->setDevMode(true);
    client->setDelegate(delegate);
  }

  /// Virtual seconds at which lines starting with `prefix` were logged.
  std::vector<double> timesOf(const std::string& prefix) const {
    std::lock_guard lock(logMutex);
    std::vector<double> out;
    for (const auto& [t, line] : stamped) {
      if (line.rfind(prefix, 0) == 0)
        out.push_back(t);
    }
    return out;
  }
  std::vector<double> fixTimes() const { return timesOf("New location: "); }

  static platform::Location fixAt(double lat, double lon, double secondsAfterStart = 0.0,
                                  double accuracy = 5.0) {
    platform::Location l;
    l.latitude = lat;
    l.longitude = lon;
    l.horizontalAccuracy = accuracy;
    l.timestamp = sim::defaultStartTime() + std::chrono::duration_cast<platform::Duration>(
                                                std::chrono::duration<double>(secondsAfterStart));
    return l;
  }

  RecordingServer server;
  mutable std::mutex logMutex;
  std::vector<std::pair<double, std::string>> stamped;
  std::unique_ptr<sim::Simulation> simulation;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<Zonaris> client;
};

}  // namespace zonaris::test
