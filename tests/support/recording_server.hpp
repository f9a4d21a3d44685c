#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zonaris::test {

struct RecordedRequest {
  std::string method;
  std::string path;    ///< without the query
  std::string target;  ///< path and query as sent
  std::multimap<std::string, std::string> headers;
  std::string body;

  std::string header(const std::string& name) const;
  bool hasHeader(const std::string& name) const;
};

struct ScriptedResponse {
  int status = 200;
  std::string body;
  std::string contentType = "application/json";
  /// Real time the server waits before answering (only for time-out tests of the HTTP client).
  std::chrono::milliseconds delay{0};
};

/// A real HTTP server on 127.0.0.1 (an ephemeral port) that records every request and answers
/// what the test scripted for its method and path. A request nobody scripted fails the test and
/// is answered 599.
class RecordingServer {
 public:
  using Handler = std::function<ScriptedResponse(const RecordedRequest&)>;

  RecordingServer();
  ~RecordingServer();
  RecordingServer(const RecordingServer&) = delete;
  RecordingServer& operator=(const RecordingServer&) = delete;

  /// "http://127.0.0.1:PORT"
  std::string baseUrl() const;

  void on(const std::string& method, const std::string& path, Handler handler);
  /// Always the same answer.
  void respond(const std::string& method, const std::string& path, ScriptedResponse response);
  /// One answer per request, in order; the last one repeats.
  void respondSequence(const std::string& method, const std::string& path,
                       std::vector<ScriptedResponse> responses);

  std::vector<RecordedRequest> requests() const;
  std::vector<RecordedRequest> requests(const std::string& method, const std::string& path) const;
  std::size_t count(const std::string& method, const std::string& path) const;

  /// Stops serving; later requests find no server. Idempotent.
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
  int port_ = 0;
};

}  // namespace zonaris::test
