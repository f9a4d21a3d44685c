#include "service_store.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <mutex>

#include <sqlite3.h>

namespace zonaris::service_tool {

namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS installs (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  app_key TEXT NOT NULL,
  created_ms INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS fence_states (
  install_id INTEGER NOT NULL REFERENCES installs(id),
  fence_id INTEGER NOT NULL,
  inside INTEGER NOT NULL,
  entered_ms INTEGER NOT NULL,
  pending_since_ms INTEGER NOT NULL DEFAULT 0,
  pending_last_ms INTEGER NOT NULL DEFAULT 0,
  pending_count INTEGER NOT NULL DEFAULT 0,
  pending_past REAL NOT NULL DEFAULT 0,
  unsettled_ms INTEGER NOT NULL DEFAULT 0,
  unsettled_count INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY (install_id, fence_id));
CREATE TABLE IF NOT EXISTS install_tracks (
  install_id INTEGER PRIMARY KEY REFERENCES installs(id),
  known INTEGER NOT NULL,
  at_ms INTEGER NOT NULL,
  latitude REAL NOT NULL,
  longitude REAL NOT NULL,
  accuracy REAL NOT NULL,
  fences_served INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS dwells_sent (
  install_id INTEGER NOT NULL,
  fence_id INTEGER NOT NULL,
  window_index INTEGER NOT NULL,
  PRIMARY KEY (install_id, fence_id, window_index));
CREATE TABLE IF NOT EXISTS observations (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  install_id INTEGER NOT NULL REFERENCES installs(id),
  received_ms INTEGER NOT NULL,
  body TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS events (
  observation_id INTEGER NOT NULL REFERENCES observations(id),
  fence_id INTEGER NOT NULL,
  event_type TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS error_reports (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  install_id INTEGER NOT NULL,
  received_ms INTEGER NOT NULL,
  body TEXT NOT NULL);
)sql";

// Columns that databases made before the robust rules lack; adding one that exists fails
// harmlessly.
constexpr const char* kAddedColumns[] = {
    "ALTER TABLE fence_states ADD COLUMN pending_since_ms INTEGER NOT NULL DEFAULT 0",
    "ALTER TABLE fence_states ADD COLUMN pending_last_ms INTEGER NOT NULL DEFAULT 0",
    "ALTER TABLE fence_states ADD COLUMN pending_count INTEGER NOT NULL DEFAULT 0",
    "ALTER TABLE fence_states ADD COLUMN pending_past REAL NOT NULL DEFAULT 0",
    "ALTER TABLE fence_states ADD COLUMN unsettled_ms INTEGER NOT NULL DEFAULT 0",
    "ALTER TABLE fence_states ADD COLUMN unsettled_count INTEGER NOT NULL DEFAULT 0"};

constexpr std::array<std::string_view, 7> kTables = {
    "installs", "fence_states",  "dwells_sent",   "observations",
    "events",   "error_reports", "install_tracks"};

// The longitudes and latitudes a fence's nearest point can have when it lies within `metres`
// of (lat, lon): one or two boxes (two across the antimeridian), all within -180..180. A metre
// and a part in a billion are added for the rounding of the haversine.
std::vector<std::array<double, 4>> boxesAround(double lat, double lon, double metres) {
  constexpr double kRadius = 6378137.0;
  constexpr double kDegree = 0.017453292519943295;
  const double theta = (metres * (1.0 + 1e-9) + 1.0) / kRadius;
  const double dLat = theta / kDegree + 1e-9;
  const double ymin = std::max(-90.0, lat - dLat);
  const double ymax = std::min(90.0, lat + dLat);
  if (lat + dLat >= 90.0 || lat - dLat <= -90.0)
    return {{-180.0, 180.0, ymin, ymax}};  // the circle holds a pole: every longitude
  // The widest longitude a circle of angular radius theta around latitude lat reaches.
  const double ratio = std::sin(theta) / std::cos(lat * kDegree);
  if (ratio >= 1.0)
    return {{-180.0, 180.0, ymin, ymax}};
  const double dLon = std::asin(ratio) / kDegree * (1.0 + 1e-9) + 1e-9;
  if (dLon >= 180.0)
    return {{-180.0, 180.0, ymin, ymax}};
  std::vector<std::array<double, 4>> boxes = {
      {std::max(-180.0, lon - dLon), std::min(180.0, lon + dLon), ymin, ymax}};
  if (lon - dLon < -180.0)
    boxes.push_back({lon - dLon + 360.0, 180.0, ymin, ymax});
  if (lon + dLon > 180.0)
    boxes.push_back({-180.0, lon + dLon - 360.0, ymin, ymax});
  return boxes;
}

// One prepared statement, finalised on every path.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK)
      stmt_ = nullptr;
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  explicit operator bool() const { return stmt_ != nullptr; }
  sqlite3_stmt* get() const { return stmt_; }

  bool bind(int index, std::int64_t value) {
    return sqlite3_bind_int64(stmt_, index, value) == SQLITE_OK;
  }
  bool bind(int index, double value) {
    return sqlite3_bind_double(stmt_, index, value) == SQLITE_OK;
  }
  bool bind(int index, std::string_view text) {
    return sqlite3_bind_text64(stmt_, index, text.data(), text.size(), SQLITE_TRANSIENT,
                               SQLITE_UTF8) == SQLITE_OK;
  }
  /// SQLITE_ROW, SQLITE_DONE or an error code.
  int step() { return sqlite3_step(stmt_); }
  std::int64_t column(int index) const { return sqlite3_column_int64(stmt_, index); }
  double real(int index) const { return sqlite3_column_double(stmt_, index); }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace

std::unique_ptr<ServiceStore> ServiceStore::open(const std::string& path, std::string& error) {
  sqlite3* db = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
  if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
    error = "cannot open the database " + path + ": " + (db ? sqlite3_errmsg(db) : "out of memory");
    sqlite3_close(db);
    return nullptr;
  }
  std::unique_ptr<ServiceStore> store(new ServiceStore(db));
  sqlite3_busy_timeout(db, 2000);
  if (!store->exec("PRAGMA foreign_keys = ON") || !store->exec(kSchema)) {
    error = "cannot set up the database " + path + ": " + store->lastError();
    return nullptr;
  }
  for (const char* sql : kAddedColumns)
    sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
  return store;
}

ServiceStore::~ServiceStore() {
  sqlite3_close(db_);
}

bool ServiceStore::fail() {
  lastError_ = sqlite3_errmsg(db_);
  return false;
}

std::nullopt_t ServiceStore::failed() {
  fail();
  return std::nullopt;
}

bool ServiceStore::exec(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    lastError_ = message ? message : sqlite3_errmsg(db_);
    sqlite3_free(message);
    return false;
  }
  return true;
}

bool ServiceStore::begin() {
  return exec("BEGIN IMMEDIATE");
}

bool ServiceStore::commit() {
  return exec("COMMIT");
}

void ServiceStore::rollback() {
  // Fails harmlessly when SQLite already rolled back on its own.
  sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

std::optional<std::int64_t> ServiceStore::addInstall(std::string_view appKey, std::int64_t atMs) {
  Statement s(db_, "INSERT INTO installs (app_key, created_ms) VALUES (?, ?)");
  if (!s || !s.bind(1, appKey) || !s.bind(2, atMs) || s.step() != SQLITE_DONE)
    return failed();
  return sqlite3_last_insert_rowid(db_);
}

bool ServiceStore::adoptInstall(std::int64_t id, std::int64_t atMs) {
  // AUTOINCREMENT keeps later ids above an adopted one.
  Statement s(db_, "INSERT OR IGNORE INTO installs (id, app_key, created_ms) VALUES (?, '', ?)");
  if (!s || !s.bind(1, id) || !s.bind(2, atMs) || s.step() != SQLITE_DONE) {
    fail();
    return false;
  }
  return true;
}

bool ServiceStore::holdInstall(std::int64_t id, std::int64_t atMs) {
  auto exists = installExists(id);
  return exists && (*exists || adoptInstall(id, atMs));
}

std::optional<bool> ServiceStore::installExists(std::int64_t id) {
  Statement s(db_, "SELECT 1 FROM installs WHERE id = ?");
  if (!s || !s.bind(1, id))
    return failed();
  const int rc = s.step();
  if (rc == SQLITE_ROW)
    return true;
  if (rc == SQLITE_DONE)
    return false;
  return failed();
}

std::optional<std::map<std::int64_t, FenceState>> ServiceStore::fenceStates(
    std::int64_t installId) {
  std::map<std::int64_t, FenceState> states;
  Statement s(db_,
              "SELECT fence_id, inside, entered_ms, pending_since_ms, pending_last_ms, "
              "pending_count, pending_past, unsettled_ms, unsettled_count FROM fence_states WHERE "
              "install_id = ?");
  if (!s || !s.bind(1, installId))
    return failed();
  int rc;
  while ((rc = s.step()) == SQLITE_ROW) {
    FenceState& state = states[s.column(0)];
    state.inside = s.column(1) != 0;
    state.enteredAtMs = s.column(2);
    state.pendingSinceMs = s.column(3);
    state.pendingLastMs = s.column(4);
    state.pendingCount = static_cast<int>(s.column(5));
    state.pendingPast = s.real(6);
    state.unsettledMs = s.column(7);
    state.unsettledCount = static_cast<int>(s.column(8));
  }
  if (rc != SQLITE_DONE)
    return failed();

  Statement d(db_, "SELECT fence_id, window_index FROM dwells_sent WHERE install_id = ?");
  if (!d || !d.bind(1, installId))
    return failed();
  while ((rc = d.step()) == SQLITE_ROW) {
    if (d.column(1) >= 0)
      states[d.column(0)].dwellsSent.insert(static_cast<std::size_t>(d.column(1)));
  }
  if (rc != SQLITE_DONE)
    return failed();
  return states;
}

bool ServiceStore::saveFenceState(std::int64_t installId, std::int64_t fenceId,
                                  const FenceState& state) {
  Statement upsert(db_,
                   "INSERT OR REPLACE INTO fence_states (install_id, fence_id, inside, entered_ms,"
                   " pending_since_ms, pending_last_ms, pending_count, pending_past, unsettled_ms,"
                   " unsettled_count) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  if (!upsert || !upsert.bind(1, installId) || !upsert.bind(2, fenceId) ||
      !upsert.bind(3, std::int64_t{state.inside}) || !upsert.bind(4, state.enteredAtMs) ||
      !upsert.bind(5, state.pendingSinceMs) || !upsert.bind(6, state.pendingLastMs) ||
      !upsert.bind(7, std::int64_t{state.pendingCount}) || !upsert.bind(8, state.pendingPast) ||
      !upsert.bind(9, state.unsettledMs) || !upsert.bind(10, std::int64_t{state.unsettledCount}) ||
      upsert.step() != SQLITE_DONE)
    return fail();
  Statement clear(db_, "DELETE FROM dwells_sent WHERE install_id = ? AND fence_id = ?");
  if (!clear || !clear.bind(1, installId) || !clear.bind(2, fenceId) || clear.step() != SQLITE_DONE)
    return fail();
  for (std::size_t index : state.dwellsSent) {
    Statement add(db_,
                  "INSERT INTO dwells_sent (install_id, fence_id, window_index) VALUES (?, ?, ?)");
    if (!add || !add.bind(1, installId) || !add.bind(2, fenceId) ||
        !add.bind(3, static_cast<std::int64_t>(index)) || add.step() != SQLITE_DONE)
      return fail();
  }
  return true;
}

std::optional<InstallTrack> ServiceStore::installTrack(std::int64_t installId) {
  Statement s(db_,
              "SELECT known, at_ms, latitude, longitude, accuracy, fences_served FROM "
              "install_tracks WHERE install_id = ?");
  if (!s || !s.bind(1, installId))
    return failed();
  InstallTrack track;
  const int rc = s.step();
  if (rc == SQLITE_ROW) {
    track.known = s.column(0) != 0;
    track.atMs = s.column(1);
    track.latitude = s.real(2);
    track.longitude = s.real(3);
    track.accuracy = s.real(4);
    track.fencesServed = s.column(5) != 0;
  } else if (rc != SQLITE_DONE) {
    return failed();
  }
  return track;
}

bool ServiceStore::saveInstallTrack(std::int64_t installId, const InstallTrack& track) {
  Statement s(db_,
              "INSERT OR REPLACE INTO install_tracks (install_id, known, at_ms, latitude, "
              "longitude, accuracy, fences_served) VALUES (?, ?, ?, ?, ?, ?, ?)");
  if (!s || !s.bind(1, installId) || !s.bind(2, std::int64_t{track.known}) ||
      !s.bind(3, track.atMs) || !s.bind(4, track.latitude) || !s.bind(5, track.longitude) ||
      !s.bind(6, track.accuracy) || !s.bind(7, std::int64_t{track.fencesServed}) ||
      s.step() != SQLITE_DONE)
    return fail();
  return true;
}

std::optional<std::int64_t> ServiceStore::addObservation(std::int64_t installId, std::int64_t atMs,
                                                         std::string_view body) {
  Statement s(db_, "INSERT INTO observations (install_id, received_ms, body) VALUES (?, ?, ?)");
  if (!s || !s.bind(1, installId) || !s.bind(2, atMs) || !s.bind(3, body) ||
      s.step() != SQLITE_DONE)
    return failed();
  return sqlite3_last_insert_rowid(db_);
}

bool ServiceStore::addEvent(std::int64_t observationId, std::int64_t fenceId,
                            std::string_view type) {
  Statement s(db_, "INSERT INTO events (observation_id, fence_id, event_type) VALUES (?, ?, ?)");
  if (!s || !s.bind(1, observationId) || !s.bind(2, fenceId) || !s.bind(3, type) ||
      s.step() != SQLITE_DONE)
    return fail();
  return true;
}

std::optional<std::int64_t> ServiceStore::addErrorReport(std::int64_t installId, std::int64_t atMs,
                                                         std::string_view body) {
  Statement s(db_, "INSERT INTO error_reports (install_id, received_ms, body) VALUES (?, ?, ?)");
  if (!s || !s.bind(1, installId) || !s.bind(2, atMs) || !s.bind(3, body) ||
      s.step() != SQLITE_DONE)
    return failed();
  return sqlite3_last_insert_rowid(db_);
}

bool ServiceStore::loadFenceBoxes(const std::vector<FenceBox>& boxes) {
  if (!exec("DROP TABLE IF EXISTS temp.fence_boxes") ||
      !exec("CREATE VIRTUAL TABLE temp.fence_boxes USING rtree(id, xmin, xmax, ymin, ymax)") ||
      !begin())
    return false;
  Statement add(db_, "INSERT INTO temp.fence_boxes VALUES (?, ?, ?, ?, ?)");
  if (!add) {
    fail();
    rollback();
    return false;
  }
  for (const FenceBox& box : boxes) {
    sqlite3_reset(add.get());
    if (!add.bind(1, box.index) || sqlite3_bind_double(add.get(), 2, box.xmin) != SQLITE_OK ||
        sqlite3_bind_double(add.get(), 3, box.xmax) != SQLITE_OK ||
        sqlite3_bind_double(add.get(), 4, box.ymin) != SQLITE_OK ||
        sqlite3_bind_double(add.get(), 5, box.ymax) != SQLITE_OK || add.step() != SQLITE_DONE) {
      fail();
      rollback();
      return false;
    }
  }
  return commit();
}

std::optional<std::vector<std::int64_t>> ServiceStore::fencesInBox(double xmin, double xmax,
                                                                   double ymin, double ymax) {
  Statement s(db_,
              "SELECT id FROM temp.fence_boxes WHERE xmax >= ? AND xmin <= ? AND ymax >= ? AND "
              "ymin <= ?");
  if (!s || sqlite3_bind_double(s.get(), 1, xmin) != SQLITE_OK ||
      sqlite3_bind_double(s.get(), 2, xmax) != SQLITE_OK ||
      sqlite3_bind_double(s.get(), 3, ymin) != SQLITE_OK ||
      sqlite3_bind_double(s.get(), 4, ymax) != SQLITE_OK)
    return failed();
  std::vector<std::int64_t> found;
  int rc;
  while ((rc = s.step()) == SQLITE_ROW)
    found.push_back(s.column(0));
  if (rc != SQLITE_DONE)
    return failed();
  return found;
}

bool ServiceStore::loadFences(const std::vector<Fence>& fences) {
  std::vector<FenceBox> boxes;
  unindexed_.clear();
  for (std::size_t i = 0; i < fences.size(); ++i) {
    const Fence& f = fences[i];
    if (f.xmin >= -180.0 && f.xmax <= 180.0 && f.ymin >= -90.0 && f.ymax <= 90.0)
      boxes.push_back({static_cast<std::int64_t>(i), f.xmin, f.xmax, f.ymin, f.ymax});
    else
      unindexed_.push_back(i);
  }
  return loadFenceBoxes(boxes);
}

std::optional<std::vector<std::size_t>> ServiceStore::fencesNear(double latitude, double longitude,
                                                                 double metres) {
  std::vector<std::size_t> picked = unindexed_;
  for (const auto& box : boxesAround(latitude, longitude, metres)) {
    auto found = fencesInBox(box[0], box[1], box[2], box[3]);
    if (!found)
      return std::nullopt;
    for (std::int64_t index : *found)
      picked.push_back(static_cast<std::size_t>(index));
  }
  std::sort(picked.begin(), picked.end());
  picked.erase(std::unique(picked.begin(), picked.end()), picked.end());
  return picked;
}

std::optional<std::int64_t> ServiceStore::count(std::string_view table) {
  bool known = false;
  for (auto t : kTables)
    known = known || t == table;
  if (!known)
    return std::nullopt;
  const std::string sql = "SELECT COUNT(*) FROM " + std::string(table);
  Statement s(db_, sql.c_str());
  if (!s || s.step() != SQLITE_ROW)
    return failed();
  return s.column(0);
}

namespace {

// One connection behind a mutex: a session holds the mutex for as long as it lives.
class SqliteStore : public Store {
 public:
  explicit SqliteStore(std::unique_ptr<ServiceStore> db) : db_(std::move(db)) {}

  StoreSessionPtr session(std::string&) override {
    mutex_.lock();
    return StoreSessionPtr(db_.get(), [this](StoreSession*) { mutex_.unlock(); });
  }

 private:
  std::mutex mutex_;
  std::unique_ptr<ServiceStore> db_;
};

}  // namespace

std::unique_ptr<Store> openSqliteStore(const std::string& path, const std::vector<Fence>& fences,
                                       std::string& error) {
  auto db = ServiceStore::open(path, error);
  if (!db)
    return nullptr;
  if (!db->loadFences(fences)) {
    error = "cannot index the fences: " + db->lastError();
    return nullptr;
  }
  return std::make_unique<SqliteStore>(std::move(db));
}

}  // namespace zonaris::service_tool
