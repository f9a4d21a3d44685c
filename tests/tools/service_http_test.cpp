// The service over real HTTP on 127.0.0.1, embedded and as the zonaris-service program.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include <httplib.h>

#include "tools/service_fixture.hpp"

namespace zonaris::service_tool::test {
namespace {

json fences() {
  return json::parse(R"j([{"id": 5, "name": "Office", "type": "point",
                           "location": "POINT (8.5 47.4)", "radius": 50,
                           "_event_types": ["entry"],
                           "messages": {"entry": {"zr:msg:title": "Hello"}}}])j");
}

// Status and parsed body of an answer; status 0 when nothing answered.
std::pair<int, json> result(const httplib::Result& r) {
  if (!r)
    return {0, json()};
  return {r->status, json::parse(r->body, nullptr, false)};
}

TEST_F(ServiceTest, ServesTheFourExchangesOverHttp) {
  ReferenceService service(options(fences()));
  const int port = service.start(0);
  ASSERT_GT(port, 0) << service.error();
  EXPECT_EQ(service.baseUrl(), "http://127.0.0.1:" + std::to_string(port));
  httplib::Client http("127.0.0.1", port);
  const char* kType = "application/json; charset=UTF-8";

  EXPECT_EQ(result(http.Post("/install", R"({"appKey":"demo"})", kType)),
            std::pair(201, json::parse(R"({"id": 1})")));
  auto [status, listed] =
      result(http.Get("/install/location?install=1&lat=47.400000&long=8.500000&radius=10000"));
  EXPECT_EQ(status, 200);
  EXPECT_EQ(listed.size(), 1u);
  EXPECT_EQ(result(http.Post("/observation", observationBody(1, 47.4, 8.5).dump(), kType)),
            std::pair(201, json::parse(R"({"id": 1, "events": [{"location_id": 5,
                "event_type": "entry", "data": {"zr:msg:title": "Hello"}}]})")));
  // A report sent before registration carries an install id below 1; it is kept all the same.
  EXPECT_EQ(result(http.Post("/install/error", R"({"intall_id": -1, "data": {"reason": "x",
                "callstack": [], "variables_state": []}, "version": "2.0.03.30"})",
                             kType)),
            std::pair(201, json::parse(R"({"id": 1})")));
  EXPECT_EQ(result(http.Post("/observation", "not json", kType)).first, 400);

  service.stop();
  EXPECT_EQ(result(http.Post("/install", R"({"appKey":"demo"})", kType)).first, 0);
}

// Server threads serve devices at once; each install keeps its own state.
TEST_F(ServiceTest, ConcurrentDevicesEachGetOneEntry) {
  ReferenceService service(options(fences()));
  const int port = service.start(0);
  ASSERT_GT(port, 0) << service.error();
  std::vector<std::vector<Event>> seen(4);
  std::vector<std::thread> devices;
  for (auto& events : seen) {
    devices.emplace_back([&] {
      httplib::Client http("127.0.0.1", port);
      auto [status, install] = result(http.Post("/install", R"({"appKey":"d"})", "text/json"));
      for (int i = 0; status == 201 && i < 5; ++i) {
        auto [s, answer] = result(http.Post(
            "/observation", observationBody(install["id"], 47.4, 8.5).dump(), "text/json"));
        for (const auto& e : s == 201 ? answer["events"] : json::array())
          events.emplace_back(e["location_id"], e["event_type"]);
      }
    });
  }
  for (auto& t : devices)
    t.join();
  for (const auto& events : seen)
    EXPECT_EQ(events, (std::vector<Event>{{5, "entry"}}));
}

#ifdef ZONARIS_SERVICE_BIN
std::string readAll(FILE* f) {
  std::string text;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, f))
    text += buffer;
  return text;
}

TEST(ServiceProgram, ListensOnTheChosenPortUntilTerminated) {
  // The shell starts the program in the background and prints its pid.
  FILE* out = popen(ZONARIS_SERVICE_BIN " --fences " ZONARIS_EXAMPLES_DIR
                                        "/fences.json --port 0 2>&1 & echo $!",
                    "r");
  ASSERT_TRUE(out);
  int pid = 0, port = 0;
  char line[256] = {};
  for (int i = 0; i < 2 && std::fgets(line, sizeof line, out); ++i) {
    if (std::sscanf(line, "zonaris-service listening on http://127.0.0.1:%d\n", &port) != 1)
      std::sscanf(line, "%d", &pid);
  }
  ASSERT_GT(pid, 0);
  ASSERT_GT(port, 0);
  httplib::Client http("127.0.0.1", port);
  EXPECT_EQ(result(http.Post("/install", R"({"appKey":"demo"})", "text/json")).first, 201);
  kill(pid, SIGTERM);
  EXPECT_EQ(readAll(out), "");  // it ends without a word once the signal arrives
  pclose(out);
}

TEST(ServiceProgram, ExitsWithTwoAndOneLineNamingTheProblem) {
  const auto malformed = std::filesystem::temp_directory_path() /
                         ("zonaris-service-bad-" + std::to_string(::getpid()) + ".json");
  std::ofstream(malformed) << R"([{"id": 1}])";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"--fences /nonexistent/fences.json", "/nonexistent/fences.json: cannot open"},
      {"--fences " + malformed.string(), malformed.string() + ": element 0: \"location\""},
      {"--port 1", "--fences"},
  };
  for (const auto& [args, expected] : cases) {
    // Only standard error reaches the pipe.
    FILE* err = popen((ZONARIS_SERVICE_BIN " " + args + " 2>&1 >/dev/null").c_str(), "r");
    ASSERT_TRUE(err);
    const auto text = readAll(err);
    const int status = pclose(err);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << args;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_NE(text.find(expected), std::string::npos) << text;
  }
  std::filesystem::remove(malformed);
}
#endif

}  // namespace
}  // namespace zonaris::service_tool::test
