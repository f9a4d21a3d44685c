#include "zonaris/simulation/sim_run.hpp"

#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "common/client_options.hpp"
#include "zonaris/platform/curl_http.hpp"
#include "zonaris/platform/production.hpp"
#include "zonaris/sim/location_manager.hpp"

namespace zonaris::sim_tool {

namespace {

/// A new private folder under the system's temporary folder; empty when none could be made.
std::string makeTemporaryFolder() {
  std::error_code ec;
  auto base = std::filesystem::temp_directory_path(ec);
  if (ec)
    base = "/tmp";
  std::string pattern = (base / "zonaris-sim-XXXXXX").string();
  return ::mkdtemp(pattern.data()) ? pattern : std::string();
}

std::variant<Inputs, RunError> readInputs(const Options& o) {
  const auto usage = [](std::string message) { return RunError{kUsageError, std::move(message)}; };
  // The command line checks the same; these reach the typed options' callers.
  if (o.fences.has_value() == o.service.has_value())
    return usage("one of --fences FILE or --service URL is needed");
  if (o.service && !isServiceBaseUrl(*o.service))
    return usage("--service: not an http:// or https:// URL: " + *o.service);
  if (o.score && !o.fences)
    return usage("--score needs --fences: the truth is computed from them");
  Inputs in;
  try {
    in.trace = std::make_shared<const sim::Trace>(sim::Trace::load(o.trace, o.pace));
    if (o.beacons)
      in.beacons =
          std::make_shared<const sim::BeaconSightings>(sim::BeaconSightings::load(*o.beacons));
  } catch (const std::exception& e) {
    return usage(e.what());
  }
  if (in.trace->points().empty())
    return usage(o.trace + ": the trace has no points");

  if (o.start) {
    auto start = sim::parseLocalTime(*o.start);
    if (!start)
      return usage("--start: not a local time YYYY-MM-DDTHH:MM:SS: " + *o.start);
    in.start = *start;
  } else {
    in.start = in.trace->startTime().value_or(sim::defaultStartTime());
  }

  const double seconds = o.until.value_or(in.trace->duration() + 60.0);
  in.until = std::chrono::duration_cast<platform::Duration>(std::chrono::duration<double>(seconds));

  if (o.tags) {
    auto tags = nlohmann::json::parse(*o.tags, nullptr, false);
    if (tags.is_discarded() || !tags.is_object())
      return usage("--tags: not a JSON object: " + *o.tags);
    in.tags = std::make_shared<ZonarisTags>(std::move(tags));
  }
  if (o.uuid) {
    in.uuid = platform::canonicalUUID(*o.uuid);
    if (!in.uuid)
      return usage("--uuid: not a UUID: " + *o.uuid);
  }
  if (o.score && o.fences) {
    std::string error;
    auto fences = readScoreFences(*o.fences, error);
    if (!fences)
      return usage(error);
    in.scoreFences = std::move(*fences);
  }
  return in;
}

}  // namespace

SimRun::SimRun(Options options, Inputs inputs)
    : options_(std::move(options)), inputs_(std::move(inputs)) {}

SimRun::~SimRun() {
  finish();
}

std::variant<std::unique_ptr<SimRun>, RunError> SimRun::open(const Options& o) {
  auto inputs = readInputs(o);
  if (auto* error = std::get_if<RunError>(&inputs))
    return std::move(*error);
  std::unique_ptr<SimRun> run(new SimRun(o, std::move(std::get<Inputs>(inputs))));

  if (o.fences) {
    service_tool::ServiceOptions serviceOptions;
    serviceOptions.fencesFile = *o.fences;
    serviceOptions.confirm = o.confirm;
    serviceOptions.robust = o.robust;
    serviceOptions.now = [clock = run->clock_, start = run->inputs_.start] {
      sim::Scheduler* s = clock->load();
      return s ? s->now() : start;
    };
    run->service_ = std::make_unique<service_tool::ReferenceService>(std::move(serviceOptions));
    if (!run->service_->ok())
      return RunError{kUsageError, run->service_->error()};
    if (run->service_->start(0) < 0)
      return RunError{1, "cannot start the embedded service: " + run->service_->error()};
    run->baseUrl_ = run->service_->baseUrl();
  } else {
    run->baseUrl_ = *o.service;
  }

  if (o.store) {
    run->storeFolder_ = *o.store;
  } else {
    run->temporaryStore_ = makeTemporaryFolder();
    if (run->temporaryStore_.empty())
      return RunError{1, "cannot make a temporary folder for the store"};
    run->storeFolder_ = run->temporaryStore_;
  }
  return run;
}

std::optional<RunError> SimRun::start(std::shared_ptr<ZonarisDelegate> delegate,
                                      std::function<void(std::string_view)> logSink) {
  // The requests are counted as the device makes them, before the simulated network.
  scheduler_ = std::make_shared<sim::Scheduler>(inputs_.start);
  std::shared_ptr<platform::HttpClient> transport = platform::makeCurlHttpClient();
  if (options_.network.active()) {
    network_ = std::make_shared<sim::SimNetwork>(transport, scheduler_, options_.network);
    transport = network_;
  }
  http_ = std::make_shared<tools::CountingHttpClient>(transport, baseUrl_);

  sim::SimulationOptions options;
  options.start = inputs_.start;
  options.scheduler = scheduler_;
  options.systemVersion = options_.systemVersion;
  options.baseUrl = baseUrl_;
  options.http = http_;
  options.store = std::make_shared<platform::FileStore>(storeFolder_);
  options.logSink = std::move(logSink);
  options.makeLocationManager = [trace = inputs_.trace, beacons = inputs_.beacons,
                                 device = options_.device,
                                 this](const std::shared_ptr<sim::Scheduler>& s) {
    auto replay = std::make_shared<sim::SimLocationManager>(s);
    replay->setTrace(trace);
    replay->setDeviceModel(device);
    if (beacons)
      replay->setBeaconSightings(beacons);
    location_ = std::make_shared<CountingLocationManager>(replay);
    return std::static_pointer_cast<platform::LocationManager>(location_);
  };

  simulation_ = std::make_unique<sim::Simulation>(std::move(options));
  clock_->store(&simulation_->scheduler());

  delegate_ = std::move(delegate);
  client_ = Zonaris::initWithAppKey(options_.appKey, simulation_->platform());
  if (!client_)
    return RunError{1, "the simulated platform is incomplete"};
  tools::configureClient(*client_,
                         tools::ClientSettings{.uuid = inputs_.uuid,
                                               .tags = inputs_.tags,
                                               .silence = options_.silence,
                                               .devMode = options_.devMode,
                                               .sampling = options_.sampling,
                                               .compress = options_.compress},
                         delegate_);
  client_->start();
  return std::nullopt;
}

void SimRun::runFor(platform::Duration duration) {
  if (simulation_)
    simulation_->runFor(duration);
}

void SimRun::runUntil(platform::TimePoint end) {
  if (simulation_)
    simulation_->runUntil(end);
}

platform::TimePoint SimRun::now() const {
  sim::Scheduler* s = clock_->load();
  return s ? s->now() : inputs_.start;
}

double SimRun::elapsedSeconds() const {
  return std::chrono::duration<double>(now() - inputs_.start).count();
}

void SimRun::finish() {
  // What remains queued holds the client; dropping it with the simulation releases it.
  client_.reset();
  clock_->store(nullptr);
  simulation_.reset();
  scheduler_.reset();
  if (service_)
    service_->stop();
  if (!temporaryStore_.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(temporaryStore_, ec);
    temporaryStore_.clear();
  }
}

}  // namespace zonaris::sim_tool
