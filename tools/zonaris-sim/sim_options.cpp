#include "sim_options.hpp"

#include <CLI/CLI.hpp>

namespace zonaris::sim_tool {

namespace {

// CLI11 may spread a message over lines; the tool promises one error line.
std::string oneLine(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
    text.pop_back();
  for (char& c : text) {
    if (c == '\n')
      c = ' ';
  }
  return text;
}

}  // namespace

std::variant<Options, EarlyExit> parseOptions(int argc, const char* const* argv) {
  Options o;
  CLI::App app{
      "Runs the Zonaris client in virtual time along a recorded or synthesised trace and prints "
      "every log line and delegate callback as one JSON object per line.",
      "zonaris-sim"};

  std::string fences, service, store, uuid, tags, beacons, start;
  std::pair<int, int> silence{0, 0};
  double until = 0.0;

  app.add_option("--trace", o.trace, "GPX 1.1 or CSV t,lat,lon[,accuracy][,speed] trace")
      ->required()
      ->check(CLI::ExistingFile);
  auto* fencesOpt =
      app.add_option("--fences", fences, "run the embedded service with these fences (JSON array)")
          ->check(CLI::ExistingFile);
  auto* serviceOpt =
      app.add_option("--service", service, "base URL of an external service instead");
  fencesOpt->excludes(serviceOpt);
  app.add_option("--app-key", o.appKey, "application key")->capture_default_str();
  auto* storeOpt = app.add_option("--store", store,
                                  "folder of the install id store (default: a new temporary "
                                  "folder, removed at the end)");
  auto* uuidOpt = app.add_option("--uuid", uuid, "beacon proximity UUID");
  auto* tagsOpt = app.add_option("--tags", tags, "tags as a JSON object");
  auto* silenceOpt = app.add_option("--silence", silence, "daily silence window: START STOP hours")
                         ->check(CLI::Range(0, 23));
  app.add_flag("--dev-mode", o.devMode, "developer mode: the client logs every step");
  auto* beaconsOpt =
      app.add_option("--beacons", beacons,
                     "beacon sightings, CSV t_start,t_end,uuid,major,minor,accuracy,proximity")
          ->check(CLI::ExistingFile);
  auto* startOpt =
      app.add_option("--start", start,
                     "local start time YYYY-MM-DDTHH:MM:SS (default: the trace's first time, else "
                     "2026-01-01T12:00:00)");
  auto* untilOpt =
      app.add_option("--until", until, "virtual seconds to run (default: the trace's length + 60)")
          ->check(CLI::Range(0.001, 366.0 * 24 * 3600));
  app.add_option("--system-version", o.systemVersion, "the device's system version")
      ->capture_default_str();

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return EarlyExit{0, app.help()};
  } catch (const CLI::ParseError& e) {
    return EarlyExit{kUsageError, "zonaris-sim: " + oneLine(e.what())};
  }

  if (fencesOpt->count() == 0 && serviceOpt->count() == 0)
    return EarlyExit{kUsageError, "zonaris-sim: one of --fences FILE or --service URL is needed"};
  if (fencesOpt->count())
    o.fences = fences;
  if (serviceOpt->count()) {
    while (!service.empty() && service.back() == '/')
      service.pop_back();
    if (service.rfind("http://", 0) != 0 && service.rfind("https://", 0) != 0)
      return EarlyExit{kUsageError,
                       "zonaris-sim: --service: not an http:// or https:// URL: " + service};
    o.service = service;
  }
  if (storeOpt->count())
    o.store = store;
  if (uuidOpt->count())
    o.uuid = uuid;
  if (tagsOpt->count())
    o.tags = tags;
  if (silenceOpt->count())
    o.silence = silence;
  if (beaconsOpt->count())
    o.beacons = beacons;
  if (startOpt->count())
    o.start = start;
  if (untilOpt->count())
    o.until = until;
  return o;
}

}  // namespace zonaris::sim_tool
