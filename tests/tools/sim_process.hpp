#pragma once

// Runs zonaris-sim as a child process and collects what it printed.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

extern char** environ;

namespace zonaris::test {

struct ProcessResult {
  int status = -1;  ///< exit status, or -1 when the process did not exit normally
  std::string out;
  std::string err;

  /// Every stdout line parsed as JSON (a line that is not JSON becomes a discarded value).
  std::vector<nlohmann::json> lines() const {
    std::vector<nlohmann::json> parsed;
    std::istringstream stream(out);
    for (std::string line; std::getline(stream, line);)
      parsed.push_back(nlohmann::json::parse(line, nullptr, false));
    return parsed;
  }
};

/// A folder of its own under the system's temporary folder, removed at the end of the test.
class ScratchFolder {
 public:
  ScratchFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zonaris-sim-test-XXXXXX");
    if (::mkdtemp(pattern.data()))
      path_ = pattern;
  }
  ~ScratchFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  std::string file(const std::string& name, const std::string& content = {}) const {
    const std::string path = (path_ / name).string();
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  std::string path(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

inline std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

/// Runs `program` with `args`, stdout and stderr going to files of `scratch`.
inline ProcessResult runProcess(const std::string& program, const std::vector<std::string>& args,
                                const ScratchFolder& scratch) {
  static int runs = 0;
  const std::string tag = std::to_string(++runs);
  const std::string outPath = scratch.path("stdout-" + tag),
                    errPath = scratch.path("stderr-" + tag);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  std::vector<std::string> all{program};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& arg : all)
    argv.push_back(arg.data());
  argv.push_back(nullptr);

  ProcessResult result;
  pid_t pid = 0;
  if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ) == 0) {
    int wstatus = 0;
    if (waitpid(pid, &wstatus, 0) == pid && WIFEXITED(wstatus))
      result.status = WEXITSTATUS(wstatus);
  }
  posix_spawn_file_actions_destroy(&actions);
  result.out = readAll(outPath);
  result.err = readAll(errPath);
  return result;
}

inline std::string example(const std::string& name) {
  return std::string(ZONARIS_EXAMPLES_DIR) + "/" + name;
}

}  // namespace zonaris::test
