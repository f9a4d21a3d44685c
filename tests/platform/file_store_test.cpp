// The file-backed store: what survives a restart, a crash, or a damaged file.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "support/scratch.hpp"
#include "zonaris/platform/production.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::platform {
namespace {

constexpr const char* kKey = ZonarisUserDefaults::kInstallIdKey;

class FileStoreTest : public ::testing::Test {
 protected:
  test::Scratch scratch{"zonaris-store"};
  std::string dir = scratch.dir.string();
};

TEST_F(FileStoreTest, ValuesSurviveARestartTwoStoresKeepEachOthersKeysAndDamageReadsAsZero) {
  const std::string folder = dir + "/not/yet/there";
  EXPECT_EQ(FileStore(folder).getLong(kKey), 0) << "nothing stored yet, not even the folder";
  FileStore(folder).setLong(kKey, 42);
  FileStore restarted(folder), other(folder);
  EXPECT_EQ(restarted.getLong(kKey), 42);
  EXPECT_EQ(restarted.getLong("other"), 0);
  // Two stores over one folder, writing in turn: neither loses the other's key.
  other.setLong("a", 1);
  restarted.setLong("b", 2);
  EXPECT_EQ(FileStore(folder).getLong("a") + FileStore(folder).getLong("b"), 3);
  EXPECT_EQ(std::filesystem::directory_iterator(folder)->path().filename(), FileStore::kFileName)
      << "no temporary file is left behind";

  // A damaged file reads as zero, and a write repairs it.
  for (const std::string damaged :
       {"", R"({"installId": 4)", "\xff\xfe\x01{\"", "[42]", R"({"installId": "42"})",
        R"({"installId": 4.2})", R"({"installId": 18446744073709551615})"}) {
    std::ofstream(restarted.filePath(), std::ios::binary) << damaged;
    EXPECT_EQ(restarted.getLong(kKey), 0) << damaged;
    restarted.setLong(kKey, 7);
    EXPECT_EQ(FileStore(folder).getLong(kKey), 7);
  }
}

// A writer process is killed at varied points while it rewrites the id over and over. The store
// must then hold either the last id the writer confirmed or the one it was writing: never a
// mixture, never an unreadable file.
TEST_F(FileStoreTest, AWriterKilledMidWriteLeavesTheLastOrTheNextValue) {
  for (int round = 0; round < 12; ++round) {
    const std::int64_t base = (round + 1) * 1000000;
    int acks[2];
    ASSERT_EQ(::pipe(acks), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      FileStore store(dir);
      for (std::int64_t i = 1; i <= 5000; ++i) {
        store.setLong(kKey, base + i);
        if (::write(acks[1], ".", 1) != 1)
          ::_exit(1);
      }
      ::_exit(0);
    }
    ::close(acks[1]);
    // Let it confirm a few writes, then strike at a varied point of the next ones.
    char ack;
    std::int64_t confirmed = 0;
    while (confirmed < 1 + round % 4 && ::read(acks[0], &ack, 1) == 1)
      ++confirmed;
    for (int spin = 0; spin < round * 20; ++spin)
      std::this_thread::yield();
    ::kill(child, SIGKILL);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    while (::read(acks[0], &ack, 1) == 1)
      ++confirmed;
    ::close(acks[0]);
    const std::int64_t stored = FileStore(dir).getLong(kKey);
    EXPECT_TRUE(stored == base + confirmed || stored == base + confirmed + 1)
        << "round " << round << ": stored " << stored << ", confirmed " << base + confirmed;

    // A client started after the crash, as a new process would, finds an id and samples at
    // once: it never registers a second time.
    sim::SimulationOptions options;
    options.store = std::make_shared<FileStore>(dir);
    sim::Simulation restarted(options);
    auto client = Zonaris::initWithAppKey("demo-key", restarted.platform());
    client->start();
    EXPECT_EQ(client->mInstallId(), stored);
    EXPECT_TRUE(client->mUpdatingLocation()) << "round " << round << " registers again";
  }
}

}  // namespace
}  // namespace zonaris::platform
