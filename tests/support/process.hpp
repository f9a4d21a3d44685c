#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/scratch.hpp"

namespace zonaris::test {

/// A program in a process group of its own, its stdout and stderr in files; stopped with
/// everything it started at the latest when this object goes.
class Process {
 public:
  Process(std::vector<std::string> args, const std::string& out, const std::string& err) {
    std::vector<char*> argv;
    for (auto& a : args)
      argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::setpgid(0, 0);
      ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
      ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
      ::execvp(argv[0], argv.data());
      ::_exit(127);
    }
    ::setpgid(pid_, pid_);
  }
  ~Process() { stop(SIGKILL, std::chrono::seconds(0)); }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  /// Sends `signal` to the group while the program runs.
  void signal(int signal) {
    if (pid_ > 0)
      ::kill(-pid_, signal);
  }

  /// Sends `signal` (0: none) to the group, waits up to `limit` for the program to exit, then
  /// kills the group, the program's helpers included. The exit status; -1 when the program did
  /// not exit by itself (or did not start). Later calls give the same status.
  int stop(int signal = SIGTERM, std::chrono::seconds limit = std::chrono::seconds(20)) {
    if (pid_ <= 0)
      return status_;
    if (signal != 0)
      ::kill(-pid_, signal);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int wstatus = 0;
    while (::waitpid(pid_, &wstatus, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        ::kill(-pid_, SIGKILL);
        ::waitpid(pid_, &wstatus, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ::kill(-pid_, SIGKILL);
    pid_ = -1;
    status_ = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    return status_;
  }

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

struct Ran {
  int status;  ///< as Process::stop gives it
  std::string out, err;
};

/// Runs `args` to its end (at most `limit`), its output in `name`.out and `name`.err of
/// `scratch`.
inline Ran run(std::vector<std::string> args, const Scratch& scratch,
               std::chrono::seconds limit = std::chrono::seconds(300),
               const std::string& name = "run") {
  const std::string out = scratch.path(name + ".out"), err = scratch.path(name + ".err");
  const int status = Process(std::move(args), out, err).stop(0, limit);
  return {status, slurp(out), slurp(err)};
}

}  // namespace zonaris::test
