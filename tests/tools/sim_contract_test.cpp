// zonaris-sim against a scripted service: the JSON-lines contract on stdout, the options that
// reach the client, and the summary's request counts. (The silence window is exercised by the
// bundled day.)

#include <regex>
#include <set>

#include <gtest/gtest.h>

#include "support/recording_server.hpp"
#include "tools/sim_process.hpp"

#ifdef ZONARIS_SIM_BIN

namespace zonaris::test {
namespace {

using nlohmann::json;

const std::set<std::string> kCallbackNames = {
    "updatedInitLocation", "updatedDistanceToNearestFence",
    "updatedBeaconScan",   "reportSent",
    "eventEnterCallback",  "eventExitCallback",
    "eventDwellCallback",  "actionBasicCallback",
    "actionDataCallback",  "updatedSpeed",
    "updatedAvgSpeed",     "updatedInterval",
    "updatedGPSAccuracy"};

// A kiosk with a 30 m radius where the walk starts; the service confirms an entry with a
// message on the first observation.
void scriptKioskService(RecordingServer& server) {
  server.respond("POST", "/install", {201, R"({"id": 7})"});
  server.respond("GET", "/install/location", {200, R"j([{"id": 5, "name": "Kiosk", "type": "point",
                            "location": "POINT (11.5 48.1)", "radius": 30,
                            "_event_types": ["entry"], "_dwell_windows": []}])j"});
  server.respondSequence(
      "POST", "/observation",
      {{201, R"({"id": 1, "events": [{"location_id": 5, "event_type": "entry", "data":
                 {"zr:msg:title": "Hi", "zr:msg:body": "There", "promo": "X1"}}]})"},
       {201, R"({"id": 2, "events": []})"}});
  server.respond("POST", "/install/error", {201, R"({"id": 1})"});
}

// The text under `key`, or "" when the line is not an object or the value not a string.
std::string textOf(const json& line, const char* key) {
  if (!line.is_object())
    return {};
  auto it = line.find(key);
  return it != line.end() && it->is_string() ? it->get<std::string>() : std::string();
}

struct SimRun {
  ProcessResult result;
  std::vector<std::string> rawLines;
  std::vector<json> lines;

  std::vector<std::string> callbackNames() const {
    std::vector<std::string> names;
    for (const auto& line : lines) {
      if (textOf(line, "type") == "callback")
        names.push_back(textOf(line, "name"));
    }
    return names;
  }
  const json* firstCallback(const std::string& name) const {
    for (const auto& line : lines) {
      if (textOf(line, "type") == "callback" && textOf(line, "name") == name)
        return &line;
    }
    return nullptr;
  }
  std::string rawCallback(const std::string& name) const {
    for (const auto& raw : rawLines) {
      if (raw.find("\"name\":\"" + name + "\"") != std::string::npos)
        return raw;
    }
    return {};
  }
};

SimRun runAgainst(const RecordingServer& server, std::vector<std::string> extra) {
  ScratchFolder scratch;
  const std::string trace =
      scratch.file("walk.csv", "t,lat,lon,accuracy\n0,48.1,11.5,8\n120,48.1,11.5,8\n");
  std::vector<std::string> args{
      "--trace", trace, "--service", server.baseUrl() + "/", "--start", "2026-05-04T09:15:00",
      "--until", "90"};
  args.insert(args.end(), extra.begin(), extra.end());
  SimRun run;
  run.result = runProcess(ZONARIS_SIM_BIN, args, scratch);
  std::istringstream stream(run.result.out);
  for (std::string raw; std::getline(stream, raw);) {
    run.rawLines.push_back(raw);
    run.lines.push_back(json::parse(raw, nullptr, false));
  }
  return run;
}

TEST(SimContract, EveryLineIsOneObjectWithTimeTypeAndTheFieldsOfItsType) {
  RecordingServer server;
  scriptKioskService(server);
  const SimRun run = runAgainst(server, {"--dev-mode"});
  ASSERT_EQ(run.result.status, 0) << run.result.err;
  ASSERT_FALSE(run.lines.empty());

  // "t" first, then "type", then the type's own fields, as a stream reader expects them.
  const std::regex logLine(R"(^\{"t":\d+(\.\d+)?,"type":"log","line":".*"\}$)");
  const std::regex callbackLine(
      R"(^\{"t":\d+(\.\d+)?,"type":"callback","name":"\w+","args":\[.*\]\}$)");
  double previous = 0.0;
  int logs = 0;
  for (std::size_t i = 0; i < run.lines.size(); ++i) {
    const auto& raw = run.rawLines[i];
    const auto& line = run.lines[i];
    ASSERT_TRUE(line.is_object()) << raw;
    EXPECT_TRUE(std::regex_match(raw, logLine) || std::regex_match(raw, callbackLine)) << raw;
    ASSERT_TRUE(line.contains("t") && line.at("t").is_number()) << raw;
    const double t = line.at("t").get<double>();
    EXPECT_GE(t, previous) << raw;
    EXPECT_LE(t, 90.0) << raw;
    previous = t;
    if (textOf(line, "type") == "callback")
      EXPECT_TRUE(kCallbackNames.count(textOf(line, "name"))) << raw;
    else
      ++logs;
  }
  EXPECT_GT(logs, 0) << "developer mode logs the client's steps";

  // Arguments as the contract spells them, keys in that order.
  const std::string init = run.rawCallback("updatedInitLocation");
  EXPECT_NE(init.find(R"("args":[{"latitude":48.1,"longitude":11.5,"horizontalAccuracy":8.0,)"),
            std::string::npos)
      << init;
  EXPECT_NE(run.rawCallback("eventEnterCallback").find(R"("args":["Kiosk"]})"), std::string::npos);
  const std::string basic = R"j("args":[{"title":"Hi","body":"There","url":"(null)"}]})j";
  EXPECT_NE(run.rawCallback("actionBasicCallback").find(basic), std::string::npos);
  const std::string data = R"j("args":[{"values":{"promo":"X1"}}]})j";
  EXPECT_NE(run.rawCallback("actionDataCallback").find(data), std::string::npos);
  const json* interval = run.firstCallback("updatedInterval");
  ASSERT_NE(interval, nullptr);
  EXPECT_EQ(interval->at("args").size(), 1u);
  EXPECT_TRUE(interval->at("args").at(0).is_number_integer());
}

TEST(SimContract, CallbacksOfOneAnswerComeInTheOrderTheClientMakesThem) {
  RecordingServer server;
  scriptKioskService(server);
  const SimRun run = runAgainst(server, {});
  ASSERT_EQ(run.result.status, 0) << run.result.err;
  const auto names = run.callbackNames();
  auto at = [&](const std::string& name) {
    return std::find(names.begin(), names.end(), name) - names.begin();
  };
  ASSERT_LT(at("actionDataCallback"), static_cast<long>(names.size()));
  EXPECT_LT(at("updatedInitLocation"), at("reportSent"));
  EXPECT_LT(at("reportSent"), at("eventEnterCallback"));
  EXPECT_LT(at("eventEnterCallback"), at("actionBasicCallback"));
  EXPECT_LT(at("actionBasicCallback"), at("actionDataCallback"));
  for (const auto& line : run.lines)
    EXPECT_NE(textOf(line, "type"), "log") << "no developer mode, no step logs: " << line.dump();
}

TEST(SimContract, OptionsReachTheClientAndTheSummaryCountsWhatWasSent) {
  RecordingServer server;
  scriptKioskService(server);
  const SimRun run = runAgainst(server, {"--app-key", "k-42", "--tags", R"({"tier":"gold"})"});
  ASSERT_EQ(run.result.status, 0) << run.result.err;

  const auto installs = server.requests("POST", "/install");
  ASSERT_EQ(installs.size(), 1u);
  EXPECT_EQ(json::parse(installs[0].body, nullptr, false), json({{"appKey", "k-42"}}));
  const auto observations = server.requests("POST", "/observation");
  ASSERT_FALSE(observations.empty());
  const json observation = json::parse(observations[0].body, nullptr, false);
  ASSERT_TRUE(observation.is_object());
  EXPECT_EQ(observation.value("data", json()), json({{"tier", "gold"}}));
  EXPECT_EQ(observation.value("install", json()), json(7));

  const std::string& summary = run.result.err;
  EXPECT_NE(summary.find("registration 1,"), std::string::npos) << summary;
  EXPECT_NE(summary.find("fence query " + std::to_string(server.count("GET", "/install/location"))),
            std::string::npos)
      << summary;
  EXPECT_NE(summary.find("observation " + std::to_string(observations.size())), std::string::npos)
      << summary;
  EXPECT_NE(summary.find("1 entry"), std::string::npos) << summary;
  EXPECT_NE(summary.find("2 delivered"), std::string::npos) << summary;
}

}  // namespace
}  // namespace zonaris::test

#endif
