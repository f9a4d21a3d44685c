#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string_view>

namespace zonaris::platform {

/// Writes all of `text` to `fd`, retrying short writes and interruptions. False when the
/// descriptor refuses more.
inline bool writeAll(int fd, std::string_view text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace zonaris::platform
