// zonaris-sim: runs the real client on the simulated platform along a trace, against the
// embedded reference service (sharing the virtual clock) or an external one, and prints every
// log line and delegate callback as JSON lines on stdout. A short summary goes to stderr.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

#include <curl/curl.h>
#include <fmt/format.h>

#include "common/json_lines.hpp"
#include "sim_options.hpp"
#include "zonaris/simulation/score.hpp"
#include "zonaris/simulation/sim_run.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::sim_tool {
namespace {

using tools::CountingHttpClient;
using tools::Exchange;
using tools::exchangeName;
using tools::JsonLinesDelegate;
using tools::JsonLinesWriter;
using tools::kExchangeCount;

/// Hands every callback on to the JSON lines and keeps the confirmed events for the score,
/// each with its fence's id as `idOf` finds it from the type and the fence's name.
class EventRecorder final : public ZonarisDelegate {
 public:
  using IdOf = std::function<std::int64_t(const std::string& type, const std::string& name)>;
  EventRecorder(JsonLinesWriter& writer, std::function<double()> elapsedSeconds, IdOf idOf)
      : lines_(writer), elapsedSeconds_(std::move(elapsedSeconds)), idOf_(std::move(idOf)) {}

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
    const std::int64_t id = idOf_(type, name.value_or(""));
    std::lock_guard lock(mutex_);
    events_.push_back(FenceEvent{id, name.value_or(""), type, elapsedSeconds_()});
  }

  JsonLinesDelegate lines_;
  std::function<double()> elapsedSeconds_;
  IdOf idOf_;
  mutable std::mutex mutex_;
  std::vector<FenceEvent> events_;
};

/// The score of the run, written to the --score file. False when the file cannot be written.
bool writeScore(const ToolOptions& t, const Inputs& in, const EventRecorder& recorder,
                const CountingHttpClient& http, const CountingLocationManager* location,
                nlohmann::ordered_json& score) {
  ScoreInputs inputs;
  inputs.trace = in.trace;
  inputs.sightings = in.beacons;
  inputs.fences = in.scoreFences;
  inputs.seconds = std::chrono::duration<double>(in.until).count();
  inputs.outages = t.run.network.outages;
  RunRecord run;
  run.confirmed = recorder.events();
  run.fixesTaken = location ? location->fixesTaken() : 0;
  run.unconfirmedObservations = http.unconfirmedObservations();
  const auto counts = http.counts();
  for (std::size_t k = 0; k < kRequestKinds; ++k)
    run.requests[k] = counts[k].sent;  // Exchange and RequestKind share their order
  score = sim_tool::score(inputs, run);
  std::ofstream out(*t.scoreFile, std::ios::binary | std::ios::trunc);
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

void printSummary(const ToolOptions& t, const Inputs& in, const JsonLinesWriter& writer,
                  const CountingHttpClient& http, const CountingLocationManager* location,
                  const sim::SimNetwork* network, const nlohmann::ordered_json* score,
                  double wallSeconds) {
  auto calls = writer.callbackCounts();
  auto count = [&](const char* name) { return calls.count(name) ? calls[name] : 0; };

  std::string requests;
  std::uint64_t failed = 0;
  std::uint64_t received = 0;
  const auto counts = http.counts();
  for (std::size_t i = 0; i < kExchangeCount; ++i) {
    if (i == static_cast<std::size_t>(Exchange::Other) && counts[i].sent == 0)
      continue;
    requests += fmt::format("{}{} {}", requests.empty() ? "" : ", ",
                            exchangeName(static_cast<Exchange>(i)), counts[i].sent);
    failed += counts[i].failed;
    received += counts[i].receivedBytes;
  }
  const auto entries = count("eventEnterCallback");
  const auto exits = count("eventExitCallback");
  const auto dwells = count("eventDwellCallback");
  const auto basics = count("actionBasicCallback");
  const auto datas = count("actionDataCallback");

  std::string text =
      fmt::format("zonaris-sim: {:.0f} virtual seconds from {} against {} in {:.2f} s\n",
                  std::chrono::duration<double>(in.until).count(), localTimeText(in.start),
                  t.run.fences ? "the embedded service" : *t.run.service, wallSeconds);
  if (location)
    text +=
        fmt::format("  fixes:    {} taken by the client ({} delivered by the location service)\n",
                    location->fixesTaken(), location->fixesDelivered());
  text += fmt::format("  requests: {} ({} without a 2xx answer)\n", requests, failed);
  text += fmt::format("  received: {} bytes of answers ({} of fence catalogues){}\n", received,
                      counts[static_cast<std::size_t>(Exchange::FenceQuery)].receivedBytes,
                      t.run.compress ? ", compression accepted" : "");
  text += fmt::format("  events:   {} confirmed ({} entry, {} exit, {} dwell)\n",
                      entries + exits + dwells, entries, exits, dwells);
  text +=
      fmt::format("  messages: {} delivered ({} basic, {} data)\n", basics + datas, basics, datas);
  if (network)
    text +=
        fmt::format("  network:  {} exchange(s) turned away by an outage\n", network->refused());
  if (score) {
    const auto& optional = (*score)["optional"];
    const auto heard = std::count_if(optional.begin(), optional.end(),
                                     [](const auto& o) { return !o["t"].is_null(); });
    text += fmt::format(
        "  score:    {} true events ({} optional, {} of them heard): {} matched, {} missed ({} "
        "visit(s) lost in an outage), {} false; {} observation(s) not confirmed; written to {}\n",
        (*score)["truth"].size(), optional.size(), heard, (*score)["matched"].size(),
        (*score)["missed"].size(), (*score)["lost_visits"].get<int>(), (*score)["false"].size(),
        (*score)["unconfirmed_observations"].get<std::uint64_t>(), *t.scoreFile);
  }
  std::fputs(text.c_str(), stderr);
}

int run(const ToolOptions& t) {
  auto opened = SimRun::open(t.run);
  if (auto* error = std::get_if<RunError>(&opened)) {
    std::fprintf(stderr, "zonaris-sim: %s\n", error->message.c_str());
    return error->status;
  }
  SimRun& simRun = *std::get<std::unique_ptr<SimRun>>(opened);
  const Inputs& in = simRun.inputs();
  const auto wallStart = std::chrono::steady_clock::now();

  auto elapsed = [&simRun] { return simRun.elapsedSeconds(); };
  JsonLinesWriter writer(stdout, elapsed);
  // The answer the client is confirming names the fence by id; its name tells which event of
  // the answer a callback stands for.
  auto idOf = [&simRun, &in](const std::string& type, const std::string& name) -> std::int64_t {
    if (!simRun.started())
      return 0;
    return simRun.http().takeConfirmed(type, [&](std::int64_t id) {
      if (in.scoreFences.empty())
        return true;
      return std::any_of(
          in.scoreFences.begin(), in.scoreFences.end(), [&](const service_tool::Fence& f) {
            const auto it = f.record.find("name");
            return f.id == id && (it != f.record.end() && it->is_string() ? it->get<std::string>()
                                                                          : std::string()) == name;
          });
    });
  };
  auto recorder = std::make_shared<EventRecorder>(writer, elapsed, idOf);
  if (auto error =
          simRun.start(recorder, [&writer](std::string_view line) { writer.logLine(line); })) {
    std::fprintf(stderr, "zonaris-sim: %s\n", error->message.c_str());
    return error->status;
  }
  simRun.runUntil(simRun.end());
  simRun.finish();

  nlohmann::ordered_json score;
  if (t.scoreFile && !writeScore(t, in, *recorder, simRun.http(), simRun.location(), score)) {
    std::fprintf(stderr, "zonaris-sim: --score: cannot write %s\n", t.scoreFile->c_str());
    return 1;
  }
  const double wallSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
  printSummary(t, in, writer, simRun.http(), simRun.location(), simRun.network(),
               t.scoreFile ? &score : nullptr, wallSeconds);
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
    status = run(std::get<ToolOptions>(parsed));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zonaris-sim: %s\n", e.what());
  }
  curl_global_cleanup();
  return status;
}
