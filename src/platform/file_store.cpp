// The key/value store as one JSON file, rewritten atomically on every change.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <optional>
#include <system_error>

#include <nlohmann/json.hpp>

#include "platform/posix_io.hpp"
#include "platform/thread_exit.hpp"
#include "zonaris/platform/file_store.hpp"

namespace zonaris::platform {

namespace {

using nlohmann::json;

// The store holds a handful of integers; anything much larger is not ours.
constexpr std::size_t kMaxFileBytes = 64 * 1024;
constexpr const char* kTempSuffix = ".tmp";

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  // Closes now and reports the result: for a file just written, close can reveal a failed
  // write-back.
  bool close() {
    const int fd = fd_;
    fd_ = -1;
    return fd < 0 || ::close(fd) == 0;
  }

 private:
  int fd_;
};

std::string errnoText() {
  return std::error_code(errno, std::generic_category()).message();
}

// The file's content, or nothing when it is missing, unreadable or too large.
std::optional<std::string> readFile(const std::string& path) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0)
    return std::nullopt;
  std::string text;
  char buffer[4096];
  while (true) {
    const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return std::nullopt;
    if (n == 0)
      return text;
    text.append(buffer, static_cast<std::size_t>(n));
    if (text.size() > kMaxFileBytes)
      return std::nullopt;
  }
}

// The stored object, or nothing when the file does not hold one.
std::optional<json> readObject(const std::string& path) {
  auto text = readFile(path);
  if (!text)
    return std::nullopt;
  json document = json::parse(*text, nullptr, false);
  if (document.is_discarded() || !document.is_object())
    return std::nullopt;
  return document;
}

std::int64_t integerOf(const json& value) {
  if (value.is_number_unsigned()) {
    const auto u = value.get<std::uint64_t>();
    return u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
               ? 0
               : static_cast<std::int64_t>(u);
  }
  if (value.is_number_integer())
    return value.get<std::int64_t>();
  return 0;
}

bool fsyncRetrying(int fd) {
  while (::fsync(fd) != 0) {
    if (errno != EINTR)
      return false;
  }
  return true;
}

// Called with the store's mutex held, which also guards `logger`. Not noexcept: the logger may
// be the application's, which may end the thread.
void reportWriteFailure(const std::shared_ptr<Logger>& logger, const std::string& key,
                        const char* step, const std::string& why) {
  if (!logger)
    return;
  try {
    logger->log("zonaris: could not store \"" + key + "\" (" + step + "): " + why);
  } catch (...) {
    if (endingThread())
      throw;
    // A logger that fails has nowhere to report to.
  }
}

}  // namespace

FileStore::FileStore(std::string directory) : directory_(std::move(directory)) {}

void FileStore::setLogger(std::shared_ptr<Logger> logger) {
  std::lock_guard lock(mutex_);
  logger_ = std::move(logger);
}

std::string FileStore::filePath() const {
  return directory_ + "/" + kFileName;
}

std::int64_t FileStore::getLong(const std::string& key) const {
  try {
    // The file is only ever replaced whole by rename, so a read needs no lock.
    auto document = readObject(filePath());
    if (!document)
      return 0;
    auto it = document->find(key);
    return it == document->end() ? 0 : integerOf(*it);
  } catch (...) {
    if (endingThread())
      throw;
    return 0;  // only allocation can fail here
  }
}

void FileStore::setLong(const std::string& key, std::int64_t value) {
  std::lock_guard lock(mutex_);
  std::string unexpected;  // reported after its handler: see platform/thread_exit.hpp
  try {
    std::error_code ec;
    std::filesystem::create_directories(directory_, ec);  // an error shows at open below

    Fd folder(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() < 0)
      return reportWriteFailure(logger_, key, "open folder", errnoText());
    // Serialises writers across processes too; released when `folder` closes. Without it (a
    // file system that refuses flock) the in-process mutex still orders this process's writes.
    while (::flock(folder.get(), LOCK_EX) != 0 && errno == EINTR) {
    }

    // Re-read under the lock so that keys written by another store over this folder are kept.
    json document = readObject(filePath()).value_or(json::object());
    document[key] = value;
    const std::string text = document.dump(-1, ' ', false, json::error_handler_t::replace);

    // One temporary name is enough: every writer holds the folder lock while using it, and a
    // leftover from a crash is simply truncated.
    const std::string temp = filePath() + kTempSuffix;
    Fd file(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (file.get() < 0)
      return reportWriteFailure(logger_, key, "create", errnoText());
    if (!writeAll(file.get(), text) || !fsyncRetrying(file.get()) || !file.close()) {
      const std::string why = errnoText();
      ::unlink(temp.c_str());
      return reportWriteFailure(logger_, key, "write", why);
    }
    if (::rename(temp.c_str(), filePath().c_str()) != 0) {
      const std::string why = errnoText();
      ::unlink(temp.c_str());
      return reportWriteFailure(logger_, key, "rename", why);
    }
    // Makes the rename itself durable.
    if (!fsyncRetrying(folder.get()))
      reportWriteFailure(logger_, key, "sync folder", errnoText());
    return;
  } catch (const std::exception& e) {
    unexpected = e.what();
  } catch (...) {
    if (endingThread())
      throw;
    unexpected = "unknown";
  }
  reportWriteFailure(logger_, key, "unexpected", unexpected);
}

}  // namespace zonaris::platform
