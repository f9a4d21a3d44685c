// zonaris-service: serves the four exchanges of the client on 127.0.0.1 from a fences file,
// until SIGINT or SIGTERM.
#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "common/confirm_options.hpp"
#include "zonaris/service/postgres_store.hpp"
#include "zonaris/service/reference_service.hpp"

namespace {

constexpr int kUsageOrInputError = 2;

int fail(const std::string& line) {
  std::cerr << "zonaris-service: " << line << std::endl;
  return kUsageOrInputError;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Reference service for the Zonaris client: install registration, fence query, "
      "observation reports with event confirmation, error reports."};
  zonaris::service_tool::ServiceOptions options;
  int port = 8080;
  app.add_option("--fences", options.fencesFile, "JSON array of fences to serve")->required();
  app.add_option("--db", options.dbPath,
                 "SQLite database for the service's state, or a postgresql:// URL of a "
                 "PostgreSQL database with PostGIS that several services may share")
      ->capture_default_str();
  std::size_t connections = zonaris::service_tool::kDefaultPostgresConnections;
  app.add_option("--db-connections", connections,
                 "PostgreSQL: the connections this service keeps to the database at most")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  app.add_option("--port", port, "TCP port on 127.0.0.1; 0 picks a free one")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  app.add_option("--max-fences", options.maxFences,
                 "the fence query answers nearest first and at most this many fences; 0 answers "
                 "every fence within the radius, in file order")
      ->capture_default_str();
  zonaris::service_tool::addConfirmOptions(app, options.confirm, options.robust);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return fail(e.what());
  }

  if (zonaris::service_tool::isPostgresUrl(options.dbPath)) {
    options.openStore = [url = options.dbPath, connections](const auto& fences,
                                                            std::string& error) {
      return zonaris::service_tool::openPostgresStore(url, fences, error, connections);
    };
  }

  // Block the stop signals before any thread starts, so that every thread inherits the mask and
  // the main thread alone takes them, synchronously, with sigwait.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  zonaris::service_tool::ReferenceService service(std::move(options));
  if (!service.ok())
    return fail(service.error());
  const int bound = service.start(port);
  if (bound < 0)
    return fail(service.error());
  std::cout << fmt::format("zonaris-service listening on http://127.0.0.1:{}", bound) << std::endl;

  int received = 0;
  sigwait(&stopSignals, &received);
  service.stop();
  return 0;
}
