#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zonaris/service/event_rules.hpp"
#include "zonaris/service/fence_set.hpp"

namespace zonaris::service_tool {

/// One connection's view of the service's state: installs, per-install fence state (with the
/// crossings the robust rules hold pending), the last usable observation of each install,
/// observations with the events they yielded, error reports, and the index that picks the
/// fences worth measuring. A session serves one request at a time on one thread. Every
/// operation answers nothing (or false) when the database fails; `lastError()` says why. Inside
/// a transaction a store may send a change that answers only success (and `begin` itself) with
/// a later operation, which then reports its failure; `commit` reports any that remain.
class StoreSession {
 public:
  virtual ~StoreSession() = default;

  virtual const std::string& lastError() const = 0;

  /// All-or-nothing groups of changes.
  virtual bool begin() = 0;
  virtual bool commit() = 0;
  virtual void rollback() = 0;

  virtual std::optional<std::int64_t> addInstall(std::string_view appKey, std::int64_t atMs) = 0;
  /// Makes sure the install exists, recording an id issued elsewhere (or before the service lost
  /// its state) with `atMs`, and, inside a transaction, holds it until the transaction ends: the
  /// read-modify-write of one install's state is serialised across every node that shares the
  /// database, while other installs go on.
  virtual bool holdInstall(std::int64_t id, std::int64_t atMs) = 0;

  /// The remembered state of every fence of the install, by fence id (fences never seen are
  /// absent: outside).
  virtual std::optional<std::map<std::int64_t, FenceState>> fenceStates(std::int64_t installId) = 0;
  virtual bool saveFenceState(std::int64_t installId, std::int64_t fenceId,
                              const FenceState& state) = 0;

  /// The robust rules' memory of the install (a default track when there is none yet).
  virtual std::optional<InstallTrack> installTrack(std::int64_t installId) = 0;
  virtual bool saveInstallTrack(std::int64_t installId, const InstallTrack& track) = 0;

  virtual std::optional<std::int64_t> addObservation(std::int64_t installId, std::int64_t atMs,
                                                     std::string_view body) = 0;
  virtual bool addEvent(std::int64_t observationId, std::int64_t fenceId,
                        std::string_view type) = 0;
  virtual std::optional<std::int64_t> addErrorReport(std::int64_t installId, std::int64_t atMs,
                                                     std::string_view body) = 0;

  /// The positions in the fences file, ascending, of the fences whose nearest point can lie
  /// within `metres` of (latitude, longitude) as the service measures it (GEOS nearest point,
  /// haversine): never misses one, may list more.
  virtual std::optional<std::vector<std::size_t>> fencesNear(double latitude, double longitude,
                                                             double metres) = 0;

  /// Row count of a table, for tests and diagnostics (nothing on an unknown table).
  virtual std::optional<std::int64_t> count(std::string_view table) = 0;
};

/// Hands a session back to its store when it goes out of scope.
using StoreSessionPtr = std::unique_ptr<StoreSession, std::function<void(StoreSession*)>>;

/// Where the service keeps its state. Thread-safe: any number of threads may hold sessions at
/// once, as many as the store allows (the others wait).
class Store {
 public:
  virtual ~Store() = default;
  /// A session for one request; null (and `error` says why) when none can be had, for example
  /// while the database server is unreachable.
  virtual StoreSessionPtr session(std::string& error) = 0;
};

/// Opens a store and loads the fences (by their position in `fences`) into its index; null (and
/// `error` says why) on failure.
using StoreOpener =
    std::function<std::unique_ptr<Store>(const std::vector<Fence>& fences, std::string& error)>;

/// The SQLite store at `path` (":memory:" for one that lives as long as the store): one
/// connection, one session at a time.
std::unique_ptr<Store> openSqliteStore(const std::string& path, const std::vector<Fence>& fences,
                                       std::string& error);

}  // namespace zonaris::service_tool
