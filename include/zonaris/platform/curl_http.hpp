#pragma once

#include "zonaris/export.h"

#include <chrono>
#include <cstddef>
#include <memory>

#include "zonaris/platform/http.hpp"

namespace zonaris::platform {

/// Cuts short the exchanges of the curl clients made with it (`CurlHttpOptions::cancel`), so
/// that a shutdown can end within its deadline: after `cancel()`, every exchange in flight
/// fails at once with a transport error (its connection is shut down), and every later one
/// fails without being sent. Cancelling cannot be undone. Thread-safe.
class ZONARIS_API CurlCancel {
 public:
  CurlCancel();
  ~CurlCancel();
  CurlCancel(const CurlCancel&) = delete;
  CurlCancel& operator=(const CurlCancel&) = delete;

  void cancel();
  bool cancelled() const;

  struct Sockets;
  /// The connections in flight; for the curl client only.
  Sockets& sockets() const { return *sockets_; }

 private:
  std::unique_ptr<Sockets> sockets_;
};

struct ZONARIS_API CurlHttpOptions {
  /// Whole-request time-out. Mobile platforms give a request 60 s by default.
  std::chrono::milliseconds timeout{60000};
  /// Largest response body accepted; a larger one is a transport error.
  std::size_t maxBodyBytes = 16u * 1024u * 1024u;
  /// Null, the default: exchanges end only by themselves or the time-out.
  std::shared_ptr<CurlCancel> cancel;
};

/// The production HTTP client over libcurl: one easy handle per request, no signals, TLS peer
/// and host verification on. Thread-safe.
ZONARIS_API std::shared_ptr<HttpClient> makeCurlHttpClient(const CurlHttpOptions& options = {});

}  // namespace zonaris::platform
