#pragma once

// zonaris-agent's command line.

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "common/client_options.hpp"
#include "zonaris/platform/gpsd.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::agent {

/// Status of a bad command line.
inline constexpr int kUsageError = 2;

/// What zonaris-agent runs with, checked: a URL, a gpsd address, a canonical UUID, tags that
/// are a JSON object.
struct Options {
  std::string service;
  std::string appKey = "demo";
  platform::GpsdOptions gpsd;
  std::string gpsdText = "localhost:2947";
  std::string store;
  tools::ClientSettings client;  ///< --uuid, --tags, --silence, --dev-mode, --sampling
  std::optional<double> until;
  /// Seconds from SIGINT, SIGTERM or --until to the exit, whatever gpsd and the service do.
  /// The README and examples/zonaris-agent.service (TimeoutStopSec=90) rely on this default.
  double stopTimeout = 60;
};

/// An exit before the run: the help text with status 0, or one error line with status 2.
struct EarlyExit {
  int status = kUsageError;
  std::string text;
};

/// Reads a command line; never throws. Fit for fuzzing: it reads no file and starts nothing.
std::variant<Options, EarlyExit> parseOptions(int argc, const char* const* argv);

}  // namespace zonaris::agent
