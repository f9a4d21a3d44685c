#include "common/client_options.hpp"

namespace zonaris::tools {

void configureClient(Zonaris& client, const ClientSettings& settings,
                     const std::shared_ptr<ZonarisDelegate>& delegate) {
  if (settings.uuid)
    client.setUUID(*settings.uuid);
  client.setDevMode(settings.devMode);
  client.setSamplingPolicy(settings.sampling);
  client.setCompression(settings.compress);
  if (settings.tags)
    client.setTags(settings.tags);
  if (settings.silence)
    client.setSilenceWindowStart(settings.silence->first, settings.silence->second);
  client.setDelegate(delegate);
}

void addClientOptions(CLI::App& app, ClientOptionTexts& texts, bool& devMode) {
  texts.uuidOpt = app.add_option("--uuid", texts.uuid, "beacon proximity UUID");
  texts.tagsOpt = app.add_option("--tags", texts.tags, "tags as a JSON object");
  texts.silenceOpt =
      app.add_option("--silence", texts.silence, "daily silence window: START STOP hours")
          ->check(CLI::Range(0, 23));
  app.add_flag("--dev-mode", devMode, "developer mode: the client logs every step");
}

void addSamplingOption(CLI::App& app, std::string& word) {
  app.add_option("--sampling", word,
                 "when the client samples: design (the design's rule) or efficient (fewer "
                 "fixes, see the README)")
      ->capture_default_str()
      ->check(CLI::IsMember({"design", "efficient"}));
}

SamplingPolicy samplingNamed(std::string_view word) {
  return word == "efficient" ? SamplingPolicy::Efficient : SamplingPolicy::Design;
}

}  // namespace zonaris::tools
