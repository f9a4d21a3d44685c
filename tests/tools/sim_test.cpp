// zonaris-sim run as a process: the bundled day against the embedded service, the JSON-lines
// contract against a scripted service, and the refusals of bad input.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
// GCC 12 at -O1 (the sanitizer builds) warns falsely that std::function inside <regex> may be
// used uninitialised; the warning is raised where the templates are instantiated, so it is
// silenced for this file.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/recording_server.hpp"

#ifdef ZONARIS_SIM_BIN

namespace zonaris::test {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

/// A folder of its own under the temporary folder, removed at the end of the test.
struct Scratch {
  fs::path dir;
  Scratch() {
    std::string pattern = (fs::temp_directory_path() / "zonaris-sim-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()))
      dir = pattern;
  }
  ~Scratch() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  std::string path(const std::string& name) const { return (dir / name).string(); }
  std::string file(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }
};

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Outcome {
  int status = -1;  ///< exit status, or -1 when the process did not exit normally
  std::string out, err;
  std::vector<std::string> lines;  ///< stdout, line by line
};

/// Runs zonaris-sim with `words` split at spaces: a key of `files` stands for its value, and
/// "examples/..." for a file of the source's examples folder.
Outcome sim(const std::string& words, const Scratch& scratch,
            const std::map<std::string, std::string>& files = {}) {
  auto quote = [](const std::string& text) {
    return "'" + std::regex_replace(text, std::regex("'"), "'\\''") + "'";
  };
  std::string command = quote(ZONARIS_SIM_BIN);
  std::istringstream split(words);
  for (std::string word; split >> word;) {
    if (word.rfind("examples/", 0) == 0)
      word = ZONARIS_EXAMPLES_DIR + word.substr(8);
    command += " " + quote(files.count(word) ? files.at(word) : word);
  }
  command += " >" + quote(scratch.path("out")) + " 2>" + quote(scratch.path("err"));
  const int wstatus = std::system(command.c_str());
  Outcome run{WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1, slurp(scratch.path("out")),
              slurp(scratch.path("err")), std::vector<std::string>()};
  std::istringstream lines(run.out);
  for (std::string line; std::getline(lines, line);)
    run.lines.push_back(line);
  return run;
}

// Clock times of the bundled day, in seconds after its start at 07:30.
constexpr double at(int hour, int minute) {
  return (hour * 60 + minute - (7 * 60 + 30)) * 60.0;
}

TEST(SimDay, EventsAndMessagesFollowTheWalkAndRepeatByteForByte) {
  const std::string args =
      "--trace examples/day.gpx --fences examples/fences.json --beacons examples/beacons.csv "
      "--uuid 5A4BCFCE-174E-4BAC-A814-092E77F6B7E5 --silence 17 19 --start 2026-03-10T07:30:00";
  Scratch scratch;
  const Outcome first = sim(args, scratch), second = sim(args, scratch);
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_TRUE(first.out == second.out) << "two runs of the same inputs differ";

  // One row per event, with the messages confirmed in the same instant; a message at any other
  // time would show up as "> late".
  std::string transcript;
  std::vector<double> times;
  for (const auto& raw : first.lines) {
    const json line = json::parse(raw);
    const std::string name = line.value("name", "");
    if (name.rfind("event", 0) == 0) {
      times.push_back(line.at("t").get<double>());
      transcript += (times.size() > 1 ? "\n" : "") + name.substr(5, name.size() - 13) + " " +
                    line.at("args").at(0).get<std::string>();
    } else if (name.rfind("action", 0) == 0) {
      const json& arg = line.at("args").at(0);
      transcript += times.empty() || times.back() != line.at("t") ? " > late " : " > ";
      transcript += arg.contains("title") ? arg.at("title").get<std::string>() : arg.dump();
    }
  }
  // The office is entered twice (before and after lunch) with a dwell for each of its windows;
  // the gym falls in the silence window: its events, none of its messages; the depot has no
  // event types.
  const std::string office = R"(Enter Harbour Office > Good morning
Dwell Harbour Office > Time for a break? > {"values":{"focus_mode":"off"}}
Dwell Harbour Office > Time for a break? > {"values":{"focus_mode":"off"}}
Exit Harbour Office)";
  EXPECT_EQ(transcript, R"(Enter Home > Welcome home > {"values":{"scene":"evening"}}
Exit Home
Enter Corner Bakery > Fresh from the oven
Dwell Corner Bakery > (null) > {"values":{"coupon":"CROISSANT10","valid_days":7}}
Exit Corner Bakery
)" + office + R"(
Enter Cafe Lumen > Lunch menu > {"values":{"table":12}}
Exit Cafe Lumen
)" + office + R"(
Enter Northside Gym
Dwell Northside Gym
Exit Northside Gym
Enter Home > Welcome home > {"values":{"scene":"evening"}})");

  ASSERT_EQ(times.size(), 19u);
  auto within = [&](std::size_t i, double from, double to) {
    EXPECT_GT(times[i], from) << "event " << i;
    EXPECT_LT(times[i], to) << "event " << i;
  };
  within(1, at(7, 45), at(7, 53));             // leaving home
  within(3, times[2] + 119, at(8, 0));         // the bakery's two-minute dwell
  within(6, times[5] + 899, times[5] + 1200);  // the office's fifteen-minute dwell
  within(7, times[5] + 3599, times[8]);        // and its hour
  within(8, at(12, 0), at(12, 10));
  within(10, at(12, 50), at(13, 5));  // the cafe's beacons gone
  within(16, times[15] + 1799, times[17]);
  within(18, at(18, 55), at(19, 10));  // home again
}

TEST(SimContract, JsonLinesArgumentShapesAndRequestsAgainstAScriptedService) {
  const std::regex format(
      R"x(^\{"t":\d+(\.\d+)?,"type":("log","line":".*"|"callback","name":"(updatedInitLocation|)x"
      R"x(updatedDistanceToNearestFence|updatedBeaconScan|reportSent|event(Enter|Exit|Dwell)Callback|)x"
      R"x(action(Basic|Data)Callback|updated(Avg)?Speed|updatedInterval|updatedGPSAccuracy)",)x"
      R"x("args":\[.*\])\}$)x");
  for (const bool devMode : {false, true}) {
    SCOPED_TRACE(devMode ? "--dev-mode" : "no --dev-mode");
    // A kiosk where the walk starts; the service confirms an entry with a message at once.
    RecordingServer server;
    server.respond("POST", "/install", {201, R"({"id": 7})"});
    server.respond("GET", "/install/location",
                   {200, R"j([{"id": 5, "name": "Kiosk", "type": "point", "radius": 30, "location":
                   "POINT (11.5 48.1)", "_event_types": ["entry"], "_dwell_windows": []}])j"});
    server.respondSequence("POST", "/observation",
                           {{201, R"({"id": 1, "events": [{"location_id": 5, "event_type": "entry",
                             "data": {"zr:msg:title": "Hi", "zr:msg:body": "There", "promo": "X1"}}]})"},
                            {201, R"({"id": 2, "events": []})"}});
    Scratch scratch;
    const Outcome run =
        sim("--trace @walk --service @url --start 2026-05-04T09:15:00 --until 90 --app-key k-42 "
            "--tags {\"tier\":\"gold\"}" +
                std::string(devMode ? " --dev-mode" : ""),
            scratch,
            {{"@walk",
              scratch.file("walk.csv", "t,lat,lon,accuracy\n0,48.1,11.5,8\n120,48.1,11.5,8\n")},
             {"@url", server.baseUrl() + "/"}});
    ASSERT_EQ(run.status, 0) << run.err;

    double previous = 0.0;
    int logs = 0;
    for (const auto& raw : run.lines) {
      ASSERT_TRUE(std::regex_match(raw, format)) << raw;
      const double t = json::parse(raw).at("t").get<double>();
      EXPECT_GE(t, previous) << raw;
      EXPECT_LE(t, 90.0) << raw;
      previous = t;
      logs += raw.find(R"("type":"log")") != std::string::npos;
      if (raw.find(R"("name":"updatedInterval")") != std::string::npos) {
        EXPECT_TRUE(std::regex_search(raw, std::regex(R"("args":\[\d+\]\}$)"))) << raw;
      }
    }
    EXPECT_EQ(logs > 0, devMode) << "step logs in developer mode only";
    EXPECT_NE(run.out.find(R"("name":"updatedInterval")"), std::string::npos);

    // Callbacks with these arguments (keys in this order) come in this order.
    auto next = run.lines.begin();
    for (
        const std::string expected :
        {R"x("updatedInitLocation","args":[{"latitude":48.1,"longitude":11.5,"horizontalAccuracy":8.0,)x",
         R"x("reportSent",)x", R"x("eventEnterCallback","args":["Kiosk"]})x",
         R"x("actionBasicCallback","args":[{"title":"Hi","body":"There","url":"(null)"}]})x",
         R"x("actionDataCallback","args":[{"values":{"promo":"X1"}}]})x"}) {
      next = std::find_if(next, run.lines.end(), [&](const std::string& raw) {
        return raw.find(expected) != std::string::npos;
      });
      ASSERT_NE(next, run.lines.end()) << "no " << expected << " after the previous callbacks";
    }

    // The options reach the requests, and the summary counts them.
    const auto installs = server.requests("POST", "/install");
    ASSERT_EQ(installs.size(), 1u);
    EXPECT_EQ(json::parse(installs[0].body), json({{"appKey", "k-42"}}));
    const auto observations = server.requests("POST", "/observation");
    ASSERT_FALSE(observations.empty());
    const json observation = json::parse(observations[0].body);
    EXPECT_EQ(observation.value("data", json()), json({{"tier", "gold"}}));
    EXPECT_EQ(observation.value("install", json()), json(7));
    const std::string counted = "observation " + std::to_string(observations.size());
    for (const char* part : {"registration 1,", counted.c_str(), "1 entry", "2 delivered"})
      EXPECT_NE(run.err.find(part), std::string::npos) << run.err;
  }
}

struct BadInput {
  const char* name;
  /// Split at spaces; "@trace", "@fences", "@bad" and "@missing" stand for a good trace, good
  /// fences, a file of garbage and a path that does not exist, "@ok" for a good trace and fences.
  const char* args;
  const char* mentions;  ///< a piece of text the error line must contain
};

class SimRefuses : public ::testing::TestWithParam<BadInput> {};

TEST_P(SimRefuses, WithOneErrorLineAndStatusTwo) {
  Scratch scratch;
  const Outcome run =
      sim(std::regex_replace(GetParam().args, std::regex("@ok"), "--trace @trace --fences @fences"),
          scratch,
          {{"@trace", scratch.file("walk.csv", "t,lat,lon\n0,48.1,11.5\n60,48.101,11.5\n")},
           {"@fences", scratch.file("fences.json", "[]")},
           {"@bad", scratch.file("bad.gpx", "<gpx><trk><trkseg><trkpt lat=\"x\"")},
           {"@missing", scratch.path("no-such-file")}});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  ASSERT_FALSE(run.err.empty());
  EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
  EXPECT_EQ(run.err.rfind("zonaris-sim: ", 0), 0u) << run.err;
  EXPECT_NE(run.err.find(GetParam().mentions), std::string::npos) << run.err;
}

INSTANTIATE_TEST_SUITE_P(
    BadCommandLines, SimRefuses,
    ::testing::Values(BadInput{"UnknownOption", "@ok --speed 3", "--speed"},
                      BadInput{"NoTrace", "--fences @fences", "--trace"},
                      BadInput{"MissingTraceFile", "--trace @missing --fences @fences",
                               "no-such-file"},
                      BadInput{"MalformedTrace", "--trace @bad --fences @fences", "bad.gpx"},
                      BadInput{"NoService", "--trace @trace", "--service"},
                      BadInput{"BothServices", "@ok --service http://127.0.0.1:9", "--service"},
                      BadInput{"MalformedFences", "--trace @trace --fences @bad", "bad.gpx"},
                      BadInput{"MalformedBeacons", "@ok --beacons @bad", "bad.gpx"},
                      BadInput{"TagsNotAnObject", "@ok --tags [1,2]", "--tags"},
                      BadInput{"NotAUuid", "@ok --uuid beacon", "--uuid"},
                      BadInput{"SilenceHourOutOfRange", "@ok --silence 22 24", "--silence"},
                      BadInput{"SilenceWithOneHour", "@ok --silence 22", "--silence"},
                      BadInput{"MalformedStart", "@ok --start 2026-02-30T08:00:00", "--start"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace zonaris::test

#endif
