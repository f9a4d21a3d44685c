#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "zonaris/service/event_rules.hpp"
#include "zonaris/service/store.hpp"

namespace zonaris::service_tool {

/// How many fences the fence query answers at most unless told otherwise. A client downloads
/// again once it is 1000 m from where it last did, so what it needs until then lies within
/// about 1.5 km; along a drive through 10,000 fences over 80 x 24 km at most 54 do, and this
/// leaves room for catalogues twice as dense.
inline constexpr std::size_t kDefaultMaxFences = 128;

/// What a `ReferenceService` serves and where it keeps its state.
struct ServiceOptions {
  /// The fences, a JSON array of fence objects as the fence query returns them, each optionally
  /// with "messages": {"entry": {...}, "exit": {...}, "dwell": {...}}. Ignored when `fencesFile`
  /// is set.
  nlohmann::json fences = nlohmann::json::array();
  /// A file holding the fences array; when non-empty it is read instead of `fences`.
  std::string fencesFile;
  /// The SQLite database: installs, per-install fence state, observations and error reports.
  std::string dbPath = ":memory:";
  /// Opens another store instead of the SQLite one at `dbPath` (for example PostgreSQL).
  StoreOpener openStore;
  /// The service clock (entry times, dwell durations, timestamps of stored records). Called
  /// from the server's threads, so it must be thread-safe. Empty: the system clock.
  std::function<std::chrono::system_clock::time_point()> now;
  /// The fence query answers the fences within its radius nearest first (equal distances in
  /// file order) and at most this many of them. 0 lifts the cap and answers every fence within
  /// the radius in file order, as the query did before it had a cap.
  std::size_t maxFences = kDefaultMaxFences;
  /// How crossings are confirmed, and the parameters of the robust rules.
  ConfirmRule confirm = ConfirmRule::Robust;
  RobustParams robust;
};

/// One answer of the service: an HTTP status and a JSON body.
struct ServiceResponse {
  int status = 500;
  std::string body;
};

/// The reference implementation of the service the client talks to: install registration,
/// the fence query, observation reports with event confirmation, and error reports.
///
/// Event rules, per install and fence (fences whose "_event_types" is missing or empty take no
/// part). The exact rule (`ConfirmRule::Exact`): an observation that finds the device inside a
/// fence it was not inside before gets an "entry"; the first one outside again gets an "exit";
/// while inside, each of the fence's "_dwell_windows" (seconds) yields one "dwell" on the first
/// observation at least that long after the entry, measured on the service clock. The robust
/// rules (`ConfirmRule::Robust`, the default) are those of `advanceRobust` and `judge`, with the
/// install's last usable observation and the pending crossings kept in the database; the first
/// observation after a fence query decides alone. Events come in fence-file order, and the
/// fence's configured message for the event type travels as the event's "data".
///
/// Thread safety: `handle` may be called from any number of threads at once; requests are
/// served against the database as the store allows (SQLite: one at a time; a store shared by
/// several services: one install's observations one at a time). Nothing throws to the caller.
class ReferenceService {
 public:
  /// Reads and checks the fences and opens the database. On failure `ok()` is false and
  /// `error()` names the cause (for a fences file: the file and the element index); such a
  /// service answers every request with 500.
  explicit ReferenceService(ServiceOptions options);
  ~ReferenceService();  ///< stops the HTTP server if it runs
  ReferenceService(const ReferenceService&) = delete;
  ReferenceService& operator=(const ReferenceService&) = delete;

  bool ok() const;
  const std::string& error() const;

  /// Serves one request. `path` is without the query; `query` holds the decoded query
  /// parameters. Bad input gets 400 with {"error": "..."} and changes nothing; an unknown path
  /// gets 404, a known path with another method 405, both with {"error": "..."}.
  ServiceResponse handle(std::string_view method, std::string_view path,
                         const std::map<std::string, std::string>& query,
                         std::string_view body) const;

  /// Starts serving over HTTP on 127.0.0.1 on a thread of its own; `port` 0 picks a free one.
  /// Returns the port, or -1 when the service is not ok, already started, or the port cannot be
  /// bound (then `error()` says why). Returns once the server accepts connections.
  int start(int port = 0);
  /// Stops the HTTP server and waits for its thread. Idempotent; the service cannot be started
  /// again afterwards.
  void stop();
  /// "http://127.0.0.1:PORT" once started, otherwise empty.
  std::string baseUrl() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zonaris::service_tool
