#include "sim_options.hpp"

#include <cstdint>
#include <vector>

#include <CLI/CLI.hpp>

#include "common/cli_text.hpp"
#include "common/client_options.hpp"
#include "common/confirm_options.hpp"

namespace zonaris::sim_tool {

namespace {

/// What the command line gave, before it is mapped onto the options: the values of the options
/// that have no field of their own, and the options whose presence matters.
struct Given {
  std::string fences, service, store, beacons, start;
  tools::ClientOptionTexts client;
  double until = 0.0;
  CLI::Option *fencesOpt = nullptr, *serviceOpt = nullptr, *storeOpt = nullptr,
              *beaconsOpt = nullptr, *startOpt = nullptr, *untilOpt = nullptr;

  std::string device = "ideal", idleFixes, motion = "none";
  double fixDelay = 1.0, noise = 0.0, outliers = 0.0, latency = 0.0, pace = 0.0;
  bool staleFirst = false;
  CLI::Option *fixDelayOpt = nullptr, *staleFirstOpt = nullptr, *noiseOpt = nullptr,
              *outliersOpt = nullptr, *idleFixesOpt = nullptr, *paceOpt = nullptr,
              *latencyOpt = nullptr;

  std::vector<std::string> outages;
  std::string outageKind = "unreachable", sampling = "design", score;
  CLI::Option* scoreOpt = nullptr;
};

EarlyExit usage(std::string message) {
  return EarlyExit{kUsageError, "zonaris-sim: " + std::move(message)};
}

/// The trace, the service, the client's settings and the span of the run.
void addRunOptions(CLI::App& app, Options& o, Given& g) {
  app.add_option("--trace", o.trace,
                 "GPX 1.0/1.1 or CSV t,lat,lon[,accuracy][,speed] trace (routes and untimed "
                 "tracks with --pace)")
      ->required()
      ->check(CLI::ExistingFile);
  g.fencesOpt = app.add_option("--fences", g.fences,
                               "run the embedded service with these fences (JSON array)")
                    ->check(CLI::ExistingFile);
  g.serviceOpt = app.add_option("--service", g.service, "base URL of an external service instead");
  g.fencesOpt->excludes(g.serviceOpt);
  app.add_option("--app-key", o.appKey, "application key")->capture_default_str();
  g.storeOpt = app.add_option("--store", g.store,
                              "folder of the install id store (default: a new temporary "
                              "folder, removed at the end)");
  tools::addClientOptions(app, g.client, o.devMode);
  g.beaconsOpt =
      app.add_option("--beacons", g.beacons,
                     "beacon sightings, CSV t_start,t_end,uuid,major,minor,accuracy,proximity")
          ->check(CLI::ExistingFile);
  g.startOpt =
      app.add_option("--start", g.start,
                     "local start time YYYY-MM-DDTHH:MM:SS (default: the trace's first time, else "
                     "2026-01-01T12:00:00)");
  g.untilOpt = app.add_option("--until", g.until,
                              "virtual seconds to run (default: the trace's length + 60)")
                   ->check(CLI::Range(0.001, 366.0 * 24 * 3600));
  app.add_option("--system-version", o.systemVersion, "the device's system version")
      ->capture_default_str();
}

/// The device model: a preset (the ideal device by default), single options that override it,
/// and the pace of a trace without times.
void addDeviceOptions(CLI::App& app, Options& o, Given& g) {
  app.add_option("--device", g.device,
                 "preset of the options below: ideal (exact fixes at once, a network that takes "
                 "no time), realistic (--noise 10 --stale-first --fix-delay 5 --latency 300 "
                 "--outliers 0.005) or harsh (--noise 25 --fix-delay 15 --outliers 0.02 "
                 "--latency 2000 --idle-fixes none); an option given as well wins")
      ->capture_default_str()
      ->check(CLI::IsMember({"ideal", "realistic", "harsh"}));
  app.add_option("--seed", o.device.seed, "seed of everything random (same seed, same output)")
      ->capture_default_str();
  g.fixDelayOpt =
      app.add_option("--fix-delay", g.fixDelay, "seconds from arming a sample to the fix")
          ->check(CLI::Range(0.0, 3600.0));
  g.staleFirstOpt =
      app.add_flag("--stale-first", g.staleFirst,
                   "deliver the last cached fix (old time, coarse accuracy) before the real one "
                   "(--stale-first=false to turn a preset's off)");
  g.noiseOpt = app.add_option("--noise", g.noise,
                              "Gaussian position noise, metres (standard deviation per axis)")
                   ->check(CLI::Range(0.0, 10000.0));
  g.outliersOpt =
      app.add_option("--outliers", g.outliers,
                     "share of fixes (0 to 1) thrown 200-800 m off while claiming good accuracy")
          ->check(CLI::Range(0.0, 1.0));
  app.add_option("--batch", o.device.batch, "fixes delivered together in one callback while armed")
      ->capture_default_str()
      ->check(CLI::Range(1, 3600));
  g.idleFixesOpt =
      app.add_option("--idle-fixes", g.idleFixes,
                     "what the location service delivers between samples (coarse setting): "
                     "none, network (positions 30-1500 m off, at most one a minute; the "
                     "default) or gnss (the receiver's fixes)")
          ->check(CLI::IsMember({"none", "network", "gnss"}));
  app.add_option("--motion", g.motion,
                 "the motion sensor: none, or phone (reports each start and stop of movement "
                 "10-30 s late, misses 2 % of starts); only the efficient sampling listens")
      ->capture_default_str()
      ->check(CLI::IsMember({"none", "phone"}));
  g.paceOpt = app.add_option("--pace", g.pace,
                             "metres per second at which to replay the trace's points, "
                             "for a route or a track without times (their times ignored)")
                  ->check(CLI::Range(0.01, 1000.0));
}

/// The network between the client and the service.
void addNetworkOptions(CLI::App& app, Given& g) {
  g.latencyOpt = app.add_option("--latency", g.latency,
                                "milliseconds each exchange with the service takes (virtual time)")
                     ->check(CLI::Range(0.0, 600000.0));
  app.add_option("--outage", g.outages,
                 "START-END: seconds since the start during which the service is away "
                 "(repeatable)");
  app.add_option("--outage-kind", g.outageKind,
                 "what an exchange meets in an outage: unreachable (no answer) or 503")
      ->capture_default_str();
}

/// The client's sampling and compression, the service's confirmation rules, and the score.
void addBehaviourOptions(CLI::App& app, Options& o, Given& g) {
  tools::addSamplingOption(app, g.sampling);
  app.add_flag("--compress", o.compress,
               "accept the fence catalogue gzip-compressed (Zonaris::setCompression); the "
               "summary counts the bytes as they arrived");
  service_tool::addConfirmOptions(app, o.confirm, o.robust);
  g.scoreOpt = app.add_option(
      "--score", g.score, "write the ground-truth score of the run to FILE (JSON; needs --fences)");
}

/// The service (one of --fences and --service) and the optional inputs that were given.
std::optional<EarlyExit> takeRunOptions(const Given& g, Options& o) {
  if (g.fencesOpt->count() == 0 && g.serviceOpt->count() == 0)
    return usage("one of --fences FILE or --service URL is needed");
  if (g.fencesOpt->count())
    o.fences = g.fences;
  if (g.serviceOpt->count()) {
    o.service = withoutTrailingSlashes(g.service);
    if (!isServiceBaseUrl(*o.service))
      return usage("--service: not an http:// or https:// URL: " + *o.service);
  }
  if (g.storeOpt->count())
    o.store = g.store;
  if (g.client.uuidOpt->count())
    o.uuid = g.client.uuid;
  if (g.client.tagsOpt->count())
    o.tags = g.client.tags;
  if (g.client.silenceOpt->count())
    o.silence = g.client.silence;
  if (g.beaconsOpt->count())
    o.beacons = g.beacons;
  if (g.startOpt->count())
    o.start = g.start;
  if (g.untilOpt->count())
    o.until = g.until;
  return std::nullopt;
}

/// The preset, then every single device option given over it.
void takeDeviceOptions(const Given& g, Options& o) {
  applyDevicePreset(devicePreset(g.device), o);
  if (g.fixDelayOpt->count())
    o.device.fixDelay =
        std::chrono::round<platform::Duration>(std::chrono::duration<double>(g.fixDelay));
  if (g.staleFirstOpt->count())
    o.device.staleFirst = g.staleFirst;
  if (g.noiseOpt->count())
    o.device.noise = g.noise;
  if (g.outliersOpt->count())
    o.device.outlierRate = g.outliers;
  if (g.idleFixesOpt->count())
    o.device.idleFixes = idleFixesNamed(g.idleFixes);
  if (g.latencyOpt->count())
    o.network.latency = std::chrono::round<platform::Duration>(
        std::chrono::duration<double, std::milli>(g.latency));
  o.device.motion = g.motion == "phone" ? sim::MotionSensor::Phone : sim::MotionSensor::None;
  if (g.paceOpt->count())
    o.pace = g.pace;
}

std::optional<EarlyExit> takeNetworkOptions(const Given& g, Options& o) {
  for (const auto& text : g.outages) {
    auto outage = sim::parseOutage(text);
    if (!outage)
      return usage("--outage: not START-END in seconds, END after START: " + text);
    o.network.outages.push_back(*outage);
  }
  auto kind = sim::parseOutageKind(g.outageKind);
  if (!kind)
    return usage("--outage-kind: not \"unreachable\" or \"503\": " + g.outageKind);
  o.network.outageKind = *kind;
  return std::nullopt;
}

std::optional<EarlyExit> takeBehaviourOptions(const Given& g, ToolOptions& t) {
  t.run.sampling = tools::samplingNamed(g.sampling);
  if (g.scoreOpt->count()) {
    if (!t.run.fences)
      return usage("--score needs --fences: the truth is computed from them");
    t.run.score = true;
    t.scoreFile = g.score;
  }
  return std::nullopt;
}

}  // namespace

std::variant<ToolOptions, EarlyExit> parseOptions(int argc, const char* const* argv) {
  ToolOptions t;
  Given g;
  CLI::App app{
      "Runs the Zonaris client in virtual time along a recorded or synthesised trace and prints "
      "every log line and delegate callback as one JSON object per line.",
      "zonaris-sim"};
  addRunOptions(app, t.run, g);
  addDeviceOptions(app, t.run, g);
  addNetworkOptions(app, g);
  addBehaviourOptions(app, t.run, g);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return EarlyExit{0, app.help()};
  } catch (const CLI::ParseError& e) {
    return usage(tools::oneLine(e.what()));
  }

  if (auto exit = takeRunOptions(g, t.run))
    return *exit;
  takeDeviceOptions(g, t.run);
  if (auto exit = takeNetworkOptions(g, t.run))
    return *exit;
  if (auto exit = takeBehaviourOptions(g, t))
    return *exit;
  return t;
}

}  // namespace zonaris::sim_tool
