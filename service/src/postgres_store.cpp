#include "zonaris/service/postgres_store.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <mutex>
#include <unordered_map>

#include <fmt/format.h>
#include <libpq-fe.h>

namespace zonaris::service_tool {

namespace {

// Held (per transaction) while the schema is migrated and the fences are loaded.
constexpr std::int64_t kSetUpLock = 0x5a6f6e6172697301;
// Held (per transaction) while an adopted install id raises the id sequence.
constexpr std::int64_t kAdoptLock = 0x5a6f6e6172697302;

// How long a request waits for a free connection before it fails.
constexpr auto kConnectionWait = std::chrono::seconds(10);

// Each migration brings the schema from the version before it to its own (its index + 1); a
// database records the versions applied in schema_version. Never edit one that has shipped:
// add the next.
constexpr const char* kMigrations[] = {
    R"sql(
CREATE EXTENSION IF NOT EXISTS postgis;
CREATE TABLE installs (
  id bigserial PRIMARY KEY,
  app_key text NOT NULL,
  created_ms bigint NOT NULL);
CREATE TABLE fence_states (
  install_id bigint NOT NULL REFERENCES installs(id),
  fence_id bigint NOT NULL,
  inside boolean NOT NULL,
  entered_ms bigint NOT NULL,
  pending_since_ms bigint NOT NULL DEFAULT 0,
  pending_last_ms bigint NOT NULL DEFAULT 0,
  pending_count integer NOT NULL DEFAULT 0,
  pending_past double precision NOT NULL DEFAULT 0,
  unsettled_ms bigint NOT NULL DEFAULT 0,
  unsettled_count integer NOT NULL DEFAULT 0,
  dwells_sent integer[] NOT NULL DEFAULT '{}',
  PRIMARY KEY (install_id, fence_id));
CREATE TABLE install_tracks (
  install_id bigint PRIMARY KEY REFERENCES installs(id),
  known boolean NOT NULL,
  at_ms bigint NOT NULL,
  latitude double precision NOT NULL,
  longitude double precision NOT NULL,
  accuracy double precision NOT NULL,
  fences_served boolean NOT NULL);
CREATE TABLE observations (
  id bigserial PRIMARY KEY,
  install_id bigint NOT NULL REFERENCES installs(id),
  received_ms bigint NOT NULL,
  body text NOT NULL);
CREATE INDEX observations_install ON observations (install_id);
CREATE TABLE events (
  observation_id bigint NOT NULL REFERENCES observations(id),
  fence_id bigint NOT NULL,
  event_type text NOT NULL);
CREATE INDEX events_observation ON events (observation_id);
CREATE TABLE error_reports (
  id bigserial PRIMARY KEY,
  install_id bigint NOT NULL,
  received_ms bigint NOT NULL,
  body text NOT NULL);
-- The fences by their position in the fences file. area is what the candidate query searches:
-- the fence's shape, densified so that its great-circle edges follow the straight lines in
-- degrees that the service measures; its extent when PostGIS cannot take the shape; null for
-- fences that every query lists.
CREATE TABLE fences (
  position integer PRIMARY KEY,
  id bigint NOT NULL,
  type text NOT NULL,
  location text NOT NULL,
  area geography);
CREATE INDEX fences_area ON fences USING gist (area);
CREATE TABLE fence_source (
  fingerprint text NOT NULL);
CREATE FUNCTION zonaris_fence_area(wkt text, xmin float8, ymin float8, xmax float8, ymax float8)
RETURNS geography LANGUAGE plpgsql IMMUTABLE AS $$
DECLARE
  shape geometry;
BEGIN
  shape := ST_GeomFromText(wkt, 4326);
  IF NOT ST_IsValid(shape) THEN
    shape := ST_MakeEnvelope(xmin, ymin, xmax, ymax, 4326);
  END IF;
  RETURN ST_Segmentize(shape, 0.001)::geography;
EXCEPTION WHEN OTHERS THEN
  RETURN ST_Segmentize(ST_MakeEnvelope(xmin, ymin, xmax, ymax, 4326), 0.001)::geography;
END $$;
)sql",
};

constexpr std::array<std::string_view, 8> kTables = {
    "installs", "fence_states",  "install_tracks", "observations",
    "events",   "error_reports", "fences",         "fence_source"};

// Fences that the candidate query can find: an extent of at most 10 degrees (their densified
// shape stays small) within the map, away from the poles (where great circles and lines in
// degrees part most). The others are listed by every query and measured.
bool searchable(const Fence& f) {
  return f.xmin >= -180.0 && f.xmax <= 180.0 && f.ymin >= -89.0 && f.ymax <= 89.0 &&
         f.xmax - f.xmin <= 10.0 && f.ymax - f.ymin <= 10.0;
}

struct ConnectionCloser {
  void operator()(PGconn* c) const { PQfinish(c); }
};
using Connection = std::unique_ptr<PGconn, ConnectionCloser>;

struct ResultClearer {
  void operator()(PGresult* r) const { PQclear(r); }
};
using Result = std::unique_ptr<PGresult, ResultClearer>;

std::string param(std::int64_t v) {
  return std::to_string(v);
}
std::string param(bool v) {
  return v ? "t" : "f";
}
// Doubles go as the shortest text that reads back as the same value.
std::string param(double v) {
  if (std::isnan(v))
    return "NaN";
  if (std::isinf(v))
    return v > 0 ? "Infinity" : "-Infinity";
  return fmt::format("{}", v);
}

std::int64_t integer(const PGresult* r, int row, int column) {
  return std::strtoll(PQgetvalue(r, row, column), nullptr, 10);
}
double real(const PGresult* r, int row, int column) {
  return std::strtod(PQgetvalue(r, row, column), nullptr);
}
bool boolean(const PGresult* r, int row, int column) {
  return PQgetvalue(r, row, column)[0] == 't';
}

// 64-bit FNV-1a, to recognise a fences file the database already holds.
void mix(std::uint64_t& hash, std::string_view text) {
  for (unsigned char c : text) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  hash ^= 0xff;  // ends the field
  hash *= 0x100000001b3ULL;
}

std::string fingerprint(const std::vector<Fence>& fences) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;
  for (const Fence& f : fences) {
    mix(hash, param(f.id));
    mix(hash, f.type);
    mix(hash, f.location);
    for (double v : {f.xmin, f.xmax, f.ymin, f.ymax})
      mix(hash, param(v));
  }
  return fmt::format("{}:{:016x}", fences.size(), hash);
}

// libpq's message as one line: its hints follow on lines of their own.
std::string oneLine(const char* message) {
  std::string line;
  bool space = false;
  for (const char* c = message; *c != '\0'; ++c) {
    if (std::isspace(static_cast<unsigned char>(*c))) {
      space = !line.empty();
      continue;
    }
    if (space)
      line += ' ';
    space = false;
    line += *c;
  }
  return line.empty() ? "PostgreSQL failed" : line;
}

class PostgresSession : public StoreSession {
 public:
  PostgresSession(Connection connection, const std::vector<std::size_t>& unsearchable)
      : connection_(std::move(connection)), unsearchable_(unsearchable) {}

  PGconn* connection() const { return connection_.get(); }
  const std::string& lastError() const override { return lastError_; }

  // Runs one statement and answers its result; null (and lastError says why) when it fails.
  // Statements with parameters (the fixed texts of this file) are prepared once per
  // connection: most requests are a handful of them, and planning would cost more than running.
  // Statements queued before it (a transaction's BEGIN, changes that answer nothing) go in the
  // same round trip.
  Result run(const char* sql, std::vector<std::string> params = {}) {
    if (!queued_.empty()) {
      queued_.push_back({sql, std::move(params)});
      return flush();
    }
    std::vector<const char*> values;
    for (const auto& p : params)
      values.push_back(p.c_str());
    const int n = static_cast<int>(values.size());
    if (n == 0)
      return check(Result(PQexec(connection_.get(), sql)));
    auto [it, fresh] = prepared_.try_emplace(sql, fmt::format("s{}", nextName_));
    if (fresh) {
      ++nextName_;
      if (!check(Result(PQprepare(connection_.get(), it->second.c_str(), sql, n, nullptr)))) {
        prepared_.erase(it);
        return nullptr;
      }
    }
    return check(Result(PQexecPrepared(connection_.get(), it->second.c_str(), n, values.data(),
                                       nullptr, nullptr, 0)));
  }

  // A change whose only answer is success: inside a transaction it waits for the next statement
  // (at the latest COMMIT), and a failure is reported there.
  bool change(const char* sql, std::vector<std::string> params) {
    if (!inTransaction_)
      return run(sql, std::move(params)) != nullptr;
    queued_.push_back({sql, std::move(params)});
    return true;
  }

  Result check(Result r) {
    const auto status = r ? PQresultStatus(r.get()) : PGRES_FATAL_ERROR;
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK)
      return r;
    lastError_ = oneLine(PQerrorMessage(connection_.get()));
    return nullptr;
  }

  // Whether the connection can serve another request.
  bool reusable() const {
    PGconn* c = connection_.get();
    return !broken_ && PQstatus(c) == CONNECTION_OK && PQtransactionStatus(c) == PQTRANS_IDLE &&
           PQpipelineStatus(c) == PQ_PIPELINE_OFF;
  }

  // BEGIN goes with the transaction's first statement.
  bool begin() override {
    inTransaction_ = true;
    queued_.push_back({"BEGIN", {}});
    return true;
  }
  bool commit() override {
    const bool done = run("COMMIT") != nullptr;
    inTransaction_ = false;
    return done;
  }
  void rollback() override {
    queued_.clear();
    inTransaction_ = false;
    if (!broken_ && PQtransactionStatus(connection_.get()) != PQTRANS_IDLE)
      Result(PQexec(connection_.get(), "ROLLBACK"));
  }

  std::optional<std::int64_t> addInstall(std::string_view appKey, std::int64_t atMs) override {
    // An adopted id may take the next number of the sequence; the next one is free.
    for (int attempt = 0; attempt < 3; ++attempt) {
      auto r =
          run("INSERT INTO installs (id, app_key, created_ms) VALUES "
              "(nextval('installs_id_seq'), $1, $2) ON CONFLICT (id) DO NOTHING RETURNING id",
              {std::string(appKey), param(atMs)});
      if (!r)
        return std::nullopt;
      if (PQntuples(r.get()) == 1)
        return integer(r.get(), 0, 0);
    }
    lastError_ = "no free install id";
    return std::nullopt;
  }

  bool holdInstall(std::int64_t id, std::int64_t atMs) override {
    const char* lock = "SELECT 1 FROM installs WHERE id = $1 FOR UPDATE";
    auto held = run(lock, {param(id)});
    if (!held)
      return false;
    if (PQntuples(held.get()) == 1)
      return true;
    // Later ids must stay above an adopted one: raise the sequence past it.
    return run("SELECT pg_advisory_xact_lock($1)", {param(kAdoptLock)}) &&
           run("INSERT INTO installs (id, app_key, created_ms) VALUES ($1, '', $2) "
               "ON CONFLICT (id) DO NOTHING",
               {param(id), param(atMs)}) &&
           run("SELECT setval('installs_id_seq', $1) FROM installs_id_seq WHERE last_value < $1",
               {param(id)}) &&
           run(lock, {param(id)});
  }

  std::optional<std::map<std::int64_t, FenceState>> fenceStates(std::int64_t installId) override {
    auto r = run(
        "SELECT fence_id, inside, entered_ms, pending_since_ms, pending_last_ms, pending_count, "
        "pending_past, unsettled_ms, unsettled_count, array_to_string(dwells_sent, ',') FROM "
        "fence_states WHERE install_id = $1",
        {param(installId)});
    if (!r)
      return std::nullopt;
    std::map<std::int64_t, FenceState> states;
    for (int row = 0; row < PQntuples(r.get()); ++row) {
      FenceState& state = states[integer(r.get(), row, 0)];
      state.inside = boolean(r.get(), row, 1);
      state.enteredAtMs = integer(r.get(), row, 2);
      state.pendingSinceMs = integer(r.get(), row, 3);
      state.pendingLastMs = integer(r.get(), row, 4);
      state.pendingCount = static_cast<int>(integer(r.get(), row, 5));
      state.pendingPast = real(r.get(), row, 6);
      state.unsettledMs = integer(r.get(), row, 7);
      state.unsettledCount = static_cast<int>(integer(r.get(), row, 8));
      const char* dwells = PQgetvalue(r.get(), row, 9);
      while (*dwells != '\0') {
        char* end = nullptr;
        const long long index = std::strtoll(dwells, &end, 10);
        if (end == dwells)
          break;
        if (index >= 0)
          state.dwellsSent.insert(static_cast<std::size_t>(index));
        dwells = *end == ',' ? end + 1 : end;
      }
    }
    return states;
  }

  bool saveFenceState(std::int64_t installId, std::int64_t fenceId,
                      const FenceState& state) override {
    std::string dwells = "{";
    for (std::size_t index : state.dwellsSent)
      dwells += (dwells.size() > 1 ? "," : "") + std::to_string(index);
    dwells += "}";
    return change(
        "INSERT INTO fence_states (install_id, fence_id, inside, entered_ms, "
        "pending_since_ms, pending_last_ms, pending_count, pending_past, unsettled_ms, "
        "unsettled_count, dwells_sent) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, "
        "$11) ON CONFLICT (install_id, fence_id) DO UPDATE SET inside = $3, entered_ms = "
        "$4, pending_since_ms = $5, pending_last_ms = $6, pending_count = $7, "
        "pending_past = $8, unsettled_ms = $9, unsettled_count = $10, dwells_sent = $11",
        {param(installId), param(fenceId), param(state.inside), param(state.enteredAtMs),
         param(state.pendingSinceMs), param(state.pendingLastMs),
         param(std::int64_t{state.pendingCount}), param(state.pendingPast),
         param(state.unsettledMs), param(std::int64_t{state.unsettledCount}), dwells});
  }

  std::optional<InstallTrack> installTrack(std::int64_t installId) override {
    auto r =
        run("SELECT known, at_ms, latitude, longitude, accuracy, fences_served FROM install_tracks "
            "WHERE install_id = $1",
            {param(installId)});
    if (!r)
      return std::nullopt;
    InstallTrack track;
    if (PQntuples(r.get()) == 1) {
      track.known = boolean(r.get(), 0, 0);
      track.atMs = integer(r.get(), 0, 1);
      track.latitude = real(r.get(), 0, 2);
      track.longitude = real(r.get(), 0, 3);
      track.accuracy = real(r.get(), 0, 4);
      track.fencesServed = boolean(r.get(), 0, 5);
    }
    return track;
  }

  bool saveInstallTrack(std::int64_t installId, const InstallTrack& track) override {
    return change(
        "INSERT INTO install_tracks (install_id, known, at_ms, latitude, longitude, "
        "accuracy, fences_served) VALUES ($1, $2, $3, $4, $5, $6, $7) ON CONFLICT "
        "(install_id) DO UPDATE SET known = $2, at_ms = $3, latitude = $4, longitude = $5, "
        "accuracy = $6, fences_served = $7",
        {param(installId), param(track.known), param(track.atMs), param(track.latitude),
         param(track.longitude), param(track.accuracy), param(track.fencesServed)});
  }

  std::optional<std::int64_t> addObservation(std::int64_t installId, std::int64_t atMs,
                                             std::string_view body) override {
    return insertReturningId(
        "INSERT INTO observations (install_id, received_ms, body) VALUES ($1, $2, $3) "
        "RETURNING id",
        installId, atMs, body);
  }

  bool addEvent(std::int64_t observationId, std::int64_t fenceId, std::string_view type) override {
    return change("INSERT INTO events (observation_id, fence_id, event_type) VALUES ($1, $2, $3)",
                  {param(observationId), param(fenceId), std::string(type)});
  }

  std::optional<std::int64_t> addErrorReport(std::int64_t installId, std::int64_t atMs,
                                             std::string_view body) override {
    return insertReturningId(
        "INSERT INTO error_reports (install_id, received_ms, body) VALUES ($1, $2, $3) "
        "RETURNING id",
        installId, atMs, body);
  }

  std::optional<std::vector<std::size_t>> fencesNear(double latitude, double longitude,
                                                     double metres) override {
    // The spheroid's distances differ from those on the service's sphere by under 0.4 %, and
    // the densified edges lie within millimetres of the lines the service measures to: a
    // percent and two metres more finds every fence the service would.
    auto r =
        run("SELECT position FROM fences WHERE ST_DWithin(area, "
            "ST_SetSRID(ST_MakePoint($2, $1), 4326)::geography, $3, true)",
            {param(latitude), param(longitude), param(metres * 1.01 + 2.0)});
    if (!r)
      return std::nullopt;
    std::vector<std::size_t> picked = unsearchable_;
    for (int row = 0; row < PQntuples(r.get()); ++row)
      picked.push_back(static_cast<std::size_t>(integer(r.get(), row, 0)));
    std::sort(picked.begin(), picked.end());
    picked.erase(std::unique(picked.begin(), picked.end()), picked.end());
    return picked;
  }

  std::optional<std::int64_t> count(std::string_view table) override {
    if (std::find(kTables.begin(), kTables.end(), table) == kTables.end())
      return std::nullopt;
    auto r = run(("SELECT count(*) FROM " + std::string(table)).c_str());
    if (!r)
      return std::nullopt;
    return integer(r.get(), 0, 0);
  }

  // Brings the schema to the current version and loads the fences unless the database holds
  // them already, all under the set-up lock.
  bool setUp(const std::vector<Fence>& fences) {
    if (!begin())
      return false;
    if (!run("SELECT pg_advisory_xact_lock($1)", {param(kSetUpLock)}) ||
        !run("CREATE TABLE IF NOT EXISTS schema_version (version integer PRIMARY KEY)")) {
      rollback();
      return false;
    }
    auto current = run("SELECT coalesce(max(version), 0) FROM schema_version");
    if (!current) {
      rollback();
      return false;
    }
    const auto kCount = static_cast<std::int64_t>(std::size(kMigrations));
    for (std::int64_t version = integer(current.get(), 0, 0) + 1; version <= kCount; ++version) {
      Result r(PQexec(connection_.get(), kMigrations[version - 1]));
      if (!r || PQresultStatus(r.get()) != PGRES_COMMAND_OK) {
        lastError_ =
            fmt::format("migration {}: {}", version, oneLine(PQerrorMessage(connection_.get())));
        rollback();
        return false;
      }
      if (!run("INSERT INTO schema_version (version) VALUES ($1)", {param(version)})) {
        rollback();
        return false;
      }
    }
    if (!loadFences(fences)) {
      rollback();
      return false;
    }
    return commit();
  }

 private:
  struct Queued {
    const char* sql;
    std::vector<std::string> params;
  };

  // Sends the queued statements in one pipeline and answers the last one's result; null when
  // any of them failed (the first failure is in lastError; the server skips the rest).
  Result flush() {
    std::vector<Queued> steps = std::move(queued_);
    queued_.clear();
    PGconn* c = connection_.get();
    if (PQenterPipelineMode(c) != 1) {
      lastError_ = oneLine(PQerrorMessage(c));
      return nullptr;
    }
    struct Expected {
      std::size_t step;
      bool prepare;  // the step's PQsendPrepare, not its execution
    };
    std::vector<Expected> expected;
    bool sent = true;
    for (std::size_t i = 0; i < steps.size() && sent; ++i) {
      std::vector<const char*> values;
      for (const auto& p : steps[i].params)
        values.push_back(p.c_str());
      const int n = static_cast<int>(values.size());
      if (n == 0) {
        sent = PQsendQueryParams(c, steps[i].sql, 0, nullptr, nullptr, nullptr, nullptr, 0) == 1;
        expected.push_back({i, false});
        continue;
      }
      auto [it, fresh] = prepared_.try_emplace(steps[i].sql, fmt::format("s{}", nextName_));
      if (fresh) {
        ++nextName_;
        sent = PQsendPrepare(c, it->second.c_str(), steps[i].sql, n, nullptr) == 1;
        expected.push_back({i, true});
      }
      sent = sent &&
             PQsendQueryPrepared(c, it->second.c_str(), n, values.data(), nullptr, nullptr, 0) == 1;
      expected.push_back({i, false});
    }
    if (!sent || PQpipelineSync(c) != 1) {
      // What the server holds of this connection is unknown now: it is not used again.
      lastError_ = oneLine(PQerrorMessage(c));
      broken_ = true;
      return nullptr;
    }
    Result last;
    bool ok = true;
    for (const Expected& e : expected) {
      Result r(PQgetResult(c));
      if (!r) {
        lastError_ = oneLine(PQerrorMessage(c));
        broken_ = true;
        return nullptr;
      }
      while (PGresult* more = PQgetResult(c))  // a statement's results end with a null
        PQclear(more);
      const auto status = PQresultStatus(r.get());
      if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        if (ok) {
          const char* why = PQresultErrorMessage(r.get());
          lastError_ = oneLine(*why != '\0' ? why : PQerrorMessage(c));
        }
        ok = false;
        if (e.prepare)
          prepared_.erase(steps[e.step].sql);
      } else if (!e.prepare && e.step + 1 == steps.size()) {
        last = std::move(r);
      }
    }
    Result sync(PQgetResult(c));
    if (!sync || PQresultStatus(sync.get()) != PGRES_PIPELINE_SYNC || PQexitPipelineMode(c) != 1) {
      if (ok)
        lastError_ = oneLine(PQerrorMessage(c));
      broken_ = true;
      return nullptr;
    }
    return ok ? std::move(last) : nullptr;
  }

  std::optional<std::int64_t> insertReturningId(const char* sql, std::int64_t installId,
                                                std::int64_t atMs, std::string_view body) {
    auto r = run(sql, {param(installId), param(atMs), std::string(body)});
    if (!r || PQntuples(r.get()) != 1)
      return std::nullopt;
    return integer(r.get(), 0, 0);
  }

  bool loadFences(const std::vector<Fence>& fences) {
    const std::string print = fingerprint(fences);
    auto held = run("SELECT fingerprint FROM fence_source");
    if (!held)
      return false;
    if (PQntuples(held.get()) == 1 && print == PQgetvalue(held.get(), 0, 0))
      return true;
    if (!run("DELETE FROM fences") || !run("DELETE FROM fence_source") ||
        !run("INSERT INTO fence_source (fingerprint) VALUES ($1)", {print}))
      return false;
    for (std::size_t i = 0; i < fences.size(); ++i) {
      const Fence& f = fences[i];
      if (!run("INSERT INTO fences (position, id, type, location, area) VALUES ($1, $2, $3, $4, "
               "CASE WHEN $5 THEN zonaris_fence_area($4, $6, $7, $8, $9) END)",
               {param(static_cast<std::int64_t>(i)), param(f.id), f.type, f.location,
                param(searchable(f)), param(f.xmin), param(f.ymin), param(f.xmax), param(f.ymax)}))
        return false;
    }
    return true;
  }

  Connection connection_;
  const std::vector<std::size_t>& unsearchable_;
  std::unordered_map<std::string, std::string> prepared_;  // statement text: its name
  std::size_t nextName_ = 0;
  std::vector<Queued> queued_;  // sent with the next statement whose answer is read
  bool inTransaction_ = false;
  bool broken_ = false;  // a pipeline failed midway
  std::string lastError_;
};

Connection connect(const std::string& url, std::string& error) {
  // A time limit for reaching the server unless the URL sets its own, and doubles as text that
  // reads back as the same value whatever the server's default.
  const char* keywords[] = {"connect_timeout", "application_name", "options", "dbname", nullptr};
  const char* values[] = {"5", "zonaris-service", "-c extra_float_digits=3", url.c_str(), nullptr};
  Connection c(PQconnectdbParams(keywords, values, 1));
  if (!c) {
    error = "cannot connect to PostgreSQL: out of memory";
    return nullptr;
  }
  // Notices ("already exists, skipping") are not for the service's output.
  PQsetNoticeProcessor(
      c.get(), [](void*, const char*) {}, nullptr);
  if (PQstatus(c.get()) != CONNECTION_OK) {
    error = "cannot connect to PostgreSQL: " + oneLine(PQerrorMessage(c.get()));
    return nullptr;
  }
  return c;
}

class PostgresStore : public Store {
 public:
  PostgresStore(std::string url, std::size_t connections, std::vector<std::size_t> unsearchable)
      : url_(std::move(url)),
        limit_(std::max<std::size_t>(1, connections)),
        unsearchable_(std::move(unsearchable)) {
    idle_.reserve(limit_);  // taking a session back never allocates
  }

  const std::vector<std::size_t>& unsearchable() const { return unsearchable_; }

  void keep(std::unique_ptr<PostgresSession> session) {
    std::lock_guard lock(mutex_);
    ++open_;
    idle_.push_back(std::move(session));
  }

  StoreSessionPtr session(std::string& error) override {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (!cv_.wait_for(lock, kConnectionWait,
                        [this] { return !idle_.empty() || open_ < limit_; })) {
        error = "no connection to PostgreSQL became free";
        return nullptr;
      }
      if (idle_.empty())
        break;
      auto s = std::move(idle_.back());
      idle_.pop_back();
      // A connection the server closed meanwhile (a restart) reads as gone here, before a
      // request is lost on it: the first read takes what the server said last ("terminating
      // connection"), the second meets the end of the stream.
      PGconn* c = s->connection();
      if (PQconsumeInput(c) == 1 && PQconsumeInput(c) == 1 && PQstatus(c) == CONNECTION_OK)
        return lease(std::move(s));
      --open_;
    }
    ++open_;
    lock.unlock();
    auto connection = connect(url_, error);
    if (!connection) {
      release(nullptr);
      return nullptr;
    }
    return lease(std::make_unique<PostgresSession>(std::move(connection), unsearchable_));
  }

 private:
  StoreSessionPtr lease(std::unique_ptr<PostgresSession> s) {
    return StoreSessionPtr(s.release(), [this](StoreSession* raw) {
      std::unique_ptr<PostgresSession> back(static_cast<PostgresSession*>(raw));
      back->rollback();
      if (!back->reusable())
        back.reset();
      release(std::move(back));
    });
  }

  // Takes back a session's connection, or gives up its place when it is null.
  void release(std::unique_ptr<PostgresSession> s) {
    {
      std::lock_guard lock(mutex_);
      if (s)
        idle_.push_back(std::move(s));
      else
        --open_;
    }
    cv_.notify_one();
  }

  const std::string url_;
  const std::size_t limit_;
  const std::vector<std::size_t> unsearchable_;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<std::unique_ptr<PostgresSession>> idle_;
  std::size_t open_ = 0;  // idle and leased connections
};

}  // namespace

bool isPostgresUrl(std::string_view db) {
  return db.starts_with("postgresql://") || db.starts_with("postgres://");
}

std::unique_ptr<Store> openPostgresStore(const std::string& url, const std::vector<Fence>& fences,
                                         std::string& error, std::size_t connections) {
  std::vector<std::size_t> unsearchable;
  for (std::size_t i = 0; i < fences.size(); ++i)
    if (!searchable(fences[i]))
      unsearchable.push_back(i);
  auto store = std::make_unique<PostgresStore>(url, connections, std::move(unsearchable));
  auto connection = connect(url, error);
  if (!connection)
    return nullptr;
  // The store outlives every session it hands out, so the reference to its list holds.
  auto first = std::make_unique<PostgresSession>(std::move(connection), store->unsearchable());
  if (!first->setUp(fences)) {
    error = "cannot set up the PostgreSQL database: " + first->lastError();
    return nullptr;
  }
  store->keep(std::move(first));
  return store;
}

}  // namespace zonaris::service_tool
