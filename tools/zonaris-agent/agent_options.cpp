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
  std::string uuid, tags;
  std::pair<int, int> silence{0, 0};
  double until = 0;
  app.add_option("--service", o.service, "base URL of the service")->required();
  app.add_option("--app-key", o.appKey, "application key")->capture_default_str();
  app.add_option("--gpsd", o.gpsdText, "gpsd's address HOST:PORT")->capture_default_str();
  app.add_option("--store", o.store,
                 "folder of the install id store (default: $XDG_DATA_HOME/zonaris, else "
                 "~/.local/share/zonaris)");
  auto* uuidOpt = app.add_option("--uuid", uuid, "beacon proximity UUID");
  auto* tagsOpt = app.add_option("--tags", tags, "tags as a JSON object");
  auto* silenceOpt = app.add_option("--silence", silence, "daily silence window: START STOP hours")
                         ->check(CLI::Range(0, 23));
  app.add_flag("--dev-mode", o.devMode, "developer mode: the client logs every step");
  auto* untilOpt = app.add_option("--until", until, "stop after this many seconds")
                       ->check(kFiniteSeconds & CLI::Range(0.001, 366.0 * 24 * 3600));
  app.add_option("--stop-timeout", o.stopTimeout,
                 "longest the stop may take, in seconds; a second SIGINT or SIGTERM ends the "
                 "agent at once")
      ->capture_default_str()
      ->check(kFiniteSeconds & CLI::Range(0.0, 3600.0));
  std::string sampling = "design";
  app.add_option("--sampling", sampling,
                 "when the client samples: design (the design's rule) or efficient (fewer "
                 "fixes; gpsd has no motion sensor, so stops are bounded by the nearest fence)")
      ->capture_default_str()
      ->check(CLI::IsMember({"design", "efficient"}));
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
  if (uuidOpt->count()) {
    o.uuid = platform::canonicalUUID(uuid);
    if (!o.uuid)
      return EarlyExit{kUsageError, "zonaris-agent: --uuid: not a UUID: " + uuid};
  }
  if (tagsOpt->count()) {
    auto json = nlohmann::json::parse(tags, nullptr, false);
    if (json.is_discarded() || !json.is_object())
      return EarlyExit{kUsageError, "zonaris-agent: --tags: not a JSON object: " + tags};
    o.tags = std::make_shared<ZonarisTags>(std::move(json));
  }
  if (silenceOpt->count())
    o.silence = silence;
  if (untilOpt->count())
    o.until = until;
  o.sampling = sampling == "efficient" ? SamplingPolicy::Efficient : SamplingPolicy::Design;
  return o;
}

}  // namespace zonaris::agent
