// zonaris-agent: runs the real client on a Linux device, on the production platform (real
// threads, libcurl, the file store) with gpsd as the position source, and prints every log line
// and delegate callback as the JSON lines of zonaris-sim ("t": seconds since the agent started).
// It runs until SIGINT, SIGTERM or --until, then frees the client, joins every thread and prints
// a summary to stderr, all within --stop-timeout; a second SIGINT or SIGTERM ends it at once.

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <variant>

#include <fmt/format.h>

#include "common/client_options.hpp"
#include "common/counting_http.hpp"
#include "common/json_lines.hpp"
#include "zonaris-agent/agent_options.hpp"
#include "zonaris/platform/gpsd.hpp"
#include "zonaris/platform/production.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::agent {
namespace {

using tools::CountingHttpClient;
using tools::Exchange;
using tools::JsonLinesDelegate;
using tools::JsonLinesWriter;

void say(const std::string& line) {
  std::fputs(("zonaris-agent: " + line + "\n").c_str(), stderr);
}

/// The platform log as JSON lines.
class JsonLinesLogger final : public platform::Logger {
 public:
  explicit JsonLinesLogger(JsonLinesWriter& writer) : writer_(writer) {}
  void log(std::string_view line) override { writer_.logLine(line); }

 private:
  JsonLinesWriter& writer_;
};

/// Tells the operator on stderr when the service stops answering and when it answers again;
/// the client itself reports and retries.
class ServiceWatch final : public platform::HttpClient {
 public:
  ServiceWatch(std::shared_ptr<platform::HttpClient> inner, std::string baseUrl)
      : inner_(std::move(inner)), baseUrl_(std::move(baseUrl)) {}

  platform::HttpResponse send(const platform::HttpRequest& request) override {
    auto response = inner_->send(request);
    const bool down = response.transportError;
    if (down_.exchange(down) != down) {
      say(down ? fmt::format("the service at {} does not answer ({}); the client retries", baseUrl_,
                             response.errorMessage)
               : fmt::format("the service at {} answers again", baseUrl_));
    }
    return response;
  }

 private:
  std::shared_ptr<platform::HttpClient> inner_;
  std::string baseUrl_;
  std::atomic<bool> down_{false};
};

/// Tells the operator on stderr when gpsd cannot be reached (once per outage), when the
/// connection is lost, and when it is made.
class GpsdWatch {
 public:
  explicit GpsdWatch(std::string address) : address_(std::move(address)) {}
  void update(const platform::GpsdStatus& status) {
    std::lock_guard lock(mutex_);
    if (status.lostConnections > last_.lostConnections) {
      say(fmt::format("lost the connection to gpsd at {} ({}); reconnecting", address_,
                      status.lastError));
      warned_ = true;
    } else if (status.failedAttempts > last_.failedAttempts && !warned_) {
      say(fmt::format("gpsd at {} is not reachable ({}); retrying", address_, status.lastError));
      warned_ = true;
    }
    if (status.connections > last_.connections) {
      say(fmt::format("connected to gpsd at {}", address_));
      warned_ = false;
    }
    last_ = status;
  }

 private:
  std::string address_;
  std::mutex mutex_;
  platform::GpsdStatus last_;
  bool warned_ = false;
};

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

// Waits for SIGINT or SIGTERM (blocked in every thread, see main) or until `until` has passed.
// Returns the signal's name, or nothing at the deadline.
std::optional<std::string> waitForStop(std::optional<std::chrono::steady_clock::time_point> until) {
  const sigset_t set = stopSignals();
  for (;;) {
    int signal = -1;
    if (until) {
      const auto left = *until - std::chrono::steady_clock::now();
      if (left <= std::chrono::steady_clock::duration::zero())
        return std::nullopt;
      const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
      timespec timeout{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
      signal = sigtimedwait(&set, nullptr, &timeout);
    } else {
      signal = sigwaitinfo(&set, nullptr);
    }
    if (signal == SIGINT)
      return "SIGINT";
    if (signal == SIGTERM)
      return "SIGTERM";
  }
}

// While the agent stops, a SIGINT or SIGTERM ends it at once, with the shell's status for a
// process ended by that signal (130 or 143).
void exitOnNextSignal() {
  std::thread([] {
    const sigset_t set = stopSignals();
    int signal = -1;
    while (signal != SIGINT && signal != SIGTERM)
      signal = sigwaitinfo(&set, nullptr);
    say(fmt::format("{} while stopping: exiting at once", signal == SIGINT ? "SIGINT" : "SIGTERM"));
    std::_Exit(128 + signal);
  }).detach();
}

int run(const Options& o) {
  const auto started = std::chrono::steady_clock::now();
  JsonLinesWriter writer(stdout, [started] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  });
  const std::string gpsdAddress = o.gpsd.host + ":" + o.gpsd.port;

  platform::DefaultPlatformOptions options;
  options.baseUrl = o.service;
  options.storeDirectory = o.store;
  options.gpsd = o.gpsdText;
  options.logger = std::make_shared<JsonLinesLogger>(writer);
  options.errorLogger = std::make_shared<platform::StderrLogger>("zonaris-agent: ");
  platform::ProductionPlatform production(options);
  platform::Platform parts = production.platform();
  auto http = std::make_shared<CountingHttpClient>(
      std::make_shared<ServiceWatch>(parts.http, o.service), o.service);
  parts.http = http;

  std::shared_ptr<ZonarisDelegate> delegate = std::make_shared<JsonLinesDelegate>(writer);
  auto client = Zonaris::initWithAppKey(o.appKey, parts);
  if (!client) {
    say("the production platform is incomplete");
    return 1;
  }
  auto gpsd = std::dynamic_pointer_cast<platform::GpsdLocationManager>(client->mLocationManager());
  GpsdWatch gpsdWatch(gpsdAddress);
  if (gpsd) {
    gpsd->setStatusListener([&gpsdWatch](const platform::GpsdStatus& s) { gpsdWatch.update(s); });
    gpsdWatch.update(gpsd->status());  // an attempt may have failed before the listener was set
  }

  tools::configureClient(*client, o.client, delegate);
  client->start();

  std::optional<std::chrono::steady_clock::time_point> deadline;
  if (o.until)
    deadline = started + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                             std::chrono::duration<double>(*o.until));
  const auto stoppedBy = waitForStop(deadline);
  exitOnNextSignal();
  const auto stopDeadline = std::chrono::steady_clock::now() +
                            std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                std::chrono::duration<double>(o.stopTimeout));

  client->stop();
  const platform::GpsdStatus gpsdStatus = gpsd ? gpsd->status() : platform::GpsdStatus{};
  if (gpsd)
    gpsd->setStatusListener(nullptr);
  gpsd.reset();
  client.reset();
  // One deadline for the whole stop: the summary below takes no time worth counting.
  const bool joined = production.shutdown(std::chrono::ceil<std::chrono::milliseconds>(
      stopDeadline - std::chrono::steady_clock::now()));

  auto calls = writer.callbackCounts();
  auto count = [&](const char* name) { return calls.count(name) ? calls[name] : 0; };
  std::string requests;
  std::uint64_t failed = 0;
  const auto counts = http->counts();
  for (std::size_t i = 0; i < tools::kExchangeCount; ++i) {
    if (i == static_cast<std::size_t>(Exchange::Other) && counts[i].sent == 0)
      continue;
    requests += fmt::format("{}{} {}", requests.empty() ? "" : ", ",
                            tools::exchangeName(static_cast<Exchange>(i)), counts[i].sent);
    failed += counts[i].failed;
  }
  const auto entries = count("eventEnterCallback"), exits = count("eventExitCallback"),
             dwells = count("eventDwellCallback");
  const auto basics = count("actionBasicCallback"), datas = count("actionDataCallback");
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::string text =
      fmt::format("zonaris-agent: {:.1f} s against {} with gpsd at {}, stopped by {}\n", seconds,
                  o.service, gpsdAddress, stoppedBy ? *stoppedBy : std::string("--until"));
  text += fmt::format(
      "  gpsd:     {} connections ({} lost, {} failed attempts), {} reports, {} fixes "
      "delivered\n",
      gpsdStatus.connections, gpsdStatus.lostConnections, gpsdStatus.failedAttempts,
      gpsdStatus.reports, gpsdStatus.delivered);
  text += fmt::format("  requests: {} ({} without a 2xx answer)\n", requests, failed);
  text += fmt::format("  events:   {} confirmed ({} entry, {} exit, {} dwell)\n",
                      entries + exits + dwells, entries, exits, dwells);
  text +=
      fmt::format("  messages: {} delivered ({} basic, {} data)\n", basics + datas, basics, datas);
  text += joined ? "  threads:  all joined\n"
                 : "  threads:  a request was still running at exit; it was left behind\n";
  std::fputs(text.c_str(), stderr);
  // A thread left behind may still write through `writer` and hold the client: end the process
  // here rather than unwind what it uses.
  if (!joined)
    std::_Exit(0);
  return 0;
}

}  // namespace
}  // namespace zonaris::agent

int main(int argc, char** argv) {
  using namespace zonaris::agent;
  auto parsed = parseOptions(argc, argv);
  if (auto* exit = std::get_if<EarlyExit>(&parsed)) {
    std::fputs((exit->text + "\n").c_str(), exit->status == 0 ? stdout : stderr);
    return exit->status;
  }
  // SIGINT and SIGTERM are taken by the main thread alone (sigwait); every thread started from
  // here on inherits the blocked mask.
  const sigset_t set = stopSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  try {
    return run(std::get<Options>(parsed));
  } catch (const std::exception& e) {
    say(e.what());
    return 1;
  }
}
