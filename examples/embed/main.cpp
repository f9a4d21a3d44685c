// Embeds Zonaris: prints what the client reports, runs a moment, exits. Usage: embed [BASE_URL]
#include <chrono>
#include <cstdio>
#include <thread>

#include <zonaris/platform/production.hpp>
#include <zonaris/zonaris.hpp>

using Name = std::optional<std::string>;
struct Printer : zonaris::ZonarisDelegate {
  static const char* text(const Name& n) { return n ? n->c_str() : "(null)"; }
  void eventEnterCallback(const Name& n) override { std::printf("entered %s\n", text(n)); }
  void eventExitCallback(const Name& n) override { std::printf("left %s\n", text(n)); }
  void actionBasicCallback(std::shared_ptr<const zonaris::ZonarisActionBasic> a) override {
    std::printf("message: %s - %s\n", a->getTitle().c_str(), a->getBody().c_str());
  }
};
int main(int argc, char** argv) {
  zonaris::platform::DefaultPlatformOptions options;
  if (argc > 1)
    options.baseUrl = argv[1];  // for example a local zonaris-service
  auto delegate = std::make_shared<Printer>();
  zonaris::platform::ProductionPlatform production(options);
  auto client = zonaris::Zonaris::initWithAppKey("demo", production.platform());
  client->setDelegate(delegate);
  client->start();
  std::this_thread::sleep_for(std::chrono::seconds(2));
  client->stop();
  client.reset();
  const bool joined = production.shutdown();  // frees the client, joins every thread
  std::printf("embed: client started and stopped%s\n", joined ? ", threads joined" : "");
}
