#pragma once

#include "zonaris/export.h"

#include <string>
#include <utility>
#include <vector>

namespace zonaris::platform {

struct ZONARIS_API HttpRequest {
  std::string method;  ///< "GET" or "POST"
  std::string url;     ///< absolute URL
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
};

struct ZONARIS_API HttpResponse {
  /// True when no complete HTTP answer arrived (connection refused, time-out, TLS failure,
  /// body over the size cap...).
  bool transportError = false;
  /// The HTTP status code; 0 when there was no response.
  long status = 0;
  std::string body;
  /// Human-readable cause of a transport error, for logs and tests; empty otherwise.
  std::string errorMessage;
};

/// The synchronous send. `send` blocks the calling thread until the answer or a transport
/// error, and never throws. Callable from any thread, concurrently.
class ZONARIS_API HttpClient {
 public:
  virtual ~HttpClient() = default;
  virtual HttpResponse send(const HttpRequest& request) = 0;
};

}  // namespace zonaris::platform
