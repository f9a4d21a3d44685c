// zonaris-report run as a process: what it reads from a run (a transcript of the page's data),
// the size of a 24-hour day, its refusals of bad input, and the bundled day's page in a real
// headless Chromium.

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/process.hpp"

#if defined(ZONARIS_REPORT_BIN) && defined(ZONARIS_SIM_BIN)

namespace zonaris::test {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

Ran report(const Scratch& scratch, std::vector<std::string> args) {
  args.insert(args.begin(), ZONARIS_REPORT_BIN);
  return run(args, scratch, 120s, "report");
}

/// The data the page draws from, as embedded in it.
json pageData(const std::string& html) {
  const std::string open = "<script type=\"application/json\" id=\"zr-data\">";
  const auto from = html.find(open);
  const auto to = html.find("</script>", from);
  if (from == std::string::npos || to == std::string::npos)
    return nullptr;
  return json::parse(html.substr(from + open.size(), to - from - open.size()), nullptr, false);
}

const std::string kFences = R"json([
 {"id":1,"name":"Shop","type":"polygon","location":"POLYGON ((8 47, 8.001 47, 8.001 47.001, 8 47))",
  "_event_types":["entry","exit"],"_dwell_windows":[]},
 {"id":2,"name":"Gate","type":"point","location":"POINT (8.01 47.01)","radius":40,
  "_event_types":["entry"],"_dwell_windows":[]},
 {"id":3,"name":"Cafe","type":"beacon","location":"POINT (8.02 47.02)","major":1,"minor":2,
  "uuid":"5A4BCFCE-174E-4BAC-A814-092E77F6B7E5","_event_types":["entry"],"_dwell_windows":[]}])json";

std::string line(double t, const std::string& logLine) {
  return json({{"t", t}, {"type", "log"}, {"line", logLine}}).dump() + "\n";
}
std::string call(double t, const std::string& name, const json& args) {
  return json({{"t", t}, {"type", "callback"}, {"name", name}, {"args", args}}).dump() + "\n";
}

// A short run written by hand: an init fix, two evaluations (one without a dev-mode position),
// a scan, an entry with a message, an entry whose message the silence window dropped, a failed
// observation and an error report.
TEST(Report, DataFollowsTheLinesTheTraceAndTheScore) {
  Scratch s("zonaris-report-test");
  std::string lines =
      line(1, "New location: 47.000100, 8.000100, 0.000000, 5.000000") +
      call(1, "updatedInitLocation",
           {{{"latitude", 47.0001}, {"longitude", 8.0001}, {"horizontalAccuracy", 5.0}}}) +
      line(20, "New location: 47.000500, 8.000500, 1.500000, 8.000000") +
      call(20, "updatedDistanceToNearestFence", {12.5, true}) + line(20, "Started scan") +
      call(20, "reportSent", json::array()) + line(20, "    Event id        = 1") +
      line(20, R"(    Message data    = {"zr:msg:title":"Hi"})") +
      line(20, "Confirmed entry for 1") + call(20, "eventEnterCallback", {"Shop"}) +
      call(20, "actionBasicCallback", {{{"title", "Hi"}, {"body", "(null)"}, {"url", "(null)"}}}) +
      call(20, "updatedSpeed", {1.5}) + call(20, "updatedInterval", {15}) +
      line(30, "Stopped scan") + line(35, "Observation wasn't sent!") +
      line(35, "Sending exception...") +
      line(35, R"({"data":{"reason":"Send observatnion failed"}})") +
      call(35, "updatedInterval", {600}) + call(35, "updatedGPSAccuracy", {9.5}) +
      line(40, "    Event id        = 2") + line(40, R"(    Message data    = {"a":1})") +
      call(40, "eventEnterCallback", {"Gate"}) + line(40, "Silence time: YES (ignoring messages)");
  const json score = json::parse(R"({
      "matched": [{"fence": "Shop", "id": 1, "type": "entry", "true_t": 12, "t": 20, "latency": 8}],
      "missed": [{"fence": "Gate", "id": 2, "type": "exit", "true_t": 50, "in_outage": false}],
      "false": [{"fence": "Cafe", "id": 3, "type": "entry", "t": 36}]})");
  const auto out = s.path("r.html");
  const Ran run = report(
      s, {s.file("lines", lines), "--trace", s.file("t.csv", "0,47,8\n100,47.001,8.001\n"),
          "--fences", s.file("f.json", kFences), "--score", s.file("score.json", score.dump()),
          "--start", "2026-03-10T21:59:30", "--silence", "22", "1", "-o", out});
  ASSERT_EQ(run.status, 0) << run.err;
  const json data = pageData(slurp(out));
  ASSERT_TRUE(data.is_object());

  std::string transcript;
  for (const json& f : data["fixes"])
    transcript += fmt::format("fix {} {} {} {} {} acc {}\n", f[0].dump(), f[1].dump(), f[2].dump(),
                              f[5].get<std::string>(), f[4].dump(), f[3].dump());
  for (const json& e : data["events"])
    transcript +=
        fmt::format("{} {} {} id {} at {} basic {} silenced {} sent {} latency {}\n", e["t"].dump(),
                    e["type"].get<std::string>(), e["name"].dump(), e["id"].dump(), e["at"].dump(),
                    e["basic"].dump(), e["silenced"].dump(), e["sent"].dump(),
                    e.value("latency", json()).dump());
  transcript += "missed at " + data["score"]["missed"][0]["at"].dump() + ", false at " +
                data["score"]["false"][0]["at"].dump() + "\n";
  for (const char* key : {"scans", "observations", "errors", "distance", "silence"})
    transcript += std::string(key) + " " + data[key].dump() + "\n";
  for (const json& f : data["fences"])
    transcript += f["name"].get<std::string>() + " " + f["shape"]["type"].get<std::string>() + "\n";
  // The silence window 22..1 silences 22:00 to 01:59; the run starts at 21:59:30.
  EXPECT_EQ(transcript, R"x(fix 1.0 47.0001 8.0001 log null acc 5.0
fix 20.0 47.0005 8.0005 log 15 acc 8.0
fix 35.0 47.00035 8.00035 trace 600 acc 9.5
20.0 entry "Shop" id 1 at [47.0005,8.0005] basic {"body":"(null)","title":"Hi","url":"(null)"} silenced false sent "{\"zr:msg:title\":\"Hi\"}" latency 8.0
40.0 entry "Gate" id 2 at [47.00035,8.00035] basic null silenced true sent "{\"a\":1}" latency null
missed at [47.0005,8.0005], false at [47.00035,8.00035]
scans [[20.0,30.0]]
observations [[20.0,1],[35.0,0]]
errors [[35.0,"Send observatnion failed"]]
distance [[20.0,12.5,1]]
silence [[30.0,100.0]]
Shop Polygon
Gate Point
Cafe Point
)x");
}

// A day of 1 Hz trace with a fix every 15 s stays well under 5 MB: the trace is thinned.
TEST(Report, ATwentyFourHourDayOfOneHertzTraceStaysSmall) {
  Scratch s("zonaris-report-test");
  std::string trace, lines;
  for (int t = 0; t <= 86400; ++t) {
    // A wandering walk: never straight, so the thinning has real work to do.
    const double lat = 47.0 + 0.02 * std::sin(t / 900.0) + 0.0005 * std::sin(t / 7.0);
    const double lon = 8.0 + 0.03 * std::cos(t / 1300.0) + 0.0005 * std::cos(t / 5.0);
    trace += fmt::format("{},{:.7f},{:.7f}\n", t, lat, lon);
    if (t % 15 == 0)
      lines += line(t, fmt::format("New location: {:.6f}, {:.6f}, 1.000000, 5.000000", lat, lon)) +
               call(t, "updatedDistanceToNearestFence", {100.0, false}) +
               call(t, "updatedSpeed", {1.0}) + call(t, "updatedAvgSpeed", {1.0}) +
               call(t, "updatedInterval", {15});
  }
  const auto out = s.path("day.html");
  const Ran run = report(s, {s.file("lines", lines), "--trace", s.file("t.csv", trace), "--fences",
                             s.file("f.json", kFences), "-o", out});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_LT(fs::file_size(out), 5'000'000u);
  EXPECT_EQ(pageData(slurp(out))["fixes"].size(), 5761u);
}

// Bad input: one line on stderr naming the problem, status 2, and the previous output intact
// with no temporary file beside it.
TEST(Report, BadInputGivesOneLineAndLeavesNothingHalfWritten) {
  struct Case {
    std::string lines, option, value;  ///< value "BAD" stands for a file holding [1]
    std::string error;
  };
  const std::string good = call(1, "updatedInterval", {15});
  const std::vector<Case> cases = {
      {good + "{\"t\":2,\"type\":\"log\",\"line\":\n", "", "", "lines:2: not a JSON object"},
      {"[1,2]\n", "", "", "lines:1: not a JSON object"},
      {R"({"type":"log","line":"x"})", "", "", "lines:1: a line needs a number \"t\" and a text"},
      {R"({"t":1,"type":"log"})", "", "", "lines:1: a log line needs a text \"line\""},
      {R"({"t":1,"type":"callback","name":"reportSent"})", "", "", "lines:1: a callback needs"},
      {call(1, "updatedInterval", {"15"}), "", "", "lines:1: updatedInterval needs [seconds]"},
      {call(1, "eventEnterCallback", {1}), "", "", "lines:1: an event callback needs"},
      {good, "--trace", "/nonexistent/t.csv", "--trace: File does not exist"},
      {good, "--fences", "/nonexistent/f.json", "--fences: File does not exist"},
      {good, "--fences", "BAD", "bad.json"},
      {good, "--score", "BAD", "bad.json: not a JSON object"},
      {good, "--trace", "BAD", "bad.json:1:"},
      {good, "--start", "noon", "--start: not a local time"},
      {good, "-o", "/nonexistent/dir/r.html", "/nonexistent/dir/r.html: cannot be written"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.lines.substr(0, 60) + " " + c.option);
    Scratch s("zonaris-report-test");
    const std::string out = s.file("r.html", "previous report"), bad = s.file("bad.json", "[1]");
    std::map<std::string, std::string> options = {{"--trace", s.file("t.csv", "0,47,8\n")},
                                                  {"--fences", s.file("f.json", kFences)},
                                                  {"-o", out}};
    if (!c.option.empty())
      options[c.option] = c.value == "BAD" ? bad : c.value;
    std::vector<std::string> args = {s.file("lines", c.lines)};
    for (const auto& [option, value] : options)
      args.insert(args.end(), {option, value});
    const Ran run = report(s, args);
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find(c.error), std::string::npos) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_EQ(slurp(out), "previous report");
    std::set<std::string> left;
    for (const auto& entry : fs::directory_iterator(s.dir))
      left.insert(entry.path().filename().string());
    EXPECT_EQ(left, (std::set<std::string>{"bad.json", "f.json", "lines", "r.html", "report.err",
                                           "report.out", "t.csv"}));
  }
}

// ---- The bundled day in a real browser -----------------------------------------------------

/// Headless Chromium on a file, offline: a private profile in `scratch`, no background
/// networking, every host name unresolvable and every request sent to a closed local port (the
/// browser's own update and account checks included).
Ran browse(const Scratch& scratch, const std::string& browser, std::vector<std::string> what,
           const std::string& url) {
  std::vector<std::string> args = {browser, "--host-resolver-rules=MAP * ~NOTFOUND",
                                   "--user-data-dir=" + scratch.path("profile")};
  std::istringstream words(
      "--headless=new --no-sandbox --disable-gpu --no-first-run --no-default-browser-check "
      "--disable-background-networking --disable-component-update --disable-sync "
      "--disable-extensions --proxy-server=127.0.0.1:9 --hide-scrollbars --window-size=1400,1000 "
      "--virtual-time-budget=10000 --enable-logging=stderr --v=0");
  for (std::string word; words >> word;)
    args.push_back(word);
  args.insert(args.end(), what.begin(), what.end());
  args.push_back(url);
  return run(args, scratch, 90s, "browser");
}

std::string attribute(const std::string& element, const std::string& name) {
  const auto at = element.find(" " + name + "=\"");
  if (at == std::string::npos)
    return "";
  const auto from = at + name.size() + 3;
  return element.substr(from, element.find('"', from) - from);
}

TEST(ReportInBrowser, BundledDayDrawsEveryFenceAndEventWithoutErrors) {
  std::string browser;
  for (const char* candidate : {"/usr/bin/chromium-browser", "/usr/bin/chromium"})
    browser = ::access(candidate, X_OK) == 0 ? candidate : browser;
  if (browser.empty())
    GTEST_SKIP() << "Chromium is not installed (scripts/install-deps.sh installs it)";
  Scratch s("zonaris-report-test");
  const Ran probe = browse(s, browser, {"--dump-dom"}, "about:blank");
  if (probe.status != 0)
    GTEST_SKIP() << "Chromium cannot run here: " << probe.err.substr(0, 400);

  const std::string examples = ZONARIS_EXAMPLES_DIR;
  const Ran sim = run({ZONARIS_SIM_BIN, "--trace", examples + "/day.gpx", "--fences",
                       examples + "/fences.json", "--beacons", examples + "/beacons.csv", "--uuid",
                       "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5", "--silence", "17", "19", "--start",
                       "2026-03-10T07:30:00", "--dev-mode", "--score", s.path("score.json")},
                      s, 300s, "sim");
  ASSERT_EQ(sim.status, 0) << sim.err;
  const Ran made =
      report(s, {s.path("sim.out"), "--trace", examples + "/day.gpx", "--fences",
                 examples + "/fences.json", "--beacons", examples + "/beacons.csv", "--score",
                 s.path("score.json"), "--silence", "17", "19", "-o", s.path("day.html")});
  ASSERT_EQ(made.status, 0) << made.err;

  // What the page must show, counted from the inputs.
  std::size_t events = 0, fixes = 0;
  std::istringstream jsonl(sim.out);
  for (std::string text; std::getline(jsonl, text);) {
    const json l = json::parse(text);
    events += l.value("name", "").rfind("event", 0) == 0;
    fixes += l.value("line", "").rfind("New location: ", 0) == 0;
  }
  const json fences = json::parse(slurp(examples + "/fences.json"));
  const json score = json::parse(slurp(s.path("score.json")));

  // #t= selects the fix in force at that moment, as a click on the timeline does.
  const Ran dom = browse(s, browser, {"--dump-dom"}, "file://" + s.path("day.html") + "#t=17000");
  ASSERT_EQ(dom.status, 0) << dom.err;
  const std::string& page = dom.out;
  const auto from = page.find("<div id=\"zr-status\"");
  ASSERT_NE(from, std::string::npos) << page.substr(0, 2000);
  const std::string status = page.substr(from, page.find('>', from) - from);
  EXPECT_EQ(dom.err.find("Uncaught"), std::string::npos) << dom.err;

  // Counted in the DOM itself, scripts left out: distinct fence ids on shapes, event badges.
  std::string elements;
  for (std::size_t at = 0, script; at < page.size(); at = page.find("</script>", script)) {
    script = page.find("<script", at);
    elements += page.substr(at, script - at);
    if (script == std::string::npos)
      break;
  }
  std::set<std::string> fenceIds;
  std::size_t badges = 0;
  for (auto at = elements.find('<'); at != std::string::npos; at = elements.find('<', at + 1)) {
    const std::string tag = elements.substr(at, elements.find('>', at) - at);
    if (!attribute(tag, "data-fence").empty())
      fenceIds.insert(attribute(tag, "data-fence"));
    badges += (" " + attribute(tag, "class") + " ").find(" zr-event ") != std::string::npos;
  }
  // What the page says it drew; rings: two point radii and a beacon's two rings.
  std::string drawn = fmt::format("fences {} badges {}", fenceIds.size(), badges);
  for (const char* key :
       {"ready", "errors", "events", "fixes", "rings", "missed", "false", "charts"})
    drawn += fmt::format(" {} {}", key, attribute(status, std::string("data-") + key));
  EXPECT_EQ(drawn, fmt::format("fences {} badges {} ready 1 errors 0 events {} fixes {} rings 4 "
                               "missed {} false {} charts 4",
                               fences.size(), events, events, fixes, score["missed"].size(),
                               score["false"].size()))
      << attribute(status, "data-last-error");
  EXPECT_LE(std::stod(attribute(status, "data-selected-t")), 17000.0);

  const std::string shot = s.path("day.png");
  const Ran picture =
      browse(s, browser, {"--screenshot=" + shot}, "file://" + s.path("day.html") + "#t=17000");
  ASSERT_EQ(picture.status, 0) << picture.err;
  const std::string png = slurp(shot);
  EXPECT_EQ(png.substr(1, 3), "PNG");
  EXPECT_GT(png.size(), 20000u);  // a blank page is a few kB
  if (const char* keep = std::getenv("ZONARIS_REPORT_SCREENSHOT"))
    fs::copy_file(shot, keep, fs::copy_options::overwrite_existing);
}

}  // namespace
}  // namespace zonaris::test

#endif
