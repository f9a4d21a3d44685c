#pragma once

// The client's settings that zonaris-sim and zonaris-agent share: their command-line options
// and the one sequence that applies them to a client.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <CLI/CLI.hpp>

#include "zonaris/zonaris.hpp"

namespace zonaris::tools {

/// What a tool sets on its client before starting it, checked.
struct ClientSettings {
  std::optional<std::string> uuid;  ///< canonical
  std::shared_ptr<ZonarisTags> tags;
  std::optional<std::pair<int, int>> silence;
  bool devMode = false;
  SamplingPolicy sampling = SamplingPolicy::Design;
  bool compress = false;
};

/// Applies `settings` to `client` and hands it `delegate` (which the client holds weakly: the
/// caller keeps it); the client is then ready to start.
void configureClient(Zonaris& client, const ClientSettings& settings,
                     const std::shared_ptr<ZonarisDelegate>& delegate);

/// The texts of --uuid, --tags and --silence as given, and whether each was.
struct ClientOptionTexts {
  std::string uuid, tags;
  std::pair<int, int> silence{0, 0};
  CLI::Option *uuidOpt = nullptr, *tagsOpt = nullptr, *silenceOpt = nullptr;
};

/// Adds --uuid, --tags, --silence and --dev-mode to `app`.
void addClientOptions(CLI::App& app, ClientOptionTexts& texts, bool& devMode);

/// Adds --sampling design|efficient (default design) to `app`, writing the word into `word`.
void addSamplingOption(CLI::App& app, std::string& word);

/// The sampling policy a --sampling word names.
SamplingPolicy samplingNamed(std::string_view word);

}  // namespace zonaris::tools
