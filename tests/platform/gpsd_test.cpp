// The gpsd location service against a fake gpsd on 127.0.0.1 that speaks gpsd's JSON protocol:
// what a TPV report becomes, how the settings map onto ?WATCH, and reconnection. Real threads
// and sockets, so the tests wait on condition variables with bounded time-outs.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "support/silent_listener.hpp"
#include "zonaris/platform/gpsd.hpp"
#include "zonaris/platform/production.hpp"

namespace zonaris::platform {
namespace {

using namespace std::chrono_literals;
constexpr auto kWait = 10s;

// Entries other threads add; a reader waits (at most kWait) for the ones it needs.
template <class T>
class Awaited {
 public:
  void add(T entry) {
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
    changed_.notify_all();
  }
  // The entries that `keep` accepts (all without it), once there are `count` of them; what
  // there is after kWait otherwise.
  std::vector<T> wait(std::size_t count, std::function<bool(const T&)> keep = nullptr) {
    std::unique_lock lock(mutex_);
    std::vector<T> found;
    changed_.wait_for(lock, kWait, [&] {
      found.clear();
      std::copy_if(entries_.begin(), entries_.end(), std::back_inserter(found),
                   [&](const T& e) { return !keep || keep(e); });
      return found.size() >= count;
    });
    return found;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<T> entries_;
};

// A gpsd on 127.0.0.1: greets each client with a VERSION line, records what clients send
// ("connect", each ?WATCH command, "close"), and answers a watch request with `reports`. With
// `dropClients` it closes each connection right after the greeting.
class FakeGpsd {
 public:
  explicit FakeGpsd(std::vector<std::string> reports, int port = 0, bool dropClients = false)
      : reports_(std::move(reports)), dropClients_(dropClients), listener_(false, port) {
    if (listener_.port() == 0)
      ADD_FAILURE() << "cannot listen on 127.0.0.1:" << port;
    ::pipe(stopPipe_);
    thread_ = std::thread([this] { serve(); });
  }
  // Drops every connection and stops listening, as a gpsd that was killed.
  ~FakeGpsd() {
    ::write(stopPipe_[1], "x", 1);
    thread_.join();
    for (int fd : stopPipe_)
      ::close(fd);
  }
  int port() const { return listener_.port(); }

  // The transcript once it has `count` entries (what it has after kWait otherwise).
  std::vector<std::string> transcript(std::size_t count) { return transcript_.wait(count); }

 private:
  void note(std::string entry) { transcript_.add(std::move(entry)); }
  static void send(int fd, const std::string& line) {
    const std::string text = line + "\r\n";
    ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
  }

  // One client at a time: the manager never holds two connections.
  void serve() {
    int client = -1;
    std::string pending;
    for (;;) {
      pollfd fds[] = {{stopPipe_[0], POLLIN, 0}, {listener_.fd(), POLLIN, 0}, {client, POLLIN, 0}};
      ::poll(fds, 3, -1);  // a client of -1 is not polled
      if (fds[0].revents)
        break;
      if (fds[1].revents & POLLIN) {
        client = ::accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC);
        note("connect");
        send(client, R"({"class":"VERSION","release":"3.22","proto_major":3,"proto_minor":14})");
        if (dropClients_)
          client = (::close(client), -1);
        continue;
      }
      char buffer[512];
      const auto n = fds[2].revents ? ::recv(client, buffer, sizeof buffer, 0) : 1;
      if (n <= 0) {
        note("close");
        client = (::close(client), -1);
      } else if (fds[2].revents) {
        pending.append(buffer, static_cast<std::size_t>(n));
      }
      for (auto end = pending.find(';'); end != std::string::npos; end = pending.find(';')) {
        const bool enable = pending.substr(0, end).find(R"("enable":true)") != std::string::npos;
        pending.erase(0, end + 1);
        note(enable ? "watch" : "unwatch");
        for (const auto& report : enable ? reports_ : std::vector<std::string>{})
          send(client, report);
      }
    }
    if (client >= 0)
      ::close(client);
  }

  std::vector<std::string> reports_;
  bool dropClients_ = false;
  test::SilentListener listener_;
  int stopPipe_[2] = {-1, -1};
  std::thread thread_;
  Awaited<std::string> transcript_;
};

// The fixes the manager delivers and its developer-mode lines.
class Recorder final : public LocationManagerDelegate, public Logger {
 public:
  void didUpdateLocations(const std::vector<Location>& locations) override {
    for (const auto& l : locations)
      fixes.add(l);
  }
  void didRangeBeacons(const std::vector<Beacon>&, const BeaconRegion&) override {}
  void log(std::string_view line) override { lines_.add(std::string(line)); }
  // The lines containing `part`, once there are `count` of them.
  std::vector<std::string> lines(const std::string& part, std::size_t count) {
    return lines_.wait(count, [&](const std::string& l) { return l.find(part) != l.npos; });
  }
  Awaited<Location> fixes;

 private:
  Awaited<std::string> lines_;
};

std::string isoTime(TimePoint time) {
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.000Z", std::chrono::floor<std::chrono::seconds>(time));
}

// A started manager in the client's idle setting.
struct Fixture {
  explicit Fixture(int port, std::chrono::milliseconds connectTimeout = 10s) {
    manager = std::make_shared<GpsdLocationManager>(dispatcher, recorder,
                                                    GpsdOptions{.host = "127.0.0.1",
                                                                .port = std::to_string(port),
                                                                .retryMin = 20ms,
                                                                .connectTimeout = connectTimeout});
    manager->setDevMode(true);
    manager->setDelegate(recorder);
    arm(false);
    manager->startUpdatingLocation();
  }
  // The client's setting while a sample is armed, or its idle one.
  void arm(bool armed = true) {
    manager->setDesiredAccuracy(armed ? Accuracy::BestForNavigation : Accuracy::ThreeKilometers);
    manager->setDistanceFilter(armed ? kDistanceFilterNone : 99999.0);
  }
  ~Fixture() {
    manager->shutdown();
    dispatcher->shutdown();
  }
  std::shared_ptr<ThreadDispatcher> dispatcher = std::make_shared<ThreadDispatcher>();
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::shared_ptr<GpsdLocationManager> manager;
};

// Every kind of report that must not become a fix, then three that must; the last one
// delivered shows that everything before it was read. The receiver's time is years before the
// system clock's: freshness is judged by arrival, and only a report older than the last fix
// delivered is refused. Reports do not reach the status listener.
TEST(GpsdLocationManager, DeliversOnlyTpvReportsWithAFixReadAfterTheArming) {
  const TimePoint later = std::chrono::sys_days(std::chrono::year(2019) / 3 / 14) + 9h;
  const std::string t = isoTime(later);
  const std::string old = isoTime(later - 3600s);
  FakeGpsd gpsd({
      R"({"class":"TPV","mode":1,"time":")" + t + R"(","lat":48.1,"lon":11.5})",  // no fix
      R"({"class":"TPV","time":")" + t + R"(","lat":48.1,"lon":11.5})",           // no mode
      R"({"class":"TPV","mode":3,"time":")" + t + R"(","lon":11.5,"eph":5})",     // lat NaN
      R"({"class":"TPV","mode":3,"lat":48.1,"lon":11.5})",                        // no time
      R"({"class":"SKY","time":")" + t + R"(","hdop":1.2})",
      R"(this is not JSON)",
      R"({"class":"TPV","mode":2,"time":")" + t +
          R"(","lat":48.1,"lon":11.5,"speed":1.5,"eph":7.5,"epx":3.0,"epy":9.0})",
      R"({"class":"TPV","mode":3,"time":")" + old + R"(","lat":48.1,"lon":11.5})",  // older
      R"({"class":"TPV","mode":3,"time":")" + t + R"(","lat":48.2,"lon":11.6,"epx":3,"epy":9})",
      R"({"class":"TPV","mode":3,"time":")" + t + R"(","lat":48.3,"lon":11.7,"speed":0.0})",
  });
  Fixture f(gpsd.port());
  EXPECT_EQ(gpsd.transcript(2), (std::vector<std::string>{"connect", "unwatch"}));
  EXPECT_FALSE(f.manager->watching());
  std::atomic<int> listened{0};
  f.manager->setStatusListener([&](const GpsdStatus&) { ++listened; });
  f.arm();
  using Fix = std::tuple<double, double, double, double>;  // latitude, longitude, speed, accuracy
  std::vector<Fix> fixes;
  for (const auto& fix : f.recorder->fixes.wait(3)) {
    fixes.emplace_back(fix.latitude, fix.longitude, fix.speed, fix.horizontalAccuracy);
    EXPECT_EQ(fix.timestamp, later);
  }
  EXPECT_EQ(fixes, (std::vector<Fix>{
                       {48.1, 11.5, 1.5, 7.5}, {48.2, 11.6, -1.0, 9.0}, {48.3, 11.7, 0.0, -1.0}}));
  EXPECT_EQ(f.manager->status().reports, 8u);
  EXPECT_EQ(f.recorder->lines("dropped", 5),
            (std::vector<std::string>{
                "gpsd: report dropped: no fix (mode 1)", "gpsd: report dropped: no fix (mode 0)",
                "gpsd: report dropped: no position", "gpsd: report dropped: no time",
                "gpsd: report dropped: its time 2019-03-14T08:00:00Z is older than the last fix "
                "delivered (2019-03-14T09:00:00Z)"}));
  f.manager->setStatusListener(nullptr);
  EXPECT_EQ(listened.load(), 0);
}

// Idle means not watching, armed means watching; after gpsd was killed and started again the
// manager reconnects by itself, still armed, and delivers; a stop closes the connection. The
// same with descriptor numbers beyond FD_SETSIZE (select-based waits abort on them), and with
// no descriptor left when the manager is made (so it has no wake-up descriptor).
TEST(GpsdLocationManager, MapsSettingsOntoWatchAndReconnectsStillArmedAfterGpsdRestarts) {
  const std::string report = R"({"class":"TPV","mode":3,"time":")" +
                             isoTime(std::chrono::system_clock::now() + 3600s) +
                             R"(","lat":48.1,"lon":11.5,"eph":4})";
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit roomy = saved;
  roomy.rlim_cur = std::max<rlim_t>(saved.rlim_cur, 1100);
  const bool canBeRoomy =
      roomy.rlim_cur <= saved.rlim_max && ::setrlimit(RLIMIT_NOFILE, &roomy) == 0;
  for (const char* mode : {"plain", "beyond FD_SETSIZE", "no wake-up descriptor"}) {
    SCOPED_TRACE(mode);
    if (!canBeRoomy && mode[0] != 'p')
      continue;
    auto gpsd = std::make_unique<FakeGpsd>(std::vector<std::string>{report});
    const int port = gpsd->port();
    std::vector<int> held{::open("/dev/null", O_RDONLY | O_CLOEXEC)};
    while (mode[0] == 'b' && held.back() >= 0 && held.back() < FD_SETSIZE - 1)
      held.push_back(::fcntl(held.front(), F_DUPFD_CLOEXEC, 0));
    ASSERT_GE(held.back(), 0);
    rlimit none = roomy;
    none.rlim_cur = static_cast<rlim_t>(held.back() + 1);
    if (mode[0] == 'n')
      ::setrlimit(RLIMIT_NOFILE, &none);
    auto f = std::make_unique<Fixture>(port);
    if (canBeRoomy)
      ::setrlimit(RLIMIT_NOFILE, &roomy);
    EXPECT_EQ(gpsd->transcript(2), (std::vector<std::string>{"connect", "unwatch"}));
    f->arm();
    EXPECT_EQ(f->recorder->fixes.wait(1).size(), 1u);
    EXPECT_EQ(gpsd->transcript(3), (std::vector<std::string>{"connect", "unwatch", "watch"}));

    gpsd.reset();  // killed
    gpsd = std::make_unique<FakeGpsd>(std::vector<std::string>{report}, port);
    EXPECT_EQ(f->recorder->fixes.wait(2).size(), 2u);
    EXPECT_EQ(gpsd->transcript(2), (std::vector<std::string>{"connect", "watch"}));
    EXPECT_EQ(f->manager->status().lostConnections, 1u);

    f->arm(false);
    EXPECT_EQ(gpsd->transcript(3).back(), "unwatch");
    f->manager->stopUpdatingLocation();
    EXPECT_EQ(gpsd->transcript(4),
              (std::vector<std::string>{"connect", "watch", "unwatch", "close"}));
    EXPECT_FALSE(f->manager->status().connected);
    f.reset();
    for (int fd : held)
      ::close(fd);
  }
  ::setrlimit(RLIMIT_NOFILE, &saved);
}

// A gpsd that never answers a connection and one that drops every connection: each attempt
// ends within the connect time limit, and the waits between attempts keep growing because no
// fix ever came.
TEST(GpsdLocationManager, RetriesAFaultyGpsdEverMoreSlowly) {
  test::SilentListener full(true);
  FakeGpsd dropping({}, 0, true);
  const std::pair<int, std::string> table[] = {
      {full.port(), "(Connection timed out); retrying in "},
      {dropping.port(), "); reconnecting in "}};
  for (const auto& [port, reason] : table) {
    Fixture f(port, 50ms);
    std::vector<std::string> waits;
    for (const auto& line : f.recorder->lines(reason, 3))
      waits.push_back(line.substr(line.find(reason) + reason.size()));
    waits.resize(3);
    EXPECT_EQ(waits, (std::vector<std::string>{"0.02 s", "0.04 s", "0.08 s"})) << reason;
  }
}

TEST(GpsdLocationManager, ReadsGpsdAddresses) {
  const std::pair<const char*, const char*> good[] = {{"localhost:2947", "localhost:2947"},
                                                      {"10.0.0.7", "10.0.0.7:2947"},
                                                      {":3000", "localhost:3000"},
                                                      {"[::1]:3000", "::1:3000"},
                                                      {"[fe80::1]", "fe80::1:2947"}};
  for (const auto& [text, expected] : good) {
    const auto options = parseGpsdAddress(text);
    ASSERT_TRUE(options) << text;
    EXPECT_EQ(options->host + ":" + options->port, expected);
  }
  for (const char* bad :
       {"", "host:", "host:0", "host:65536", "host:12ab", "::1:2947", "[::1", "[::1]x", "a b:1"})
    EXPECT_FALSE(parseGpsdAddress(bad)) << bad;
}

}  // namespace
}  // namespace zonaris::platform
