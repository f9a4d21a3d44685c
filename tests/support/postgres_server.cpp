#include "support/postgres_server.hpp"

#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

namespace zonaris::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string kBin = "/usr/lib/postgresql/15/bin/";
const std::string kPostgis = "/usr/share/postgresql/15/extension/postgis.control";

/// A port of 127.0.0.1 free a moment ago (0 when none could be had).
int freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0)
    return 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    port = ntohs(address.sin_port);
  ::close(fd);
  return port;
}

/// The last lines of a log, for an error message.
std::string tail(const std::string& text, int lines = 8) {
  std::size_t at = text.size();
  while (lines-- > 0 && at > 0) {
    const std::size_t newline = text.rfind('\n', at - 1);
    at = newline == std::string::npos ? 0 : newline;
  }
  return text.substr(at);
}

}  // namespace

PostgresServer::PostgresServer(std::vector<std::string> settings) : settings_(std::move(settings)) {
  if (scratch_.dir.empty()) {
    fail("cannot make a temporary folder for PostgreSQL");
    return;
  }
  if (!fs::exists(kBin + "initdb") || !fs::exists(kBin + "postgres")) {
    fail("PostgreSQL 15 is not installed (no " + kBin +
         "initdb): scripts/install-deps.sh installs postgresql-15");
    return;
  }
  if (!fs::exists(kPostgis)) {
    fail("PostGIS for PostgreSQL 15 is not installed (no " + kPostgis +
         "): scripts/install-deps.sh installs postgresql-15-postgis-3");
    return;
  }
  fs::create_directory(scratch_.dir / "sockets");
  // PostgreSQL refuses to run as root: the tests then hand the cluster to the system user the
  // package made, or to one made here when there is none.
  if (::geteuid() == 0) {
    user_ = "postgres";
    if (!::getpwnam(user_.c_str())) {
      const Ran made = run({"useradd", "--system", "--no-create-home", "--home-dir", "/nonexistent",
                            "--shell", "/usr/sbin/nologin", user_},
                           scratch_, 30s, "useradd");
      if (made.status != 0 || !::getpwnam(user_.c_str())) {
        fail("cannot create the system user " + user_ + " to run PostgreSQL: " + made.err);
        return;
      }
    }
    const passwd* pw = ::getpwnam(user_.c_str());
    if (::chown(scratch_.dir.c_str(), pw->pw_uid, pw->pw_gid) != 0 ||
        ::chown(scratch_.path("sockets").c_str(), pw->pw_uid, pw->pw_gid) != 0) {
      fail("cannot give " + scratch_.dir.string() + " to " + user_);
      return;
    }
  }
  const Ran init = run(asServerUser({kBin + "initdb", "-D", scratch_.path("data"), "-U", "zonaris",
                                     "--auth=trust", "--encoding=UTF8", "--locale=C", "--no-sync"}),
                       scratch_, 120s, "initdb");
  if (init.status != 0) {
    fail("initdb failed: " + tail(init.err));
    return;
  }
  // The port was free when asked for; another program may take it before the server binds it.
  for (int attempt = 0; attempt < 3 && !server_; ++attempt) {
    port_ = freePort();
    if (!start()) {
      stop();
      if (attempt < 2)
        error_.clear();
    }
  }
  if (!ok())
    return;
  const std::string admin = "postgresql://zonaris@127.0.0.1:" + std::to_string(port_) + "/postgres";
  const Ran created = run({kBin + "psql", admin, "-X", "-q", "-c", "CREATE DATABASE zonaris"},
                          scratch_, 60s, "createdb");
  if (created.status != 0) {
    fail("CREATE DATABASE failed: " + created.err);
    return;
  }
  query("CREATE EXTENSION postgis");
}

PostgresServer::~PostgresServer() {
  stop();
}

std::string PostgresServer::url() const {
  return "postgresql://zonaris@127.0.0.1:" + std::to_string(port_) + "/zonaris";
}

bool PostgresServer::restart(std::chrono::milliseconds down) {
  stop();
  std::this_thread::sleep_for(down);
  return start();
}

std::optional<std::string> PostgresServer::query(const std::string& sql) {
  const Ran ran =
      run({kBin + "psql", url(), "-X", "-A", "-t", "-q", "-v", "ON_ERROR_STOP=1", "-c", sql},
          scratch_, 60s, "psql");
  if (ran.status != 0) {
    fail("psql failed on \"" + sql + "\": " + ran.err);
    return std::nullopt;
  }
  return ran.out;
}

bool PostgresServer::start() {
  ++starts_;
  std::vector<std::string> args = {kBin + "postgres",
                                   "-D",
                                   scratch_.path("data"),
                                   "-p",
                                   std::to_string(port_),
                                   "-c",
                                   "listen_addresses=127.0.0.1",
                                   "-c",
                                   "unix_socket_directories=" + scratch_.path("sockets"),
                                   "-c",
                                   "fsync=off"};
  for (const auto& setting : settings_) {
    args.push_back("-c");
    args.push_back(setting);
  }
  server_ =
      std::make_unique<Process>(asServerUser(std::move(args)), scratch_.path("server.out"), log());
  return waitUntilReady(30s);
}

void PostgresServer::stop() {
  if (!server_)
    return;
  run(asServerUser({kBin + "pg_ctl", "stop", "-D", scratch_.path("data"), "-m", "immediate", "-w",
                    "-t", "20"}),
      scratch_, 30s, "pg_ctl");
  // Whatever pg_ctl managed, the server and every backend it started are gone after this.
  server_->stop(0, 10s);
  server_.reset();
}

bool PostgresServer::waitUntilReady(std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    const Ran ready =
        run({kBin + "pg_isready", "-q", "-h", "127.0.0.1", "-p", std::to_string(port_), "-t", "1"},
            scratch_, 10s, "pg_isready");
    if (ready.status == 0)
      return true;
    // A server that could not start (its port taken, say) has said so and exited.
    if (slurp(log()).find("database system is shut down") != std::string::npos)
      break;
    std::this_thread::sleep_for(100ms);
  }
  return fail("PostgreSQL did not accept connections on 127.0.0.1:" + std::to_string(port_) +
              " (within " + std::to_string(limit.count()) +
              " s); its log ends: " + tail(slurp(log())));
}

std::string PostgresServer::log() const {
  return scratch_.path("server-" + std::to_string(starts_) + ".log");
}

std::vector<std::string> PostgresServer::asServerUser(std::vector<std::string> args) const {
  if (user_.empty())
    return args;
  // setpriv and env exec what follows: the server keeps the pid (and process group) the test
  // started. env -C: the test's working folder may be closed to the server's user.
  const passwd* pw = ::getpwnam(user_.c_str());
  std::vector<std::string> wrapped = {"setpriv",
                                      "--reuid=" + std::to_string(pw->pw_uid),
                                      "--regid=" + std::to_string(pw->pw_gid),
                                      "--clear-groups",
                                      "env",
                                      "-C",
                                      scratch_.dir.string()};
  wrapped.insert(wrapped.end(), args.begin(), args.end());
  return wrapped;
}

bool PostgresServer::fail(std::string what) {
  if (error_.empty())
    error_ = std::move(what);
  return false;
}

}  // namespace zonaris::test
