#pragma once

// What the fuzz harnesses share: the input as text, and a client on the simulated platform
// whose every request gets one canned answer.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/recording_delegate.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::fuzz {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// The input's lines, at most `most` of them; an input ending in a line break has no empty last
/// line.
inline std::vector<std::string> linesOf(std::string_view text, std::size_t most) {
  std::vector<std::string> lines;
  while (!text.empty() && lines.size() < most) {
    const auto end = text.find('\n');
    lines.emplace_back(text.substr(0, end));
    text = end == text.npos ? std::string_view() : text.substr(end + 1);
  }
  return lines;
}

/// The input's NUL-separated parts as a command line's arguments after `program`.
struct CommandLine {
  CommandLine(std::string_view text, const char* program) : words{program} {
    for (std::size_t from = 0; from < text.size();) {
      const auto end = std::min(text.find('\0', from), text.size());
      words.emplace_back(text.substr(from, end - from));
      from = end + 1;
    }
    for (const auto& word : words)
      argv.push_back(word.c_str());
  }
  int argc() const { return static_cast<int>(argv.size()); }
  std::vector<std::string> words;
  std::vector<const char*> argv;
};

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
