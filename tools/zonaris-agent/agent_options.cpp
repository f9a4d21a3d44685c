#include "zonaris-agent/agent_options.hpp"

#include <cmath>
#include <cstdlib>

#include <CLI/CLI.hpp>

#include "common/cli_text.hpp"

namespace zonaris::agent {

namespace {

// A number of seconds: CLI11's Range alone lets NaN through (every comparison with it fails).
const CLI::Validator kFiniteSeconds(
    [](std::string& text) -> std::string {
      char* end = nullptr;
      const double value = std::strtod(text.c_str(), &end);
      if (text.empty() || *end != '\0' || !std::isfinite(value))
        return "not a number of seconds: " + text;
      return {};
    },
    "SECONDS");

}  // namespace

std::variant<Options, EarlyExit> parseOptions(int argc, const char* const* argv) {
  Options o;
  CLI::App app{
      "Runs the Zonaris client on this device with gpsd as its position source and prints every "
      "log line and delegate callback as one JSON object per line.",
      "zonaris-agent"};
  tools::ClientOptionTexts client;
  double until = 0;
  app.add_option("--service", o.service, "base URL of the service")->required();
  app.add_option("--app-key", o.appKey, "application key")->capture_default_str();
  app.add_option("--gpsd", o.gpsdText, "gpsd's address HOST:PORT")->capture_default_str();
  app.add_option("--store", o.store,
                 "folder of the install id store (default: $XDG_DATA_HOME/zonaris, else "
                 "~/.local/share/zonaris)");
  tools::addClientOptions(app, client, o.client.devMode);
  auto* untilOpt = app.add_option("--until", until, "stop after this many seconds")
                       ->check(kFiniteSeconds & CLI::Range(0.001, 366.0 * 24 * 3600));
  app.add_option("--stop-timeout", o.stopTimeout,
                 "longest the stop may take, in seconds; a second SIGINT or SIGTERM ends the "
                 "agent at once")
      ->capture_default_str()
      ->check(kFiniteSeconds & CLI::Range(0.0, 3600.0));
  std::string sampling = "design";
  tools::addSamplingOption(app, sampling);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return EarlyExit{0, app.help()};
  } catch (const CLI::ParseError& e) {
    return EarlyExit{kUsageError, "zonaris-agent: " + tools::oneLine(e.what())};
  }

  while (!o.service.empty() && o.service.back() == '/')
    o.service.pop_back();
  if (o.service.rfind("http://", 0) != 0 && o.service.rfind("https://", 0) != 0)
    return EarlyExit{kUsageError,
                     "zonaris-agent: --service: not an http:// or https:// URL: " + o.service};
  auto gpsd = platform::parseGpsdAddress(o.gpsdText);
  if (!gpsd)
    return EarlyExit{kUsageError, "zonaris-agent: --gpsd: not HOST:PORT: " + o.gpsdText};
  o.gpsd = *gpsd;
  if (client.uuidOpt->count()) {
    o.client.uuid = platform::canonicalUUID(client.uuid);
    if (!o.client.uuid)
      return EarlyExit{kUsageError, "zonaris-agent: --uuid: not a UUID: " + client.uuid};
  }
  if (client.tagsOpt->count()) {
    auto json = nlohmann::json::parse(client.tags, nullptr, false);
    if (json.is_discarded() || !json.is_object())
      return EarlyExit{kUsageError, "zonaris-agent: --tags: not a JSON object: " + client.tags};
    o.client.tags = std::make_shared<ZonarisTags>(std::move(json));
  }
  if (client.silenceOpt->count())
    o.client.silence = client.silence;
  if (untilOpt->count())
    o.until = until;
  o.client.sampling = tools::samplingNamed(sampling);
  return o;
}

}  // namespace zonaris::agent
