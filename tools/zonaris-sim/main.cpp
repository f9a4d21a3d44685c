// zonaris-sim: runs the real client on the simulated platform along a trace, against the
// embedded reference service (sharing the virtual clock) or an external one, and prints every
// log line and delegate callback as JSON lines on stdout. A short summary goes to stderr.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

#include <curl/curl.h>
#include <fmt/format.h>

#include "counting_http.hpp"
#include "counting_location.hpp"
#include "json_lines.hpp"
#include "score.hpp"
#include "sim_options.hpp"
#include "zonaris-service/reference_service.hpp"
#include "zonaris/platform/curl_http.hpp"
#include "zonaris/platform/production.hpp"
#include "zonaris/sim/input_error.hpp"
#include "zonaris/sim/location_manager.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::sim_tool {
namespace {

/// An error in the user's input: reported as one line, exit status 2.
struct UsageError {
  std::string message;
};

/// A new private folder under the system's temporary folder, removed when the run ends.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::error_code ec;
    auto base = std::filesystem::temp_directory_path(ec);
    if (ec)
      base = "/tmp";
    std::string pattern = (base / "zonaris-sim-XXXXXX").string();
    if (::mkdtemp(pattern.data()))
      path_ = pattern;
  }
  ~TemporaryFolder() {
    if (!path_.empty()) {
      std::error_code ec;
      std::filesystem::remove_all(path_, ec);
    }
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

/// What the run needs, read and checked before anything starts.
struct Inputs {
  std::shared_ptr<const sim::Trace> trace;
  std::shared_ptr<const sim::BeaconSightings> beacons;
  platform::TimePoint start;
  platform::Duration until;
  std::shared_ptr<ZonarisTags> tags;
  std::optional<std::string> uuid;
  std::vector<service_tool::Fence> scoreFences;  ///< with --score
};

std::variant<Inputs, UsageError> readInputs(const Options& o) {
  Inputs in;
  try {
    in.trace = std::make_shared<const sim::Trace>(sim::Trace::load(o.trace));
    if (o.beacons)
      in.beacons =
          std::make_shared<const sim::BeaconSightings>(sim::BeaconSightings::load(*o.beacons));
  } catch (const std::exception& e) {
    return UsageError{e.what()};
  }
  if (in.trace->points().empty())
    return UsageError{o.trace + ": the trace has no points"};

  if (o.start) {
    auto start = sim::parseLocalTime(*o.start);
    if (!start)
      return UsageError{"--start: not a local time YYYY-MM-DDTHH:MM:SS: " + *o.start};
    in.start = *start;
  } else {
    in.start = in.trace->startTime().value_or(sim::defaultStartTime());
  }

  const double seconds = o.until.value_or(in.trace->duration() + 60.0);
  in.until = std::chrono::duration_cast<platform::Duration>(std::chrono::duration<double>(seconds));

  if (o.tags) {
    auto tags = nlohmann::json::parse(*o.tags, nullptr, false);
    if (tags.is_discarded() || !tags.is_object())
      return UsageError{"--tags: not a JSON object: " + *o.tags};
    in.tags = std::make_shared<ZonarisTags>(std::move(tags));
  }
  if (o.uuid) {
    in.uuid = platform::canonicalUUID(*o.uuid);
    if (!in.uuid)
      return UsageError{"--uuid: not a UUID: " + *o.uuid};
  }
  if (o.score && o.fences) {
    std::string error;
    auto fences = readScoreFences(*o.fences, error);
    if (!fences)
      return UsageError{error};
    in.scoreFences = std::move(*fences);
  }
  return in;
}

/// Hands every callback on to the JSON lines and keeps the confirmed events for the score.
class EventRecorder final : public ZonarisDelegate {
 public:
  EventRecorder(JsonLinesWriter& writer, std::function<double()> elapsedSeconds)
      : lines_(writer), elapsedSeconds_(std::move(elapsedSeconds)) {}

  void updatedInitLocation(const platform::Location& l) override { lines_.updatedInitLocation(l); }
  void updatedDistanceToNearestFence(double distance, bool inside) override {
    lines_.updatedDistanceToNearestFence(distance, inside);
  }
  void updatedBeaconScan(bool scanning) override { lines_.updatedBeaconScan(scanning); }
  void reportSent() override { lines_.reportSent(); }
  void eventEnterCallback(const std::optional<std::string>& name) override {
    record(name, "entry");
    lines_.eventEnterCallback(name);
  }
  void eventExitCallback(const std::optional<std::string>& name) override {
    record(name, "exit");
    lines_.eventExitCallback(name);
  }
  void eventDwellCallback(const std::optional<std::string>& name) override {
    record(name, "dwell");
    lines_.eventDwellCallback(name);
  }
  void actionBasicCallback(std::shared_ptr<const ZonarisActionBasic> action) override {
    lines_.actionBasicCallback(std::move(action));
  }
  void actionDataCallback(std::shared_ptr<const ZonarisActionData> action) override {
    lines_.actionDataCallback(std::move(action));
  }
  void updatedSpeed(float speed) override { lines_.updatedSpeed(speed); }
  void updatedAvgSpeed(float speed) override { lines_.updatedAvgSpeed(speed); }
  void updatedInterval(std::int32_t seconds) override { lines_.updatedInterval(seconds); }
  void updatedGPSAccuracy(float metres) override { lines_.updatedGPSAccuracy(metres); }

  std::vector<FenceEvent> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }

 private:
  void record(const std::optional<std::string>& name, const char* type) {
    std::lock_guard lock(mutex_);
    events_.push_back(FenceEvent{0, name.value_or(""), type, elapsedSeconds_()});
  }

  JsonLinesDelegate lines_;
  std::function<double()> elapsedSeconds_;
  mutable std::mutex mutex_;
  std::vector<FenceEvent> events_;
};

/// The score of the run, written to the --score file. False when the file cannot be written.
bool writeScore(const Options& o, const Inputs& in, const EventRecorder& recorder,
                const CountingHttpClient& http, const CountingLocationManager* location,
                nlohmann::ordered_json& score) {
  ScoreInputs inputs;
  inputs.trace = in.trace;
  inputs.sightings = in.beacons;
  inputs.fences = in.scoreFences;
  inputs.seconds = std::chrono::duration<double>(in.until).count();
  inputs.outages = o.network.outages;
  RunRecord run;
  run.confirmed = recorder.events();
  run.fixesTaken = location ? location->fixesTaken() : 0;
  const auto counts = http.counts();
  for (std::size_t k = 0; k < kRequestKinds; ++k)
    run.requests[k] = counts[k].sent;  // Exchange and RequestKind share their order
  score = sim_tool::score(inputs, run);
  std::ofstream out(*o.score, std::ios::binary | std::ios::trunc);
  out << score.dump(2) << "\n";
  out.close();
  return static_cast<bool>(out);
}

std::string localTimeText(platform::TimePoint time) {
  using namespace std::chrono;
  const auto day = floor<days>(time);
  const year_month_day date{day};
  const hh_mm_ss clock{duration_cast<seconds>(time - day)};
  return fmt::format("{:04d}-{:02d}-{:02d}T{:02d}:{:02d}:{:02d}", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}

void printSummary(const Options& o, const Inputs& in, const JsonLinesWriter& writer,
                  const CountingHttpClient& http, const CountingLocationManager* location,
                  const sim::SimNetwork* network, const nlohmann::ordered_json* score,
                  double wallSeconds) {
  auto calls = writer.callbackCounts();
  auto count = [&](const char* name) { return calls.count(name) ? calls[name] : 0; };

  std::string requests;
  std::uint64_t failed = 0;
  const auto counts = http.counts();
  for (std::size_t i = 0; i < kExchangeCount; ++i) {
    if (i == static_cast<std::size_t>(Exchange::Other) && counts[i].sent == 0)
      continue;
    requests += fmt::format("{}{} {}", requests.empty() ? "" : ", ",
                            exchangeName(static_cast<Exchange>(i)), counts[i].sent);
    failed += counts[i].failed;
  }
  const auto entries = count("eventEnterCallback");
  const auto exits = count("eventExitCallback");
  const auto dwells = count("eventDwellCallback");
  const auto basics = count("actionBasicCallback");
  const auto datas = count("actionDataCallback");

  std::string text =
      fmt::format("zonaris-sim: {:.0f} virtual seconds from {} against {} in {:.2f} s\n",
                  std::chrono::duration<double>(in.until).count(), localTimeText(in.start),
                  o.fences ? "the embedded service" : *o.service, wallSeconds);
  if (location)
    text +=
        fmt::format("  fixes:    {} taken by the client ({} delivered by the location service)\n",
                    location->fixesTaken(), location->fixesDelivered());
  text += fmt::format("  requests: {} ({} without a 2xx answer)\n", requests, failed);
  text += fmt::format("  events:   {} confirmed ({} entry, {} exit, {} dwell)\n",
                      entries + exits + dwells, entries, exits, dwells);
  text +=
      fmt::format("  messages: {} delivered ({} basic, {} data)\n", basics + datas, basics, datas);
  if (network)
    text +=
        fmt::format("  network:  {} exchange(s) turned away by an outage\n", network->refused());
  if (score)
    text += fmt::format(
        "  score:    {} true events: {} matched, {} missed ({} visit(s) lost in an outage), {} "
        "false; written to {}\n",
        (*score)["truth"].size(), (*score)["matched"].size(), (*score)["missed"].size(),
        (*score)["lost_visits"].get<int>(), (*score)["false"].size(), *o.score);
  std::fputs(text.c_str(), stderr);
}

int run(const Options& o) {
  auto inputs = readInputs(o);
  if (auto* error = std::get_if<UsageError>(&inputs)) {
    std::fprintf(stderr, "zonaris-sim: %s\n", error->message.c_str());
    return kUsageError;
  }
  const Inputs& in = std::get<Inputs>(inputs);
  const auto wallStart = std::chrono::steady_clock::now();

  // The scheduler exists only once the simulation does, but the service and the output need
  // its clock from the start; until then the clock stands at the start time.
  auto scheduler = std::make_shared<std::atomic<sim::Scheduler*>>(nullptr);
  const platform::TimePoint start = in.start;
  auto virtualNow = [scheduler, start] {
    sim::Scheduler* s = scheduler->load();
    return s ? s->now() : start;
  };

  std::unique_ptr<service_tool::ReferenceService> service;
  std::string baseUrl;
  if (o.fences) {
    service_tool::ServiceOptions serviceOptions;
    serviceOptions.fencesFile = *o.fences;
    serviceOptions.now = virtualNow;
    service = std::make_unique<service_tool::ReferenceService>(std::move(serviceOptions));
    if (!service->ok()) {
      std::fprintf(stderr, "zonaris-sim: %s\n", service->error().c_str());
      return kUsageError;
    }
    if (service->start(0) < 0) {
      std::fprintf(stderr, "zonaris-sim: cannot start the embedded service: %s\n",
                   service->error().c_str());
      return 1;
    }
    baseUrl = service->baseUrl();
  } else {
    baseUrl = *o.service;
  }

  std::optional<TemporaryFolder> temporaryStore;
  std::string storeFolder;
  if (o.store) {
    storeFolder = *o.store;
  } else {
    temporaryStore.emplace();
    if (temporaryStore->path().empty()) {
      std::fputs("zonaris-sim: cannot make a temporary folder for the store\n", stderr);
      return 1;
    }
    storeFolder = temporaryStore->path();
  }

  JsonLinesWriter writer(stdout, [virtualNow, start] {
    return std::chrono::duration<double>(virtualNow() - start).count();
  });
  // The requests are counted as the device makes them, before the simulated network.
  auto simScheduler = std::make_shared<sim::Scheduler>(in.start);
  std::shared_ptr<sim::SimNetwork> network;
  std::shared_ptr<platform::HttpClient> transport = platform::makeCurlHttpClient();
  if (o.network.active()) {
    network = std::make_shared<sim::SimNetwork>(transport, simScheduler, o.network);
    transport = network;
  }
  auto http = std::make_shared<CountingHttpClient>(transport, baseUrl);
  std::shared_ptr<CountingLocationManager> location;
  std::shared_ptr<EventRecorder> recorder;

  {
    sim::SimulationOptions options;
    options.start = in.start;
    options.scheduler = simScheduler;
    options.systemVersion = o.systemVersion;
    options.baseUrl = baseUrl;
    options.http = http;
    options.store = std::make_shared<platform::FileStore>(storeFolder);
    options.logSink = [&writer](std::string_view line) { writer.logLine(line); };
    auto trace = in.trace;
    auto beacons = in.beacons;
    const auto device = o.device;
    options.makeLocationManager = [trace, beacons, device,
                                   &location](const std::shared_ptr<sim::Scheduler>& s) {
      auto replay = std::make_shared<sim::SimLocationManager>(s);
      replay->setTrace(trace);
      replay->setDeviceModel(device);
      if (beacons)
        replay->setBeaconSightings(beacons);
      location = std::make_shared<CountingLocationManager>(replay);
      return std::static_pointer_cast<platform::LocationManager>(location);
    };

    sim::Simulation simulation(std::move(options));
    scheduler->store(&simulation.scheduler());

    recorder = std::make_shared<EventRecorder>(writer, [virtualNow, start] {
      return std::chrono::duration<double>(virtualNow() - start).count();
    });
    auto client = Zonaris::initWithAppKey(o.appKey, simulation.platform());
    if (!client) {
      std::fputs("zonaris-sim: the simulated platform is incomplete\n", stderr);
      return 1;
    }
    if (in.uuid)
      client->setUUID(*in.uuid);
    client->setDevMode(o.devMode);
    if (in.tags)
      client->setTags(in.tags);
    if (o.silence)
      client->setSilenceWindowStart(o.silence->first, o.silence->second);
    client->setDelegate(recorder);
    client->start();

    simulation.runUntil(in.start + in.until);

    // What remains queued holds the client; dropping it with the simulation releases it.
    client.reset();
    scheduler->store(nullptr);
  }
  simScheduler.reset();
  if (service)
    service->stop();

  nlohmann::ordered_json score;
  if (o.score && !writeScore(o, in, *recorder, *http, location.get(), score)) {
    std::fprintf(stderr, "zonaris-sim: --score: cannot write %s\n", o.score->c_str());
    return 1;
  }
  const double wallSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
  printSummary(o, in, writer, *http, location.get(), network.get(), o.score ? &score : nullptr,
               wallSeconds);
  return 0;
}

}  // namespace
}  // namespace zonaris::sim_tool

int main(int argc, char** argv) {
  using namespace zonaris::sim_tool;
  auto parsed = parseOptions(argc, argv);
  if (auto* exit = std::get_if<EarlyExit>(&parsed)) {
    std::fputs((exit->text + "\n").c_str(), exit->status == 0 ? stdout : stderr);
    return exit->status;
  }
  // libcurl's global state is set up once, before any thread exists.
  curl_global_init(CURL_GLOBAL_DEFAULT);
  int status = 1;
  try {
    status = run(std::get<Options>(parsed));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zonaris-sim: %s\n", e.what());
  }
  curl_global_cleanup();
  return status;
}
