#pragma once

#include "zonaris/export.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zonaris::platform {

struct ZONARIS_API HttpRequest {
  std::string method;  ///< "GET" or "POST"
  std::string url;     ///< absolute URL
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  /// Accept a gzip-compressed answer: the client sends "Accept-Encoding: gzip" and hands back
  /// the body decoded. Off, the default, sends no such header and takes the body as it comes.
  bool acceptCompressed = false;
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
  /// The body's size as it arrived on the wire, before any decoding (so compressed when the
  /// answer was). 0 when the client does not know; `body.size()` then stands for it.
  std::uint64_t wireBodyBytes = 0;
};

/// The synchronous send. `send` blocks the calling thread until the answer or a transport
/// error, and never throws. Callable from any thread, concurrently.
class ZONARIS_API HttpClient {
 public:
  virtual ~HttpClient() = default;
  virtual HttpResponse send(const HttpRequest& request) = 0;
};

}  // namespace zonaris::platform
