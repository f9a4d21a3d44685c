// zonaris-report: turns a run of zonaris-sim or zonaris-agent into one self-contained HTML page:
// the map (fences, trace, fixes, events, the score's missed and false events) and the timeline
// (interval, speeds, distance to the nearest fence, beacon scans, observations, error reports,
// the silence window). The page fetches nothing; it opens offline from a file:// URL.
//
// Errors in the input (options, a missing or malformed file, a malformed line) give one line on
// stderr and exit status 2; the output file is written whole (temporary file, then rename) or
// not at all.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "common/cli_text.hpp"
#include "report.hpp"
#include "zonaris/sim/input_error.hpp"
#include "zonaris/sim/sim_platform.hpp"

namespace zonaris::report_tool {
namespace {

constexpr int kUsageError = 2;

struct Options {
  std::string lines = "-";
  std::string trace, fences, out;
  std::optional<std::string> beacons, score, start, title;
  std::optional<std::pair<int, int>> silence;
  std::optional<double> pace;
};

std::string readWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw sim::InputError(path + ": cannot be read");
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

ReportInputs readInputs(const Options& o) {
  ReportInputs in;
  in.trace = sim::Trace::load(o.trace, o.pace);
  if (in.trace.points().empty())
    throw sim::InputError(o.trace + ": the trace has no points");

  std::string error;
  auto fencesJson = service_tool::readFencesFile(o.fences, error);
  auto fences = fencesJson ? service_tool::parseFences(*fencesJson, o.fences, error) : std::nullopt;
  if (!fences)
    throw sim::InputError(error);
  in.fences = std::move(*fences);
  for (const auto& fence : in.fences) {
    auto name = fence.record.find("name");
    in.fenceNames.push_back(
        name != fence.record.end() && name->is_string() ? name->get<std::string>() : "");
  }

  if (o.beacons)
    in.sightings = sim::BeaconSightings::load(*o.beacons);
  if (o.score) {
    in.score = nlohmann::json::parse(readWhole(*o.score), nullptr, false);
    if (in.score.is_discarded() || !in.score.is_object())
      throw sim::InputError(*o.score + ": not a JSON object");
  }

  if (o.start) {
    auto start = sim::parseLocalTime(*o.start);
    if (!start)
      throw sim::InputError("--start: not a local time YYYY-MM-DDTHH:MM:SS: " + *o.start);
    in.start = *start;
  } else {
    in.start = in.trace.startTime().value_or(sim::defaultStartTime());
  }
  in.silence = o.silence;

  if (o.lines == "-") {
    in.run = readRunLog(std::cin, "stdin");
  } else {
    std::ifstream lines(o.lines, std::ios::binary);
    if (!lines)
      throw sim::InputError(o.lines + ": cannot be read");
    in.run = readRunLog(lines, o.lines);
  }
  in.title = o.title.value_or(
      fmt::format("Zonaris run: {}", std::filesystem::path(o.trace).filename().string()));
  return in;
}

/// Writes `text` to `path` whole or not at all: a temporary file beside it, then a rename.
void writeWhole(const std::string& path, const std::string& text) {
  std::string temporary = path + ".XXXXXX";
  const int fd = ::mkstemp(temporary.data());
  if (fd < 0)
    throw sim::InputError(fmt::format("{}: cannot be written: {}", path, std::strerror(errno)));
  // mkstemp makes the file private; a report is as readable as any file the user writes.
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(fd, 0666 & ~mask);

  std::size_t done = 0;
  int error = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      error = errno;
      break;
    }
    done += static_cast<std::size_t>(n);
  }
  if (error == 0 && ::fsync(fd) != 0)
    error = errno;
  if (::close(fd) != 0 && error == 0)
    error = errno;
  if (error == 0 && std::rename(temporary.c_str(), path.c_str()) != 0)
    error = errno;
  if (error != 0) {
    ::unlink(temporary.c_str());
    throw sim::InputError(fmt::format("{}: cannot be written: {}", path, std::strerror(error)));
  }
}

int run(int argc, char** argv) {
  Options o;
  CLI::App app{
      "Draws a run of zonaris-sim or zonaris-agent (its JSON lines, from LINES or stdin) as one "
      "self-contained HTML page: a map and a timeline.",
      "zonaris-report"};
  std::string beacons, score, start, title;
  std::pair<int, int> silence{0, 0};
  app.add_option("lines", o.lines, "the run's JSON lines (default: stdin)");
  app.add_option("--trace", o.trace, "the trace the run followed (GPX or CSV)")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_option("--fences", o.fences, "the fences file (JSON array)")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_option("-o,--out", o.out, "the HTML file to write")->required();
  auto* beaconsOpt =
      app.add_option("--beacons", beacons, "beacon sightings CSV, as given to zonaris-sim")
          ->check(CLI::ExistingFile);
  auto* scoreOpt =
      app.add_option("--score", score, "ground-truth score (JSON, zonaris-sim --score)")
          ->check(CLI::ExistingFile);
  auto* startOpt = app.add_option("--start", start,
                                  "the run's local start time YYYY-MM-DDTHH:MM:SS (default: the "
                                  "trace's first time, else 2026-01-01T12:00:00)");
  auto* silenceOpt =
      app.add_option("--silence", silence, "the client's silence window: START STOP hours")
          ->check(CLI::Range(0, 23));
  auto* titleOpt = app.add_option("--title", title, "the page's title");
  double pace = 0.0;
  auto* paceOpt =
      app.add_option("--pace", pace, "the pace the run replayed the trace at (zonaris-sim --pace)")
          ->check(CLI::Range(0.01, 1000.0));
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::fputs(app.help().c_str(), stdout);
    return 0;
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "zonaris-report: %s\n", tools::oneLine(e.what()).c_str());
    return kUsageError;
  }
  if (beaconsOpt->count())
    o.beacons = beacons;
  if (scoreOpt->count())
    o.score = score;
  if (startOpt->count())
    o.start = start;
  if (silenceOpt->count())
    o.silence = silence;
  if (titleOpt->count())
    o.title = title;
  if (paceOpt->count())
    o.pace = pace;

  const auto wallStart = std::chrono::steady_clock::now();
  try {
    const ReportInputs in = readInputs(o);
    const std::string page = renderPage(in);
    writeWhole(o.out, page);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    std::fprintf(stderr,
                 "zonaris-report: %s: %.2f MB (%zu fences, %zu fixes, %zu events, %llu lines) in "
                 "%.2f s\n",
                 o.out.c_str(), static_cast<double>(page.size()) / 1e6, in.fences.size(),
                 in.run.fixes.size(), in.run.events.size(),
                 static_cast<unsigned long long>(in.run.lines), seconds);
  } catch (const sim::InputError& e) {
    std::fprintf(stderr, "zonaris-report: %s\n", tools::oneLine(e.what()).c_str());
    return kUsageError;
  }
  return 0;
}

}  // namespace
}  // namespace zonaris::report_tool

int main(int argc, char** argv) {
  try {
    return zonaris::report_tool::run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zonaris-report: %s\n", e.what());
    return 1;
  }
}
