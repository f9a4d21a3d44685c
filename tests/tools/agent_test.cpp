// zonaris-agent run as a process, end to end: a real zonaris-service, a real gpsd started by
// gpsfake on 127.0.0.1 replaying an NMEA log generated from the example walk, and the agent.
// gpsd is started only after the agent, so the agent also has to find it by retrying. The
// log carries the example day's date, long before the system clock's: fixes are fresh by
// arrival. Then the stop: bounded whatever gpsd and the service do.

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

#include "support/process.hpp"
#include "support/silent_listener.hpp"

#if defined(ZONARIS_AGENT_BIN) && defined(ZONARIS_SERVICE_BIN)

namespace zonaris::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// Waits up to `limit` until the file holds `text`; true when it does.
bool waitForText(const fs::path& file, const std::string& text, std::chrono::seconds limit) {
  const auto deadline = Clock::now() + limit;
  while (slurp(file).find(text) == std::string::npos) {
    if (Clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(50ms);
  }
  return true;
}

int freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

TEST(AgentProgram, TakesTheEntryAndItsMessageFromARealGpsdEndToEnd) {
  if (std::system("command -v gpsfake >/dev/null 2>&1 && (command -v gpsd || test -x "
                  "/usr/sbin/gpsd) >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "gpsd cannot run here: gpsfake or gpsd is not installed "
                    "(scripts/install-deps.sh installs gpsd and gpsd-clients)";
  Scratch s("zonaris-agent-test");
  const std::string examples = ZONARIS_EXAMPLES_DIR;
  const std::string log = s.path("walk.nmea");
  const Ran nmea = run({"python3", examples + "/nmea_from_trace.py", examples + "/walk.csv",
                        "--start", "2026-03-10T07:30:00Z", "--seconds", "90", "-o", log},
                       s, 60s, "nmea");
  ASSERT_EQ(nmea.status, 0) << nmea.err;

  Process service({ZONARIS_SERVICE_BIN, "--fences", examples + "/fences.json", "--port", "0"},
                  s.path("service.out"), s.path("service.err"));
  ASSERT_TRUE(waitForText(s.dir / "service.out", "listening on", 10s));
  const std::string listening = slurp(s.dir / "service.out");
  const std::string url = listening.substr(listening.find("http://"));
  const std::string gpsdPort = std::to_string(freePort());

  Process agent({ZONARIS_AGENT_BIN, "--service", url.substr(0, url.find_first_of(" \n")), "--gpsd",
                 "127.0.0.1:" + gpsdPort, "--store", s.path("store"), "--until", "50"},
                s.path("agent.out"), s.path("agent.err"));
  EXPECT_TRUE(waitForText(s.dir / "agent.err", "is not reachable", 10s)) << "gpsd is not up yet";

  // PATH gets /usr/sbin so that gpsfake finds gpsd; -1: the log once, -c 0.5: in real time.
  const char* path = std::getenv("PATH");
  Process gpsfake({"env", std::string("PATH=/usr/sbin:") + (path ? path : "/usr/bin"), "gpsfake",
                   "-q", "-1", "-c", "0.5", "-P", gpsdPort, log},
                  s.path("gpsfake.out"), s.path("gpsfake.err"));

  const bool entered = waitForText(
      s.dir / "agent.out", R"("name":"actionBasicCallback","args":[{"title":"Welcome home")", 40s);
  const int status = agent.stop(SIGTERM);
  gpsfake.stop();
  service.stop();
  const std::string out = slurp(s.dir / "agent.out"), err = slurp(s.dir / "agent.err");
  EXPECT_TRUE(entered) << out << err << slurp(s.dir / "gpsfake.err");
  EXPECT_NE(out.find(R"("type":"callback","name":"eventEnterCallback","args":["Home"]})"),
            std::string::npos);
  EXPECT_EQ(status, 0) << err;
  for (const std::string& part :
       {"connected to gpsd at 127.0.0.1:" + gpsdPort, std::string("stopped by SIGTERM"),
        std::string("1 entry"), std::string("threads:  all joined")})
    EXPECT_NE(err.find(part), std::string::npos) << part << "\n" << err;
  EXPECT_NE(slurp(s.dir / "store" / "zonaris-store.json").find("\"installId\""), std::string::npos);
}

// gpsd never accepts the connection (its listen queue is full) and the service never answers
// the registration. SIGINT at 3 s: the agent is gone within its stop time-out (a short one
// here; the default is the 60 s the README promises), every thread joined, status 0. With the
// default, a second SIGINT ends it at once.
TEST(AgentProgram, StopsWithinItsTimeOutAndAtOnceOnASecondSignal) {
  Scratch s("zonaris-agent-test");
  const test::SilentListener gpsd(true), service(false);
  ASSERT_TRUE(gpsd.port() != 0 && service.port() != 0);
  struct Row {
    std::vector<std::string> options;
    bool second;  // a second SIGINT 0.5 s after the first
    int status;
    Clock::duration bound;  // from the last signal to the exit
    std::string says;
  };
  const Row table[] = {
      {{"--stop-timeout", "2"}, false, 0, 3s, "threads:  all joined"},
      {{}, true, 130, 1s, "zonaris-agent: SIGINT while stopping: exiting at once"},
  };
  for (const auto& row : table) {
    std::vector<std::string> args{ZONARIS_AGENT_BIN,
                                  "--service",
                                  "http://127.0.0.1:" + std::to_string(service.port()),
                                  "--gpsd",
                                  "127.0.0.1:" + std::to_string(gpsd.port()),
                                  "--store",
                                  s.path("store")};
    args.insert(args.end(), row.options.begin(), row.options.end());
    Process agent(args, s.path("stop.out"), s.path("stop.err"));
    std::this_thread::sleep_for(3s);
    if (row.second) {
      agent.signal(SIGINT);
      std::this_thread::sleep_for(500ms);
    }
    const auto signalled = Clock::now();
    const int status = agent.stop(SIGINT, 10s);
    const auto took = Clock::now() - signalled;
    const std::string err = slurp(s.dir / "stop.err");
    EXPECT_EQ(status, row.status) << err;
    EXPECT_LE(took, row.bound) << std::chrono::duration<double>(took).count() << " s\n" << err;
    EXPECT_NE(err.find(row.says), std::string::npos) << err;
  }
}

// The install id that cannot be kept would make the device a new installation at every start:
// the operator hears of it on stderr, also outside developer mode.
TEST(AgentProgram, SaysOnStderrWhenTheStoreCannotBeWritten) {
  Scratch s("zonaris-agent-test");
  Process service({ZONARIS_SERVICE_BIN, "--fences",
                   std::string(ZONARIS_EXAMPLES_DIR) + "/fences.json", "--port", "0"},
                  s.path("service.out"), s.path("service.err"));
  ASSERT_TRUE(waitForText(s.dir / "service.out", "listening on", 10s));
  const std::string listening = slurp(s.dir / "service.out");
  const std::string url = listening.substr(listening.find("http://"));
  const Ran agent = run(
      {ZONARIS_AGENT_BIN, "--service", url.substr(0, url.find_first_of(" \n")), "--gpsd",
       "127.0.0.1:" + std::to_string(freePort()), "--store", "/proc/zonaris-store", "--until", "3"},
      s, 60s, "agent");
  EXPECT_EQ(agent.status, 0) << agent.err;
  EXPECT_NE(agent.err.find(R"(zonaris-agent: zonaris: could not store "installId")"),
            std::string::npos)
      << agent.err;
}

TEST(AgentProgram, RefusesBadOptionsWithOneLineAndStatusTwo) {
  Scratch s("zonaris-agent-test");
  const std::vector<std::vector<std::string>> table = {
      {},
      {"--service", "ftp://example.org"},
      {"--service", "http://127.0.0.1:1", "--gpsd", "host:0"},
      {"--service", "http://127.0.0.1:1", "--uuid", "not-a-uuid"},
      {"--service", "http://127.0.0.1:1", "--tags", "[1]"},
      {"--service", "http://127.0.0.1:1", "--silence", "7", "25"},
      {"--service", "http://127.0.0.1:1", "--until", "0"},
      {"--service", "http://127.0.0.1:1", "--until", "nan"},
      {"--service", "http://127.0.0.1:1", "--stop-timeout", "-1"},
      {"--service", "http://127.0.0.1:1", "--unknown"},
  };
  for (const auto& words : table) {
    std::vector<std::string> args{ZONARIS_AGENT_BIN};
    args.insert(args.end(), words.begin(), words.end());
    const Ran agent = run(args, s, 20s);
    EXPECT_EQ(agent.status, 2) << words.size();
    EXPECT_EQ(agent.err.rfind("zonaris-agent: ", 0), 0u) << agent.err;
    EXPECT_EQ(std::count(agent.err.begin(), agent.err.end(), '\n'), 1) << agent.err;
  }
}

}  // namespace
}  // namespace zonaris::test

#endif
