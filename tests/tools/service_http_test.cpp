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

TEST_F(ServiceTest, ServesTheFourExchangesOverHttp) {
  ReferenceService service(options(fences()));
  const int port = service.start(0);
  ASSERT_GT(port, 0) << service.error();
  EXPECT_EQ(service.baseUrl(), "http://127.0.0.1:" + std::to_string(port));
  httplib::Client http("127.0.0.1", port);
  const char* kType = "application/json; charset=UTF-8";

  auto install = http.Post("/install", R"({"appKey":"demo"})", kType);
  ASSERT_TRUE(install);
  EXPECT_EQ(install->status, 201);
  EXPECT_EQ(json::parse(install->body), json::parse(R"({"id": 1})"));

  auto catalogue = http.Get("/install/location?install=1&lat=47.400000&long=8.500000&radius=10000");
  ASSERT_TRUE(catalogue);
  EXPECT_EQ(catalogue->status, 200);
  auto listed = json::parse(catalogue->body);
  ASSERT_EQ(listed.size(), 1u) << catalogue->body;
  EXPECT_EQ(listed[0]["id"], 5);

  auto observed = http.Post("/observation", observationBody(1, 47.4, 8.5).dump(), kType);
  ASSERT_TRUE(observed);
  EXPECT_EQ(observed->status, 201);
  EXPECT_EQ(json::parse(observed->body), json::parse(R"({"id": 1, "events": [
      {"location_id": 5, "event_type": "entry", "data": {"zr:msg:title": "Hello"}}]})"));

  auto report = http.Post("/install/error",
                          R"({"intall_id":1,"data":{"reason":"Send observatnion failed",
                              "callstack":[],"variables_state":[]},"version":"2.0.03.30"})",
                          kType);
  ASSERT_TRUE(report);
  EXPECT_EQ(report->status, 201);

  auto refused = http.Post("/observation", "not json", kType);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, 400);
  EXPECT_TRUE(json::parse(refused->body).contains("error"));

  service.stop();
  EXPECT_FALSE(http.Get("/install/location?install=1&lat=0&long=0&radius=1"));
}

TEST_F(ServiceTest, ConcurrentInstallsEachGetOneEntry) {
  ReferenceService service(options(fences()));
  const int port = service.start(0);
  ASSERT_GT(port, 0) << service.error();
  constexpr int kDevices = 4;
  constexpr int kObservations = 5;
  std::vector<std::vector<Event>> seen(kDevices);
  std::vector<std::thread> devices;
  for (int d = 0; d < kDevices; ++d) {
    devices.emplace_back([&, d] {
      httplib::Client http("127.0.0.1", port);
      auto install = http.Post("/install", R"({"appKey":"demo"})", "application/json");
      if (!install || install->status != 201) {
        ADD_FAILURE() << "registration failed: " << (install ? install->body : "no answer");
        return;
      }
      const auto id = json::parse(install->body)["id"].get<std::int64_t>();
      for (int i = 0; i < kObservations; ++i) {
        auto r =
            http.Post("/observation", observationBody(id, 47.4, 8.5).dump(), "application/json");
        if (!r || r->status != 201) {
          ADD_FAILURE() << "observation failed: " << (r ? r->body : "no answer");
          return;
        }
        const auto answer = json::parse(r->body);
        for (const auto& e : answer["events"])
          seen[d].emplace_back(e["location_id"].get<std::int64_t>(), e["event_type"]);
      }
    });
  }
  for (auto& t : devices)
    t.join();
  for (int d = 0; d < kDevices; ++d)
    EXPECT_EQ(seen[d], (std::vector<Event>{{5, "entry"}})) << "device " << d;
}

#ifdef ZONARIS_SERVICE_BIN
// Runs the program with stdout and stderr on pipes; answers its pid and the two read ends.
struct Child {
  pid_t pid = -1;
  FILE* out = nullptr;
  FILE* err = nullptr;
};

Child spawn(std::vector<std::string> args) {
  int out[2], err[2];
  if (pipe(out) != 0 || pipe(err) != 0)
    return {};
  std::vector<char*> argv;
  args.insert(args.begin(), ZONARIS_SERVICE_BIN);
  for (auto& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    close(out[0]);
    close(err[0]);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  return {pid, fdopen(out[0], "r"), fdopen(err[0], "r")};
}

std::string readAll(FILE* f) {
  std::string text;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, f))
    text += buffer;
  std::fclose(f);
  return text;
}

int exitCode(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ServiceProgram, ListensOnTheChosenPortUntilTerminated) {
  auto child = spawn({"--fences", ZONARIS_EXAMPLES_DIR "/fences.json", "--port", "0"});
  ASSERT_GT(child.pid, 0);
  char line[256] = {};
  ASSERT_TRUE(std::fgets(line, sizeof line, child.out));
  int port = 0;
  ASSERT_EQ(std::sscanf(line, "zonaris-service listening on http://127.0.0.1:%d\n", &port), 1)
      << line;
  httplib::Client http("127.0.0.1", port);
  auto install = http.Post("/install", R"({"appKey":"demo"})", "application/json");
  ASSERT_TRUE(install);
  EXPECT_EQ(install->status, 201);
  kill(child.pid, SIGTERM);
  EXPECT_EQ(exitCode(child.pid), 0);
  EXPECT_EQ(readAll(child.err), "");
  readAll(child.out);
}

TEST(ServiceProgram, ExitsWithTwoAndOneLineOnBadInput) {
  const auto malformed = std::filesystem::temp_directory_path() /
                         ("zonaris-service-bad-" + std::to_string(::getpid()) + ".json");
  std::ofstream(malformed) << R"([{"id": 1}])";
  for (const std::vector<std::string>& args : {
           std::vector<std::string>{"--fences", "/nonexistent/fences.json"},
           std::vector<std::string>{"--fences", malformed.string()},
           std::vector<std::string>{"--port", "1"},
       }) {
    auto child = spawn(args);
    ASSERT_GT(child.pid, 0);
    const auto out = readAll(child.out);
    const auto err = readAll(child.err);
    EXPECT_EQ(exitCode(child.pid), 2) << args[1];
    EXPECT_EQ(out, "");
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
  }
  std::filesystem::remove(malformed);
}
#endif

}  // namespace
}  // namespace zonaris::service_tool::test
