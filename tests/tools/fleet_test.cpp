// zonaris-service nodes run as processes on one database, under concurrent clients: one node on
// SQLite, four on a private PostgreSQL. Each install's crossings are confirmed once even when
// two nodes take observations of it at the same moment, and every observation that got a 2xx
// is stored, also when a node is killed or PostgreSQL restarts in the middle of the load.
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "support/postgres_server.hpp"
#include "support/process.hpp"

#ifdef ZONARIS_SERVICE_BIN

namespace zonaris::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Under the sanitizers every request costs about ten times as much.
#ifdef ZONARIS_SANITIZED
constexpr int kClients = 12;
constexpr int kRounds = 2;
#else
constexpr int kClients = 50;
constexpr int kRounds = 5;
#endif

// One point fence, 100 m around (10, 50), with a dwell after a second inside.
constexpr const char* kFences = R"j([{"id": 1, "type": "point", "location": "POINT (10 50)",
  "radius": 100, "_event_types": ["entry", "exit"], "_dwell_windows": [1]}])j";
constexpr double kInside = 50.0, kOutside = 50.01;  // 1.1 km north: outside

/// Waits up to `limit` until `done()`; true when it is.
template <typename Done>
bool waitFor(Done done, std::chrono::seconds limit) {
  const auto deadline = Clock::now() + limit;
  while (!done()) {
    if (Clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

struct Backend {
  const char* name;
  bool postgres;
  int nodes;
};
void PrintTo(const Backend& backend, std::ostream* out) {
  *out << backend.name;
}

/// The nodes, their database and its rows.
class Fleet {
 public:
  explicit Fleet(const Backend& backend) : backend_(backend) {}
  /// Stops the nodes; fails the test when a sanitizer reported on one of them.
  ~Fleet() {
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
      nodes_[i]->stop(SIGTERM, 20s);
      const std::string err = slurp(scratch_.path(fmt::format("node{}.err", i)));
      EXPECT_EQ(err.find("Sanitizer"), std::string::npos) << "node " << i << ": " << err;
      EXPECT_EQ(err.find("runtime error:"), std::string::npos) << "node " << i << ": " << err;
    }
  }

  /// Makes the database and starts every node at once (so that they set the schema up
  /// together); a failure names the node and what it said.
  ::testing::AssertionResult start() {
    if (backend_.postgres) {
      pg_ = std::make_unique<PostgresServer>();
      if (!pg_->ok())
        return ::testing::AssertionFailure() << pg_->error();
    }
    const std::string db = pg_ ? pg_->url() : scratch_.path("service.db");
    const std::string fences = scratch_.file("fences.json", kFences);
    for (int i = 0; i < backend_.nodes; ++i)
      nodes_.push_back(std::make_unique<Process>(
          std::vector<std::string>{ZONARIS_SERVICE_BIN, "--fences", fences, "--db", db, "--port",
                                   "0", "--confirm", "exact"},
          out(i), scratch_.path(fmt::format("node{}.err", i))));
    for (int i = 0; i < backend_.nodes; ++i) {
      if (!waitFor([&] { return slurp(out(i)).find('\n') != std::string::npos; }, 60s))
        return ::testing::AssertionFailure()
               << "node " << i
               << " did not start: " << slurp(scratch_.path(fmt::format("node{}.err", i)));
      const std::string line = slurp(out(i));
      ports_.push_back(std::stoi(line.substr(line.rfind(':') + 1)));
    }
    return ::testing::AssertionSuccess();
  }

  int nodes() const { return backend_.nodes; }
  int port(int node) const { return ports_.at(node); }
  Process& node(int i) { return *nodes_.at(i); }
  PostgresServer* postgres() { return pg_.get(); }

  /// Rows of `sql` as psql -A -t prints them (fields split by '|', a row a line).
  std::string query(const std::string& sql) {
    if (pg_)
      return pg_->query(sql).value_or("psql failed: " + pg_->error());
    sqlite3* db = nullptr;
    std::string rows;
    if (sqlite3_open_v2(scratch_.path("service.db").c_str(), &db, SQLITE_OPEN_READONLY, nullptr) !=
        SQLITE_OK) {
      sqlite3_close(db);
      return "cannot open the database";
    }
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK)
      while (sqlite3_step(statement) == SQLITE_ROW) {
        for (int c = 0; c < sqlite3_column_count(statement); ++c)
          rows += (c ? "|" : "") +
                  std::string(reinterpret_cast<const char*>(sqlite3_column_text(statement, c)));
        rows += '\n';
      }
    else
      rows = sqlite3_errmsg(db);
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return rows;
  }

 private:
  std::string out(int i) const { return scratch_.path(fmt::format("node{}.out", i)); }

  Backend backend_;
  Scratch scratch_{"zonaris-fleet"};
  std::unique_ptr<PostgresServer> pg_;  // declared before the nodes: they stop first
  std::vector<std::unique_ptr<Process>> nodes_;
  std::vector<int> ports_;
};

/// A client of one node: the HTTP status of each exchange, 0 for a transport error.
class Client {
 public:
  explicit Client(int port) : http_("127.0.0.1", port) {
    http_.set_connection_timeout(5s);
    http_.set_read_timeout(30s);
  }
  std::pair<int, nlohmann::json> post(const std::string& path, const std::string& body) {
    auto r = http_.Post(path, body, "application/json");
    if (!r)
      return {0, nullptr};
    return {r->status, nlohmann::json::parse(r->body, nullptr, false)};
  }
  std::pair<int, nlohmann::json> observe(std::int64_t install, double latitude,
                                         const std::string& tag) {
    return post("/observation",
                fmt::format(R"({{"gps": {{"latitude": {}, "longitude": 10.0, "radius": 5.0}},
                                "beacons": [], "data": {{"tag": "{}"}}, "install": {}}})",
                            latitude, tag, install));
  }

 private:
  httplib::Client http_;
};

bool accepted(int status) {
  return status >= 200 && status < 300;
}

/// An observation as a client sent it: its tag (unique in the test) and the answer's status.
struct Sent {
  std::string tag;
  int status;
  int epoch = 0;  ///< of the fault test, when it was sent
};

/// Fails the test for each observation that got a 2xx but is not in the database (the first
/// few), and for a database holding more observations than were sent.
void expectEveryAcceptedStored(Fleet& fleet, const std::vector<std::vector<Sent>>& sent) {
  const std::string stored = fleet.query("SELECT body FROM observations");
  std::size_t lost = 0, total = 0;
  for (const auto& client : sent)
    for (const auto& s : client) {
      ++total;
      if (accepted(s.status) && stored.find('"' + s.tag + '"') == std::string::npos && lost++ < 5)
        ADD_FAILURE() << "observation " << s.tag << " got " << s.status << " but is not stored";
    }
  EXPECT_EQ(lost, 0u);
  EXPECT_LE(std::count(stored.begin(), stored.end(), '\n'), total);
}

class FleetTest : public ::testing::TestWithParam<Backend> {};

// Clients in pairs; both of a pair send observations of one install at the same moment, to two
// different nodes when there are several. Each install goes inside the fence, stays past its
// dwell window, and leaves: one entry, one dwell and one exit stored, none answered twice,
// whatever the interleaving. Every request is answered, even when all clients connect at once.
TEST_P(FleetTest, ConfirmsEachCrossingOnceAndStoresEveryAcceptedObservation) {
  Fleet fleet(GetParam());
  ASSERT_TRUE(fleet.start());
  constexpr int kPhases = 3;  // inside, inside past the dwell window, outside
  std::vector<std::int64_t> installs(kClients);
  std::vector<std::vector<Sent>> sent(kClients);
  std::vector<std::map<std::string, int>> events(kClients);  // event type -> times answered
  std::deque<std::barrier<>> pairs;
  for (int p = 0; p < kClients / 2; ++p)
    pairs.emplace_back(2);
  int phase = 0;
  std::barrier all(kClients, [&phase]() noexcept {
    if (phase++ == 0)
      std::this_thread::sleep_for(1100ms);  // the stay outlasts the dwell window
  });
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; ++c)
    threads.emplace_back([&, c] {
      Client client(fleet.port(c % fleet.nodes()));
      for (int attempt = 0; attempt < 3 && installs[c] <= 0; ++attempt) {
        const auto [status, id] = client.post("/install", R"({"appKey": "demo"})");
        installs[c] = accepted(status) ? id.value("id", std::int64_t{0}) : 0;
      }
      for (int p = 0; p < kPhases; ++p) {
        for (int r = 0; r < kRounds; ++r) {
          pairs[c / 2].arrive_and_wait();
          const std::string tag = fmt::format("c{}-{}-{}", c, p, r);
          const auto [code, answer] =
              client.observe(installs[c - c % 2], p < 2 ? kInside : kOutside, tag);
          sent[c].push_back({tag, code});
          for (const auto& e :
               answer.is_object() ? answer.value("events", nlohmann::json()) : nlohmann::json())
            ++events[c][e.value("event_type", "")];
        }
        all.arrive_and_wait();
      }
    });
  for (auto& t : threads)
    t.join();

  EXPECT_EQ(std::set<std::int64_t>(installs.begin(), installs.end()).size(), installs.size());
  EXPECT_EQ(std::count(installs.begin(), installs.end(), 0), 0);
  for (int c = 0; c < kClients; ++c)
    for (const auto& s : sent[c])
      EXPECT_EQ(s.status, 201) << s.tag;
  for (int c = 0; c < kClients; c += 2)
    for (const auto& type : {"entry", "dwell", "exit"})
      EXPECT_LE(events[c][type] + events[c + 1][type], 1) << type << ", install " << installs[c];
  expectEveryAcceptedStored(fleet, sent);
  EXPECT_EQ(fleet.query("SELECT event_type, count(*), count(DISTINCT install_id) FROM events "
                        "JOIN observations ON observations.id = events.observation_id "
                        "GROUP BY event_type ORDER BY event_type"),
            fmt::format("dwell|{0}|{0}\nentry|{0}|{0}\nexit|{0}|{0}\n", kClients / 2));
}

INSTANTIATE_TEST_SUITE_P(Backends, FleetTest,
                         ::testing::Values(Backend{"SQLiteOneNode", false, 1},
                                           Backend{"PostgreSQLFourNodes", true, 4}),
                         [](const auto& test) { return std::string(test.param.name); });

// Four nodes on PostgreSQL, each client on its own install, sending until told to stop. One node
// is killed (kill -9) in the middle of the load, later PostgreSQL restarts. The killed node's
// clients get transport errors from then on, the others never do; the other nodes answer 2xx
// again after the restart without being restarted; every observation that got a 2xx is in the
// database.
TEST(FleetFaults, KilledNodeAndRestartedDatabaseLoseNothingAccepted) {
  Fleet fleet({"PostgreSQL", true, 4});
  ASSERT_TRUE(fleet.start());
  constexpr int kKilled = 3;
  std::atomic<int> epoch = 0;  // 1: the node is dead; 2: PostgreSQL is back
  std::atomic<int> acceptedCount = 0;
  std::atomic<bool> stop = false;
  std::vector<std::atomic<bool>> answersAfterRestart(fleet.nodes());
  std::vector<std::vector<Sent>> sent(kClients);
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; ++c)
    threads.emplace_back([&, c] {
      const int node = c % fleet.nodes();
      Client client(fleet.port(node));
      const auto [status, id] = client.post("/install", R"({"appKey": "demo"})");
      const std::int64_t install = accepted(status) ? id.value("id", std::int64_t{0}) : 0;
      for (int n = 0; !stop; ++n) {
        const int at = epoch;
        const std::string tag = fmt::format("c{}-{}", c, n);
        const int code = client.observe(install, n % 2 ? kInside : kOutside, tag).first;
        sent[c].push_back({tag, code, at});
        if (accepted(code))
          ++acceptedCount;
        if (accepted(code) && at == 2)
          answersAfterRestart[node] = true;
        if (!accepted(code))
          std::this_thread::sleep_for(10ms);  // no busy loop against a dead node
      }
    });
  const auto progress = [&](int more) {
    const int target = acceptedCount + more;
    return waitFor([&] { return acceptedCount >= target; }, 60s);
  };
  EXPECT_TRUE(progress(2 * kClients));
  fleet.node(kKilled).stop(SIGKILL, 0s);
  epoch = 1;
  EXPECT_TRUE(progress(2 * kClients));
  const bool restarted = fleet.postgres()->restart(500ms);
  epoch = 2;
  EXPECT_TRUE(waitFor(
      [&] {
        for (int n = 0; n < fleet.nodes(); ++n)
          if (n != kKilled && !answersAfterRestart[n])
            return false;
        return true;
      },
      60s))
      << "a node did not answer 2xx again after PostgreSQL restarted";
  stop = true;
  for (auto& t : threads)
    t.join();
  ASSERT_TRUE(restarted) << fleet.postgres()->error();

  expectEveryAcceptedStored(fleet, sent);
  int afterKill = 0;
  for (int c = 0; c < kClients; ++c)
    for (const auto& s : sent[c]) {
      if (c % fleet.nodes() != kKilled) {
        EXPECT_NE(s.status, 0) << "a living node dropped " << s.tag;
      } else if (s.epoch >= 1) {
        ++afterKill;
        EXPECT_EQ(s.status, 0) << "the killed node answered " << s.tag;
      }
    }
  EXPECT_GT(afterKill, 0);
}

}  // namespace
}  // namespace zonaris::test

#endif
