// The small system adapters: stderr logging, the system clock, the OS version and the call
// stack.
#include <execinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>

#include "platform/posix_io.hpp"
#include "platform/thread_exit.hpp"
#include "zonaris/platform/backtrace_call_stack.hpp"
#include "zonaris/platform/stderr_logger.hpp"
#include "zonaris/platform/system_clock.hpp"
#include "zonaris/platform/system_device_info.hpp"

namespace zonaris::platform {

// ---- Logger ------------------------------------------------------------------------------

StderrLogger::StderrLogger(std::string prefix) : prefix_(std::move(prefix)) {}

void StderrLogger::log(std::string_view line) {
  try {
    std::string text;
    text.reserve(prefix_.size() + line.size() + 1);
    text.append(prefix_).append(line).push_back('\n');
    std::lock_guard lock(mutex_);
    writeAll(STDERR_FILENO, text);  // when stderr refuses, there is nowhere to log to
  } catch (...) {
    if (endingThread())
      throw;
    // Logging must never fail its caller.
  }
}

// ---- Clock -------------------------------------------------------------------------------

TimePoint SystemClock::now() const {
  return std::chrono::system_clock::now();
}

int SystemClock::hourOfDay(TimePoint time) const {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  const std::time_t t = static_cast<std::time_t>(seconds.time_since_epoch().count());
  std::tm local{};
  if (::localtime_r(&t, &local) == nullptr)
    return 0;
  return local.tm_hour;
}

// ---- Device ------------------------------------------------------------------------------

namespace {

// VERSION_ID of an os-release file's text (shell-style KEY=value lines, the value possibly
// quoted); nothing when it is missing or empty.
std::optional<std::string> osReleaseVersionId(std::string_view text) {
  constexpr std::string_view kKey = "VERSION_ID=";
  std::optional<std::string> found;
  while (!text.empty()) {
    const auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    if (line.substr(0, kKey.size()) != kKey)
      continue;
    std::string_view value = line.substr(kKey.size());
    while (!value.empty() && (value.back() == '\r' || value.back() == ' ' || value.back() == '\t'))
      value.remove_suffix(1);
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
      value.remove_prefix(1);
      value.remove_suffix(1);
    }
    // A later assignment wins, as when the file is sourced by a shell.
    found.reset();
    if (!value.empty())
      found.emplace(value.begin(), value.end());
  }
  return found;
}

std::optional<std::string> readSmallFile(const char* path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return std::nullopt;
  std::string text;
  char buffer[4096];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    text.append(buffer, static_cast<std::size_t>(in.gcount()));
    if (text.size() > 64 * 1024)
      return std::nullopt;
  }
  return text;
}

std::string detectSystemVersion() {
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    if (auto text = readSmallFile(path)) {
      if (auto version = osReleaseVersionId(*text))
        return *version;
    }
  }
  utsname names{};
  if (::uname(&names) == 0 && names.release[0] != '\0')
    return names.release;
  return "0";
}

}  // namespace

SystemDeviceInfo::SystemDeviceInfo() {
  try {
    version_ = detectSystemVersion();
  } catch (...) {
    if (endingThread())
      throw;
    // Not `version_ = "0"`: GCC 12 at -O3 warns falsely (-Wrestrict) on that assignment.
    version_.assign(1, '0');
  }
}

// ---- Call stack --------------------------------------------------------------------------

std::vector<std::string> BacktraceCallStack::symbols() const {
  constexpr int kMaxFrames = 128;
  void* frames[kMaxFrames];
  const int count = ::backtrace(frames, kMaxFrames);
  struct Free {
    void operator()(char** p) const noexcept { std::free(p); }
  };
  const std::unique_ptr<char*[], Free> names(::backtrace_symbols(frames, count));
  std::vector<std::string> result;
  try {
    // Frame 0 is this function; the caller comes first.
    for (int i = 1; i < count; ++i) {
      if (names) {
        result.emplace_back(names[i]);
      } else {
        std::ostringstream text;
        text << frames[i];
        result.push_back(text.str());
      }
    }
  } catch (...) {
    // Out of memory: whatever frames were collected.
  }
  return result;
}

}  // namespace zonaris::platform
