#include "sim_options.hpp"

#include <CLI/CLI.hpp>

#include "cli_text.hpp"
#include "zonaris-service/confirm_options.hpp"

namespace zonaris::sim_tool {

const DevicePreset& devicePreset(std::string_view name) {
  static const DevicePreset ideal{1.0, false, 0.0, 0.0, 0.0, "network"};
  static const DevicePreset realistic{5.0, true, 10.0, 0.005, 300.0, "network"};
  static const DevicePreset harsh{15.0, false, 25.0, 0.02, 2000.0, "none"};
  return name == "realistic" ? realistic : name == "harsh" ? harsh : ideal;
}

std::variant<Options, EarlyExit> parseOptions(int argc, const char* const* argv) {
  Options o;
  CLI::App app{
      "Runs the Zonaris client in virtual time along a recorded or synthesised trace and prints "
      "every log line and delegate callback as one JSON object per line.",
      "zonaris-sim"};

  std::string fences, service, store, uuid, tags, beacons, start;
  std::pair<int, int> silence{0, 0};
  double until = 0.0;

  app.add_option("--trace", o.trace,
                 "GPX 1.0/1.1 or CSV t,lat,lon[,accuracy][,speed] trace (routes and untimed "
                 "tracks with --pace)")
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

  // The device model and the network: a preset (the ideal device by default), and single
  // options that override it.
  std::uint64_t seed = o.device.seed;
  std::string device = "ideal", idleFixes;
  double fixDelay = 1.0, noise = 0.0, outliers = 0.0, latency = 0.0, pace = 0.0;
  bool staleFirst = false;
  int batch = 1;
  std::vector<std::string> outages;
  std::string outageKind = "unreachable", score;
  app.add_option("--device", device,
                 "preset of the options below: ideal (exact fixes at once, a network that takes "
                 "no time), realistic (--noise 10 --stale-first --fix-delay 5 --latency 300 "
                 "--outliers 0.005) or harsh (--noise 25 --fix-delay 15 --outliers 0.02 "
                 "--latency 2000 --idle-fixes none); an option given as well wins")
      ->capture_default_str()
      ->check(CLI::IsMember({"ideal", "realistic", "harsh"}));
  app.add_option("--seed", seed, "seed of everything random (same seed, same output)")
      ->capture_default_str();
  auto* fixDelayOpt =
      app.add_option("--fix-delay", fixDelay, "seconds from arming a sample to the fix")
          ->check(CLI::Range(0.0, 3600.0));
  auto* staleFirstOpt =
      app.add_flag("--stale-first", staleFirst,
                   "deliver the last cached fix (old time, coarse accuracy) before the real one "
                   "(--stale-first=false to turn a preset's off)");
  auto* noiseOpt = app.add_option("--noise", noise,
                                  "Gaussian position noise, metres (standard deviation per axis)")
                       ->check(CLI::Range(0.0, 10000.0));
  auto* outliersOpt =
      app.add_option("--outliers", outliers,
                     "share of fixes (0 to 1) thrown 200-800 m off while claiming good accuracy")
          ->check(CLI::Range(0.0, 1.0));
  app.add_option("--batch", batch, "fixes delivered together in one callback while armed")
      ->capture_default_str()
      ->check(CLI::Range(1, 3600));
  auto* idleFixesOpt =
      app.add_option("--idle-fixes", idleFixes,
                     "what the location service delivers between samples (coarse setting): "
                     "none, network (positions 30-1500 m off, at most one a minute; the "
                     "default) or gnss (the receiver's fixes)")
          ->check(CLI::IsMember({"none", "network", "gnss"}));
  std::string motion = "none";
  app.add_option("--motion", motion,
                 "the motion sensor: none, or phone (reports each start and stop of movement "
                 "10-30 s late, misses 2 % of starts); only the efficient sampling listens")
      ->capture_default_str()
      ->check(CLI::IsMember({"none", "phone"}));
  auto* paceOpt = app.add_option("--pace", pace,
                                 "metres per second at which to replay the trace's points, "
                                 "for a route or a track without times (their times ignored)")
                      ->check(CLI::Range(0.01, 1000.0));
  auto* latencyOpt =
      app.add_option("--latency", latency,
                     "milliseconds each exchange with the service takes (virtual time)")
          ->check(CLI::Range(0.0, 600000.0));
  app.add_option("--outage", outages,
                 "START-END: seconds since the start during which the service is away "
                 "(repeatable)");
  app.add_option("--outage-kind", outageKind,
                 "what an exchange meets in an outage: unreachable (no answer) or 503")
      ->capture_default_str();
  std::string sampling = "design";
  app.add_option("--sampling", sampling,
                 "when the client samples: design (the design's rule) or efficient (fewer "
                 "fixes, see the README)")
      ->capture_default_str()
      ->check(CLI::IsMember({"design", "efficient"}));
  app.add_flag("--compress", o.compress,
               "accept the fence catalogue gzip-compressed (Zonaris::setCompression); the "
               "summary counts the bytes as they arrived");
  service_tool::addConfirmOptions(app, o.confirm, o.robust);
  auto* scoreOpt = app.add_option(
      "--score", score, "write the ground-truth score of the run to FILE (JSON; needs --fences)");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return EarlyExit{0, app.help()};
  } catch (const CLI::ParseError& e) {
    return EarlyExit{kUsageError, "zonaris-sim: " + tools::oneLine(e.what())};
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

  // The preset fills in what was not given.
  const DevicePreset& preset = devicePreset(device);
  if (!fixDelayOpt->count())
    fixDelay = preset.fixDelay;
  if (!staleFirstOpt->count())
    staleFirst = preset.staleFirst;
  if (!noiseOpt->count())
    noise = preset.noise;
  if (!outliersOpt->count())
    outliers = preset.outliers;
  if (!latencyOpt->count())
    latency = preset.latency;
  if (!idleFixesOpt->count())
    idleFixes = preset.idleFixes;
  o.device.seed = seed;
  o.device.fixDelay =
      std::chrono::round<platform::Duration>(std::chrono::duration<double>(fixDelay));
  o.device.staleFirst = staleFirst;
  o.device.noise = noise;
  o.device.outlierRate = outliers;
  o.device.batch = batch;
  o.device.idleFixes = idleFixes == "none"   ? sim::IdleFixes::None
                       : idleFixes == "gnss" ? sim::IdleFixes::Gnss
                                             : sim::IdleFixes::Network;
  o.device.motion = motion == "phone" ? sim::MotionSensor::Phone : sim::MotionSensor::None;
  if (paceOpt->count())
    o.pace = pace;
  o.network.latency =
      std::chrono::round<platform::Duration>(std::chrono::duration<double, std::milli>(latency));
  for (const auto& text : outages) {
    auto outage = sim::parseOutage(text);
    if (!outage)
      return EarlyExit{kUsageError,
                       "zonaris-sim: --outage: not START-END in seconds, END after START: " + text};
    o.network.outages.push_back(*outage);
  }
  auto kind = sim::parseOutageKind(outageKind);
  if (!kind)
    return EarlyExit{kUsageError,
                     "zonaris-sim: --outage-kind: not \"unreachable\" or \"503\": " + outageKind};
  o.network.outageKind = *kind;
  o.sampling = sampling == "efficient" ? SamplingPolicy::Efficient : SamplingPolicy::Design;
  if (scoreOpt->count()) {
    if (!o.fences)
      return EarlyExit{kUsageError,
                       "zonaris-sim: --score needs --fences: the truth is computed from them"};
    o.score = score;
  }
  return o;
}

}  // namespace zonaris::sim_tool
