// The location service over gpsd: one thread holds the libgps connection, turns the client's
// settings into ?WATCH requests and hands TPV reports with a fix to the main queue.
#include <fcntl.h>
#include <gps.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <mutex>
#include <thread>

#include <fmt/format.h>

#include "zonaris/platform/gpsd.hpp"

#if GPSD_API_MAJOR_VERSION < 9
#error "gpsd 3.19 or later is needed: the fix time became a timespec in libgps API 9"
#endif

namespace zonaris::platform {

std::optional<GpsdOptions> parseGpsdAddress(std::string_view text) {
  std::string_view host = text;
  std::string_view port;
  if (!text.empty() && text.front() == '[') {
    const auto close = text.find(']');
    if (close == std::string_view::npos)
      return std::nullopt;
    host = text.substr(1, close - 1);
    const auto rest = text.substr(close + 1);
    if (!rest.empty() && (rest.front() != ':' || rest.size() == 1))
      return std::nullopt;
    port = rest.empty() ? rest : rest.substr(1);
  } else if (const auto colon = text.find(':'); colon != std::string_view::npos) {
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
    if (port.empty())
      return std::nullopt;
  }
  if (text.empty() || host.find_first_of(" /[]") != std::string_view::npos)
    return std::nullopt;
  GpsdOptions options;
  if (!port.empty()) {
    unsigned number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (error != std::errc{} || end != port.data() + port.size() || number < 1 || number > 65535)
      return std::nullopt;
    options.port = std::string(port);
  }
  if (!host.empty())
    options.host = std::string(host);
  return options;
}

namespace {

using Listener = std::function<void(const GpsdStatus&)>;

// How much of each report line is kept to tell its class: gpsd writes "class" first.
constexpr int kMessageHead = 256;

TimePoint toTimePoint(const timespec& time) {
  const auto since = std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  return TimePoint(std::chrono::duration_cast<TimePoint::duration>(since));
}

// The fix a TPV report stands for, or nothing when it has none worth delivering.
std::optional<Location> fixFromReport(const gps_fix_t& fix, TimePoint armedAt) {
  if (fix.mode < MODE_2D || !std::isfinite(fix.latitude) || !std::isfinite(fix.longitude))
    return std::nullopt;
  if (fix.time.tv_sec == 0 && fix.time.tv_nsec == 0)
    return std::nullopt;
  Location location;
  location.timestamp = toTimePoint(fix.time);
  if (location.timestamp < armedAt)
    return std::nullopt;
  location.latitude = fix.latitude;
  location.longitude = fix.longitude;
  location.speed = std::isfinite(fix.speed) && fix.speed >= 0 ? fix.speed : -1.0;
  double accuracy = -1.0;
  if (std::isfinite(fix.eph) && fix.eph >= 0) {
    accuracy = fix.eph;
  } else {
    for (double axis : {fix.epx, fix.epy}) {
      if (std::isfinite(axis) && axis >= 0)
        accuracy = std::max(accuracy, axis);
    }
  }
  location.horizontalAccuracy = accuracy;
  return location;
}

std::string secondsText(std::chrono::milliseconds wait) {
  return fmt::format("{:g} s", std::chrono::duration<double>(wait).count());
}

}  // namespace

struct GpsdLocationManager::State : std::enable_shared_from_this<State> {
  State(std::shared_ptr<Dispatcher> d, std::shared_ptr<Logger> l, GpsdOptions o)
      : dispatcher(std::move(d)), logger(std::move(l)), options(std::move(o)) {
    wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  }
  ~State() {
    if (wakeFd >= 0)
      ::close(wakeFd);
  }

  const std::shared_ptr<Dispatcher> dispatcher;
  const std::shared_ptr<Logger> logger;
  const GpsdOptions options;
  int wakeFd = -1;
  std::atomic<bool> devMode{false};
  std::atomic<bool> closed{false};

  mutable std::mutex mutex;
  std::weak_ptr<LocationManagerDelegate> delegate;
  bool started = false;
  Accuracy accuracy = Accuracy::BestForNavigation;
  double distanceFilter = kDistanceFilterNone;
  TimePoint armedAt{};
  GpsdStatus status;
  std::shared_ptr<const Listener> listener;

  std::mutex threadMutex;
  std::thread thread;

  bool wantsWatch() const {
    return started && accuracy == Accuracy::BestForNavigation && !(distanceFilter > 0);
  }

  void wake() const {
    const std::uint64_t one = 1;
    if (wakeFd >= 0) [[maybe_unused]]
      auto written = ::write(wakeFd, &one, sizeof one);
  }

  template <class Change>
  void change(Change&& apply) {
    {
      std::lock_guard lock(mutex);
      const bool before = wantsWatch();
      apply();
      if (!before && wantsWatch())
        armedAt = std::chrono::system_clock::now();
    }
    wake();
  }

  void log(const std::string& line) const {
    if (devMode.load())
      logger->log(line);
  }

  std::string address() const { return options.host + ":" + options.port; }

  // Updates the counters and tells the listener.
  template <class Update>
  void report(Update&& update) {
    GpsdStatus copy;
    std::shared_ptr<const Listener> call;
    {
      std::lock_guard lock(mutex);
      update(status);
      copy = status;
      call = listener;
    }
    if (call)
      (*call)(copy);
  }

  // Sleeps until `fd` (if any) is readable, the manager is woken, or `wait` passed (forever
  // when negative).
  void sleep(int fd, std::chrono::milliseconds wait) const {
    pollfd fds[2] = {{wakeFd, POLLIN, 0}, {fd, POLLIN, 0}};
    const int timeout = wait.count() < 0 ? -1 : static_cast<int>(wait.count());
    if (::poll(fds, fd >= 0 ? 2 : 1, timeout) > 0 && (fds[0].revents & POLLIN)) {
      std::uint64_t count = 0;
      [[maybe_unused]] auto read = ::read(wakeFd, &count, sizeof count);
    }
  }

  void deliver(const Location& fix) {
    std::weak_ptr<LocationManagerDelegate> to;
    {
      std::lock_guard lock(mutex);
      to = delegate;
      ++status.delivered;
    }
    std::weak_ptr<State> self = weak_from_this();
    dispatcher->mainAfter(Duration::zero(), [self, to, fix] {
      auto state = self.lock();
      if (!state || state->closed.load())
        return;
      if (auto d = to.lock())
        d->didUpdateLocations({fix});
    });
  }

  void run();
};

void GpsdLocationManager::State::run() {
  gps_data_t gps{};
  bool open = false;
  std::optional<bool> told;  // what gpsd was last asked: watching or not
  auto retry = options.retryMin;

  auto closeConnection = [&] {
    if (open)
      gps_close(&gps);
    open = false;
    told.reset();
  };
  // Settings changes wake the thread, but only a stop or a shutdown cuts the wait short.
  auto waitAndGrow = [&] {
    const auto until = std::chrono::steady_clock::now() + retry;
    for (;;) {
      {
        std::lock_guard lock(mutex);
        if (closed.load() || !started)
          break;
      }
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
      if (left.count() <= 0)
        break;
      sleep(-1, left);
    }
    retry = std::min(retry * 2, options.retryMax);
  };
  auto lose = [&](const std::string& why) {
    closeConnection();
    log(fmt::format("gpsd: connection to {} lost ({}); reconnecting in {}", address(), why,
                    secondsText(retry)));
    report([&](GpsdStatus& s) {
      s.connected = false;
      ++s.lostConnections;
      s.lastError = why;
    });
    waitAndGrow();
  };

  for (;;) {
    bool wanted = false;
    bool wants = false;
    TimePoint since;
    {
      std::lock_guard lock(mutex);
      if (closed.load())
        break;
      wanted = started;
      wants = wantsWatch();
      since = armedAt;
    }
    if (!wanted) {
      if (open) {
        report([](GpsdStatus& s) { s.connected = false; });
        closeConnection();
      }
      sleep(-1, std::chrono::milliseconds(-1));
      continue;
    }

    if (!open) {
      errno = 0;
      if (gps_open(options.host.c_str(), options.port.c_str(), &gps) != 0) {
        const std::string why = gps_errstr(errno);
        log(fmt::format("gpsd: cannot connect to {} ({}); retrying in {}", address(), why,
                        secondsText(retry)));
        report([&](GpsdStatus& s) {
          ++s.failedAttempts;
          s.lastError = why;
        });
        waitAndGrow();
        continue;
      }
      open = true;
      retry = options.retryMin;
      // Reads must never block the thread: a half-received line waits in poll() instead.
      const int flags = ::fcntl(gps.gps_fd, F_GETFL);
      ::fcntl(gps.gps_fd, F_SETFL, flags | O_NONBLOCK);
      log(fmt::format("gpsd: connected to {}", address()));
      report([](GpsdStatus& s) {
        s.connected = true;
        ++s.connections;
      });
    }

    if (told != wants) {
      if (gps_stream(&gps, wants ? WATCH_ENABLE | WATCH_JSON : WATCH_DISABLE, nullptr) != 0) {
        lose("cannot send the watch request");
        continue;
      }
      told = wants;
    }

    bool broken = false;
    while (gps_waiting(&gps, 0)) {
      char message[kMessageHead] = {};
      const int length = gps_read(&gps, message, sizeof message);
      if (length < 0) {
        broken = true;
        break;
      }
      if (length == 0)
        break;  // a partial line: the rest comes through poll()
      if (std::string_view(message).find("\"class\":\"TPV\"") == std::string_view::npos)
        continue;
      report([](GpsdStatus& s) { ++s.reports; });
      if (!wants)
        continue;
      if (auto fix = fixFromReport(gps.fix, since))
        deliver(*fix);
    }
    if (broken) {
      lose(errno != 0 ? std::string(std::strerror(errno)) : std::string("closed by gpsd"));
      continue;
    }
    sleep(gps.gps_fd, std::chrono::milliseconds(-1));
  }
  closeConnection();
}

GpsdLocationManager::GpsdLocationManager(std::shared_ptr<Dispatcher> dispatcher,
                                         std::shared_ptr<Logger> logger, GpsdOptions options)
    : state_(
          std::make_shared<State>(std::move(dispatcher), std::move(logger), std::move(options))) {
  state_->thread = std::thread([state = state_] { state->run(); });
}

GpsdLocationManager::~GpsdLocationManager() {
  shutdown();
}

void GpsdLocationManager::shutdown() {
  {
    std::lock_guard lock(state_->mutex);
    state_->closed.store(true);
  }
  state_->wake();
  std::lock_guard join(state_->threadMutex);
  if (state_->thread.joinable()) {
    if (state_->thread.get_id() == std::this_thread::get_id())
      state_->thread.detach();
    else
      state_->thread.join();
  }
}

void GpsdLocationManager::setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) {
  std::lock_guard lock(state_->mutex);
  state_->delegate = std::move(delegate);
}

void GpsdLocationManager::setPausesLocationUpdatesAutomatically(bool) {}
void GpsdLocationManager::setAllowsBackgroundLocationUpdates(bool) {}
void GpsdLocationManager::requestAlwaysAuthorization() {}
void GpsdLocationManager::startRangingBeacons(const BeaconRegion&) {}
void GpsdLocationManager::stopRangingBeacons(const BeaconRegion&) {}

void GpsdLocationManager::setDesiredAccuracy(Accuracy accuracy) {
  state_->change([&] { state_->accuracy = accuracy; });
}

void GpsdLocationManager::setDistanceFilter(double metres) {
  state_->change([&] { state_->distanceFilter = metres; });
}

void GpsdLocationManager::startUpdatingLocation() {
  state_->change([&] { state_->started = true; });
}

void GpsdLocationManager::stopUpdatingLocation() {
  state_->change([&] { state_->started = false; });
}

void GpsdLocationManager::setDevMode(bool devMode) {
  state_->devMode.store(devMode);
}

bool GpsdLocationManager::watching() const {
  std::lock_guard lock(state_->mutex);
  return state_->wantsWatch();
}

GpsdStatus GpsdLocationManager::status() const {
  std::lock_guard lock(state_->mutex);
  return state_->status;
}

void GpsdLocationManager::setStatusListener(std::function<void(const GpsdStatus&)> listener) {
  auto shared = listener ? std::make_shared<const Listener>(std::move(listener)) : nullptr;
  std::lock_guard lock(state_->mutex);
  state_->listener = std::move(shared);
}

}  // namespace zonaris::platform
