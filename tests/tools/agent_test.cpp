// zonaris-agent run as a process, end to end: a real zonaris-service, a real gpsd started by
// gpsfake on 127.0.0.1 replaying an NMEA log generated from the example walk, and the agent.
// gpsd is started only after the agent, so the agent also has to find it by retrying.

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/scratch.hpp"

#if defined(ZONARIS_AGENT_BIN) && defined(ZONARIS_SERVICE_BIN)

namespace zonaris::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// A program in a process group of its own, its output in files; killed with its children at
/// the end of the test whatever happens.
class Process {
 public:
  Process(std::vector<std::string> args, const fs::path& out, const fs::path& err) {
    std::vector<char*> argv;
    for (auto& a : args)
      argv.push_back(a.data());
    argv.push_back(nullptr);
    const std::string outPath = out.string(), errPath = err.string();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::setpgid(0, 0);
      const int o = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      const int e = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(o, 1);
      ::dup2(e, 2);
      ::execvp(argv[0], argv.data());
      ::_exit(127);
    }
    ::setpgid(pid_, pid_);
  }
  ~Process() { stop(SIGKILL); }

  /// Sends `signal` to the group and waits up to 20 s (then kills). The exit status, or -1.
  int stop(int signal = SIGTERM) {
    if (pid_ <= 0)
      return status_;
    ::kill(-pid_, signal);
    const auto deadline = Clock::now() + 20s;
    int wstatus = 0;
    while (::waitpid(pid_, &wstatus, WNOHANG) == 0) {
      if (Clock::now() > deadline) {
        ::kill(-pid_, SIGKILL);
        ::waitpid(pid_, &wstatus, 0);
        break;
      }
      std::this_thread::sleep_for(20ms);
    }
    ::kill(-pid_, SIGKILL);  // what the program started and left behind
    pid_ = -1;
    status_ = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    return status_;
  }

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

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
  const fs::path log = s.dir / "walk.nmea";
  ASSERT_EQ(std::system(("python3 '" + examples + "/nmea_from_trace.py' '" + examples +
                         "/walk.csv' --start now --seconds 90 -o '" + log.string() + "'")
                            .c_str()),
            0);

  Process service({ZONARIS_SERVICE_BIN, "--fences", examples + "/fences.json", "--port", "0"},
                  s.dir / "service.out", s.dir / "service.err");
  ASSERT_TRUE(waitForText(s.dir / "service.out", "listening on", 10s));
  const std::string listening = slurp(s.dir / "service.out");
  const std::string url = listening.substr(listening.find("http://"));
  const std::string gpsdPort = std::to_string(freePort());

  Process agent({ZONARIS_AGENT_BIN, "--service", url.substr(0, url.find_first_of(" \n")), "--gpsd",
                 "127.0.0.1:" + gpsdPort, "--store", (s.dir / "store").string(), "--until", "50"},
                s.dir / "agent.out", s.dir / "agent.err");
  EXPECT_TRUE(waitForText(s.dir / "agent.err", "is not reachable", 10s)) << "gpsd is not up yet";

  // PATH gets /usr/sbin so that gpsfake finds gpsd; -1: the log once, -c 0.5: in real time.
  const char* path = std::getenv("PATH");
  Process gpsfake({"env", std::string("PATH=/usr/sbin:") + (path ? path : "/usr/bin"), "gpsfake",
                   "-q", "-1", "-c", "0.5", "-P", gpsdPort, log.string()},
                  s.dir / "gpsfake.out", s.dir / "gpsfake.err");

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
  EXPECT_NE(err.find("connected to gpsd at 127.0.0.1:" + gpsdPort), std::string::npos) << err;
  EXPECT_NE(err.find("stopped by SIGTERM"), std::string::npos) << err;
  EXPECT_NE(err.find("1 entry"), std::string::npos) << err;
  EXPECT_NE(err.find("threads:  all joined"), std::string::npos) << err;
  EXPECT_NE(slurp(s.dir / "store" / "zonaris-store.json").find("\"installId\""), std::string::npos);
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
      {"--service", "http://127.0.0.1:1", "--unknown"},
  };
  for (const auto& words : table) {
    std::vector<std::string> args{ZONARIS_AGENT_BIN};
    args.insert(args.end(), words.begin(), words.end());
    Process agent(args, s.dir / "out", s.dir / "err");
    EXPECT_EQ(agent.stop(0), 2) << words.size();
    const std::string err = slurp(s.dir / "err");
    EXPECT_EQ(err.rfind("zonaris-agent: ", 0), 0u) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
  }
}

}  // namespace
}  // namespace zonaris::test

#endif
