#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace zonaris::test {

/// A private folder under the temporary folder, removed with everything in it at the end of
/// the test.
struct Scratch {
  std::filesystem::path dir;
  explicit Scratch(const std::string& prefix = "zonaris-test") {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()))
      dir = pattern;
  }
  ~Scratch() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::string path(const std::string& name) const { return (dir / name).string(); }
  /// Writes `content` to the file `name` in the folder and returns its path.
  std::string file(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }
};

/// The whole content of a file; empty when it cannot be read.
inline std::string slurp(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace zonaris::test
