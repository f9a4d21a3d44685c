#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zonaris/service/event_rules.hpp"
#include "zonaris/service/store.hpp"

struct sqlite3;

namespace zonaris::service_tool {

/// The service's state in SQLite, one connection. Not thread-safe: the owner serialises its use
/// (`openSqliteStore` hands it out as one session at a time).
class ServiceStore : public StoreSession {
 public:
  /// Opens (creating when needed) the database at `path` (":memory:" for one that lives as long
  /// as the store) and makes its tables.
  static std::unique_ptr<ServiceStore> open(const std::string& path, std::string& error);
  ~ServiceStore() override;
  ServiceStore(const ServiceStore&) = delete;
  ServiceStore& operator=(const ServiceStore&) = delete;

  const std::string& lastError() const override { return lastError_; }

  /// All-or-nothing groups of changes.
  bool begin() override;
  bool commit() override;
  void rollback() override;

  std::optional<std::int64_t> addInstall(std::string_view appKey, std::int64_t atMs) override;
  /// SQLite: a transaction (`begin`) already holds the whole database.
  bool holdInstall(std::int64_t id, std::int64_t atMs) override;
  std::optional<bool> installExists(std::int64_t id);
  /// Records an install id issued elsewhere (or before the service lost its state); false when
  /// the database fails.
  bool adoptInstall(std::int64_t id, std::int64_t atMs);

  /// The remembered state of every fence of the install, by fence id (fences never seen are
  /// absent: outside).
  std::optional<std::map<std::int64_t, FenceState>> fenceStates(std::int64_t installId) override;
  bool saveFenceState(std::int64_t installId, std::int64_t fenceId,
                      const FenceState& state) override;

  /// The robust rules' memory of the install (a default track when there is none yet).
  std::optional<InstallTrack> installTrack(std::int64_t installId) override;
  bool saveInstallTrack(std::int64_t installId, const InstallTrack& track) override;

  std::optional<std::int64_t> addObservation(std::int64_t installId, std::int64_t atMs,
                                             std::string_view body) override;
  bool addEvent(std::int64_t observationId, std::int64_t fenceId, std::string_view type) override;
  std::optional<std::int64_t> addErrorReport(std::int64_t installId, std::int64_t atMs,
                                             std::string_view body) override;

  /// The extents of the fences, by their position in the fences file, for `fencesInBox`. Kept
  /// in a temporary R*Tree of this connection (never in the database file); replaces what was
  /// loaded before. Linear in the number of boxes: one transaction, one statement.
  struct FenceBox {
    std::int64_t index;
    double xmin, xmax, ymin, ymax;
  };
  bool loadFenceBoxes(const std::vector<FenceBox>& boxes);
  /// The positions of the loaded fences whose extent meets the box, in any order. The R*Tree
  /// keeps 32-bit coordinates rounded outwards, so nothing that meets the box is missed.
  std::optional<std::vector<std::int64_t>> fencesInBox(double xmin, double xmax, double ymin,
                                                       double ymax);

  /// Loads the extents of the fences that lie within -180..180 and -90..90 (`loadFenceBoxes`);
  /// `fencesNear` always lists the others (WKT allows any number).
  bool loadFences(const std::vector<Fence>& fences);
  /// The boxes around the circle (`fencesInBox`), and the fences without one.
  std::optional<std::vector<std::size_t>> fencesNear(double latitude, double longitude,
                                                     double metres) override;

  std::optional<std::int64_t> count(std::string_view table) override;

 private:
  explicit ServiceStore(sqlite3* db) : db_(db) {}
  bool exec(const char* sql);
  bool fail();              ///< records SQLite's message; false
  std::nullopt_t failed();  ///< the same, for operations that answer a value

  sqlite3* db_;
  std::string lastError_;
  std::vector<std::size_t> unindexed_;
};

}  // namespace zonaris::service_tool
