// The file-backed store: what survives a restart, a crash, or a damaged file.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <thread>

#include "zonaris/platform/production.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::platform {
namespace {

constexpr const char* kKey = ZonarisUserDefaults::kInstallIdKey;

struct TempDir {
  std::string path = std::filesystem::temp_directory_path() / "zonaris-store-XXXXXX";
  TempDir() { EXPECT_TRUE(::mkdtemp(path.data())); }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

TEST(FileStore, ValuesSurviveARestartAndTwoStoresKeepEachOthersKeys) {
  TempDir dir;
  const std::string folder = dir.path + "/not/yet/there";
  {
    FileStore store(folder);
    EXPECT_EQ(store.getLong(kKey), 0) << "nothing stored yet, not even the folder";
    store.setLong(kKey, 42);
    store.setLong("min", std::numeric_limits<std::int64_t>::min());
  }
  FileStore restarted(folder);
  EXPECT_EQ(restarted.getLong(kKey), 42);
  EXPECT_EQ(restarted.getLong("min"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(restarted.getLong("other"), 0);

  // Two stores over one folder, writing in turn: neither loses the other's key.
  FileStore other(folder);
  restarted.setLong(kKey, 0);
  other.setLong("a", 1);
  restarted.setLong("b", 2);
  FileStore third(folder);
  EXPECT_EQ(third.getLong("a") + third.getLong("b") + third.getLong(kKey), 3);
  EXPECT_EQ(std::filesystem::directory_iterator(folder)->path().filename(), FileStore::kFileName)
      << "no temporary file is left behind";
}

struct DamagedFile {
  const char* name;
  std::string content;
};

class FileStoreOverADamagedFile : public ::testing::TestWithParam<DamagedFile> {};

TEST_P(FileStoreOverADamagedFile, ReadsZeroAndAWriteRepairsIt) {
  TempDir dir;
  FileStore store(dir.path);
  std::ofstream(store.filePath(), std::ios::binary) << GetParam().content;
  EXPECT_EQ(store.getLong(kKey), 0);
  store.setLong(kKey, 7);
  EXPECT_EQ(FileStore(dir.path).getLong(kKey), 7);
}

INSTANTIATE_TEST_SUITE_P(
    Contents, FileStoreOverADamagedFile,
    ::testing::Values(DamagedFile{"empty", ""}, DamagedFile{"truncated", R"({"installId": 4)"},
                      DamagedFile{"binary", std::string("\0\xff\xfe{\"", 5)},
                      DamagedFile{"array", "[42]"}, DamagedFile{"text", R"({"installId": "42"})"},
                      DamagedFile{"fraction", R"({"installId": 4.2})"},
                      DamagedFile{"over_64_bits", R"({"installId": 18446744073709551615})"},
                      DamagedFile{"huge_file", R"({"installId": 42, "pad": ")" +
                                                   std::string(200000, 'x') + "\"}"}),
    [](const auto& info) { return std::string(info.param.name); });

// A writer process is killed at varied points while it rewrites the id over and over. The store
// must then hold either the last id the writer confirmed or the one it was writing: never a
// mixture, never an unreadable file.
TEST(FileStore, AWriterKilledMidWriteLeavesTheLastOrTheNextValue) {
  TempDir dir;
  constexpr int kRounds = 12;
  constexpr std::int64_t kIdsPerRound = 5000;
  for (int round = 0; round < kRounds; ++round) {
    const std::int64_t base = (round + 1) * 1000000;
    int acks[2];
    ASSERT_EQ(::pipe(acks), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::close(acks[0]);
      FileStore store(dir.path);
      for (std::int64_t i = 1; i <= kIdsPerRound; ++i) {
        store.setLong(kKey, base + i);
        const char ack = '.';
        if (::write(acks[1], &ack, 1) != 1)
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
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    while (::read(acks[0], &ack, 1) == 1)
      ++confirmed;
    ::close(acks[0]);

    const std::int64_t stored = FileStore(dir.path).getLong(kKey);
    EXPECT_TRUE(stored == base + confirmed || stored == base + confirmed + 1)
        << "round " << round << ": stored " << stored << ", confirmed " << base + confirmed;
  }
}

TEST(FileStore, AClientStartedAgainOverTheSameFolderFindsItsIdAndSamplesAtOnce) {
  TempDir dir;
  {
    auto store = std::make_shared<FileStore>(dir.path);
    sim::SimulationOptions options;
    options.store = store;
    sim::Simulation simulation(options);
    auto client = Zonaris::initWithAppKey("demo-key", simulation.platform());
    ASSERT_TRUE(client);
    ZonarisUserDefaults::setInstallId(*store, 42);
  }
  sim::SimulationOptions options;
  options.store = std::make_shared<FileStore>(dir.path);
  sim::Simulation simulation(options);
  auto client = Zonaris::initWithAppKey("demo-key", simulation.platform());
  ASSERT_TRUE(client);
  client->start();
  EXPECT_EQ(client->mInstallId(), 42);
  EXPECT_TRUE(client->mUpdatingLocation()) << "a known install samples without registering";
}

}  // namespace
}  // namespace zonaris::platform
