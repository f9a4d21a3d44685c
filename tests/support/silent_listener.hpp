#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

namespace zonaris::test {

/// A TCP socket on 127.0.0.1 that listens and never accepts. Plain, connections to it complete
/// in the kernel and what is sent is never answered (a service that hangs). With `fillQueue`,
/// its listen queue is full, so a further connection is neither accepted nor refused (a daemon
/// that hangs). A `port` of 0 takes any free one; a given one may be taken again at once after
/// an earlier listener on it closed.
class SilentListener {
 public:
  explicit SilentListener(bool fillQueue, int port = 0) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
        ::listen(listener_, fillQueue ? 0 : 64) == 0 &&
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) == 0)
      port_ = ntohs(address.sin_port);
    for (int i = 0; fillQueue && i < 4; ++i) {  // more than a backlog of 0 takes
      fillers_.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      ::connect(fillers_.back(), reinterpret_cast<sockaddr*>(&address), length);
    }
  }
  ~SilentListener() {
    for (int fd : fillers_)
      ::close(fd);
    ::close(listener_);
  }
  SilentListener(const SilentListener&) = delete;
  SilentListener& operator=(const SilentListener&) = delete;

  /// 0 when it could not listen.
  int port() const { return port_; }
  /// The listening socket, for a test that does accept.
  int fd() const { return listener_; }

 private:
  int listener_ = -1;
  int port_ = 0;
  std::vector<int> fillers_;
};

}  // namespace zonaris::test
