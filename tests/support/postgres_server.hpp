#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/process.hpp"
#include "support/scratch.hpp"

namespace zonaris::test {

/// A private PostgreSQL 15 server with PostGIS, for one test: a fresh cluster in a temporary
/// folder, made and run by an unprivileged user (the `postgres` system user when the test runs
/// as root), listening on a free port of 127.0.0.1 only, its unix sockets in the folder. It
/// holds one database, "zonaris", with the postgis extension, owned by the superuser
/// "zonaris" (no password: trust on 127.0.0.1). Stopped at once (immediate mode) and its
/// folder removed when the object goes, whatever the test did.
///
/// Every step is bounded in time. When something is missing or fails, `ok()` is false and
/// `error()` says what, naming the package to install when one is missing.
class PostgresServer {
 public:
  /// `settings` are extra server settings ("name=value"), after the ones the tests want by
  /// default: fsync off (a test's data need not survive a crash of the machine; it survives a
  /// crash of the server, since the kernel keeps what was written).
  explicit PostgresServer(std::vector<std::string> settings = {});
  ~PostgresServer();
  PostgresServer(const PostgresServer&) = delete;
  PostgresServer& operator=(const PostgresServer&) = delete;

  bool ok() const { return error_.empty(); }
  const std::string& error() const { return error_; }

  /// postgresql://zonaris@127.0.0.1:<port>/zonaris
  std::string url() const;
  int port() const { return port_; }

  /// Stops the server at once (clients see their connections drop) and starts it again on the
  /// same port and data; true when it accepts connections again. `down` is how long it stays
  /// stopped.
  bool restart(std::chrono::milliseconds down = std::chrono::milliseconds(0));

  /// Runs `sql` through psql in the database; its output unaligned, tuples only (one row a
  /// line, fields split by '|'), or nothing when psql fails (`error()` then says why). From one
  /// thread at a time, like `restart`.
  std::optional<std::string> query(const std::string& sql);

 private:
  bool start();
  void stop();
  bool waitUntilReady(std::chrono::seconds limit);
  /// `args` run as the server's user (directly when the test is not root).
  std::vector<std::string> asServerUser(std::vector<std::string> args) const;
  bool fail(std::string what);
  std::string log() const;  ///< the server's log since its latest start

  Scratch scratch_{"zonaris-pg"};
  std::vector<std::string> settings_;
  std::string user_;  ///< the system user running the server; empty: the test's own user
  int port_ = 0;
  int starts_ = 0;
  std::unique_ptr<Process> server_;
  std::string error_;
};

}  // namespace zonaris::test
