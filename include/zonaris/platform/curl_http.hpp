#pragma once

#include "zonaris/export.h"

#include <chrono>
#include <cstddef>
#include <memory>

#include "zonaris/platform/http.hpp"

namespace zonaris::platform {

struct ZONARIS_API CurlHttpOptions {
  /// Whole-request time-out. Mobile platforms give a request 60 s by default.
  std::chrono::milliseconds timeout{60000};
  /// Largest response body accepted; a larger one is a transport error.
  std::size_t maxBodyBytes = 16u * 1024u * 1024u;
};

/// The production HTTP client over libcurl: one easy handle per request, no signals, TLS peer
/// and host verification on. Thread-safe.
ZONARIS_API std::shared_ptr<HttpClient> makeCurlHttpClient(const CurlHttpOptions& options = {});

}  // namespace zonaris::platform
