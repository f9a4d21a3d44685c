// The location service over gpsd: one thread holds the connection, turns the client's settings
// into ?WATCH requests and hands fresh TPV reports with a fix to the main queue.
#include <gps.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <mutex>
#include <thread>
#include <variant>

#include <fmt/chrono.h>
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
using SteadyClock = std::chrono::steady_clock;

// How much of each report line is searched for its class: gpsd writes "class" first.
constexpr std::size_t kMessageHead = 256;
// A line longer than this is not gpsd speaking: the connection is dropped.
constexpr std::size_t kMaxLine = 64 * 1024;
// Without a wake-up descriptor (eventfd failed) the thread looks at its settings this often.
constexpr std::chrono::milliseconds kPollSlice{50};

constexpr std::string_view kWatchOn = R"(?WATCH={"enable":true,"json":true};)";
constexpr std::string_view kWatchOff = R"(?WATCH={"enable":false};)";

TimePoint toTimePoint(const timespec& time) {
  const auto since = std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  return TimePoint(std::chrono::duration_cast<TimePoint::duration>(since));
}

std::string timeText(TimePoint time) {
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}Z", std::chrono::floor<std::chrono::seconds>(time));
}

// The fix a TPV report stands for, or why it has none worth delivering.
std::variant<Location, std::string> fixFromReport(const gps_fix_t& fix) {
  if (fix.mode < MODE_2D)
    return fmt::format("no fix (mode {})", fix.mode);
  if (!std::isfinite(fix.latitude) || !std::isfinite(fix.longitude))
    return std::string("no position");
  if (fix.time.tv_sec == 0 && fix.time.tv_nsec == 0)
    return std::string("no time");
  Location location;
  location.timestamp = toTimePoint(fix.time);
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

std::string errorText(int error) {
  return error != 0 ? std::string(std::strerror(error)) : std::string("unknown error");
}

struct AddrInfoDeleter {
  void operator()(addrinfo* list) const noexcept { ::freeaddrinfo(list); }
};

}  // namespace

// Hidden: the state is the library's own, though it is named inside an exported class.
struct [[gnu::visibility("hidden")]] GpsdLocationManager::State
    : std::enable_shared_from_this<State> {
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
  int wakeFd = -1;  // -1 when eventfd failed: the thread then polls in slices of kPollSlice
  std::atomic<bool> devMode{false};
  std::atomic<bool> closed{false};

  mutable std::mutex mutex;
  std::weak_ptr<LocationManagerDelegate> delegate;
  bool started = false;
  Accuracy accuracy = Accuracy::BestForNavigation;
  double distanceFilter = kDistanceFilterNone;
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
  void change(Change && apply) {
    {
      std::lock_guard lock(mutex);
      apply();
    }
    wake();
  }

  void log(const std::string& line) const {
    if (devMode.load())
      logger->log(line);
  }

  std::string address() const {
    return options.host + ":" + options.port;
  }

  // Whether the thread should give up what it waits for: a shutdown, or a stop.
  bool stopping() const {
    std::lock_guard lock(mutex);
    return closed.load() || !started;
  }

  // Updates the counters and tells the listener: for connection events only.
  template <class Update>
  void report(Update && update) {
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

  // Sleeps until `fd` (if any) has one of `events`, the manager is woken, or `wait` passed
  // (forever when negative). The events `fd` has; 0 when woken or timed out.
  short sleep(int fd, short events, std::chrono::milliseconds wait) const {
    if (wakeFd < 0 && (wait.count() < 0 || wait > kPollSlice))
      wait = kPollSlice;
    pollfd fds[2] = {{fd, events, 0}, {wakeFd, POLLIN, 0}};
    const int timeout = wait.count() < 0 ? -1 : static_cast<int>(wait.count());
    if (::poll(fds, 2, timeout) <= 0)
      return 0;
    if (fds[1].revents & POLLIN) {
      std::uint64_t count = 0;
      [[maybe_unused]] auto read = ::read(wakeFd, &count, sizeof count);
    }
    return fd >= 0 ? fds[0].revents : 0;
  }

  // A connected non-blocking socket to gpsd, or -1 with `why`. The whole attempt, every
  // address of the host included, takes at most `connectTimeout`; a stop or a shutdown cuts
  // it short. Only the name lookup may take longer, up to the resolver's own time-outs.
  int connectToGpsd(std::string & why) const {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int error = ::getaddrinfo(options.host.c_str(), options.port.c_str(), &hints, &found);
        error != 0) {
      why = error == EAI_SYSTEM ? errorText(errno) : std::string(::gai_strerror(error));
      return -1;
    }
    const std::unique_ptr<addrinfo, AddrInfoDeleter> list(found);
    const auto deadline = SteadyClock::now() + options.connectTimeout;
    why = "no address";
    for (const addrinfo* at = list.get(); at != nullptr; at = at->ai_next) {
      const int fd =
          ::socket(at->ai_family, at->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, at->ai_protocol);
      if (fd < 0) {
        why = errorText(errno);
        continue;
      }
      int error = ::connect(fd, at->ai_addr, at->ai_addrlen) == 0 ? 0 : errno;
      while (error == EINPROGRESS) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now());
        if (left.count() <= 0) {
          error = ETIMEDOUT;
          break;
        }
        if (sleep(fd, POLLOUT, left) != 0) {
          socklen_t length = sizeof error;
          if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
            error = errno;
        } else if (stopping()) {
          error = ECANCELED;
        }
      }
      if (error == 0)
        return fd;
      ::close(fd);
      why = errorText(error);
      if (error == ECANCELED || SteadyClock::now() >= deadline)
        break;
    }
    return -1;
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

  // The connection thread: connects, asks gpsd to watch or not as the settings say, and reads
  // reports, until the manager shuts down.
  void run();

 private:
  // The connection thread's own: touched only by `run` and the steps below.
  gps_data_t gps{};
  int connection = -1;                     // the socket to gpsd, or -1
  std::string pending;                     // the start of a line not yet complete
  std::optional<bool> told;                // what gpsd was last asked: watching or not
  std::optional<TimePoint> lastDelivered;  // the receiver's time of the last fix delivered
  std::chrono::milliseconds retry{0};      // the wait before the next connection attempt

  void closeConnection();
  void waitAndGrow();
  void lose(const std::string& why);
  bool connect();
  bool tellWatch(bool wants);
  void readReports(bool wants);
  bool readAll(bool armed, std::string& why);
  void handleLine(std::string & line, bool armed);
};

void GpsdLocationManager::State::run() {
  // libgps only reads the reports (gps_unpack): the socket and its waits are the thread's own,
  // so that every wait is bounded and woken by a stop, and descriptors beyond FD_SETSIZE work.
  retry = options.retryMin;
  for (;;) {
    bool wanted = false;
    bool wants = false;
    {
      std::lock_guard lock(mutex);
      if (closed.load())
        break;
      wanted = started;
      wants = wantsWatch();
    }
    if (!wanted) {
      if (connection >= 0) {
        report([](GpsdStatus& s) { s.connected = false; });
        closeConnection();
      }
      sleep(-1, 0, std::chrono::milliseconds(-1));
      continue;
    }
    if (connection < 0 && !connect())
      continue;
    if (!tellWatch(wants))
      continue;
    readReports(wants);
  }
  closeConnection();
}

void GpsdLocationManager::State::closeConnection() {
  if (connection >= 0)
    ::close(connection);
  connection = -1;
  pending.clear();
  told.reset();
}

// Settings changes wake the thread, but only a stop or a shutdown cuts the wait short.
void GpsdLocationManager::State::waitAndGrow() {
  const auto until = SteadyClock::now() + retry;
  while (!stopping()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - SteadyClock::now());
    if (left.count() <= 0)
      break;
    sleep(-1, 0, left);
  }
  retry = std::min(retry * 2, options.retryMax);
}

void GpsdLocationManager::State::lose(const std::string& why) {
  closeConnection();
  log(fmt::format("gpsd: connection to {} lost ({}); reconnecting in {}", address(), why,
                  secondsText(retry)));
  report([&](GpsdStatus& s) {
    s.connected = false;
    ++s.lostConnections;
    s.lastError = why;
  });
  waitAndGrow();
}

// Opens the connection; false when there is none yet (the wait before the next attempt, if
// any, has passed).
bool GpsdLocationManager::State::connect() {
  std::string why;
  connection = connectToGpsd(why);
  if (connection < 0) {
    if (stopping())
      return false;
    log(fmt::format("gpsd: cannot connect to {} ({}); retrying in {}", address(), why,
                    secondsText(retry)));
    report([&](GpsdStatus& s) {
      ++s.failedAttempts;
      s.lastError = why;
    });
    waitAndGrow();
    return false;
  }
  log(fmt::format("gpsd: connected to {}", address()));
  report([](GpsdStatus& s) {
    s.connected = true;
    ++s.connections;
  });
  return true;
}

// Asks gpsd to watch or not, when that changed; false when the connection was lost doing so.
bool GpsdLocationManager::State::tellWatch(bool wants) {
  if (told == wants)
    return true;
  const auto command = wants ? kWatchOn : kWatchOff;
  if (::send(connection, command.data(), command.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(command.size())) {
    lose("cannot send the watch request");
    return false;
  }
  told = wants;
  return true;
}

// Waits for reports (or a wake-up) and reads what came. `wants`: whether a sample was armed
// when the settings were looked at before the wait.
void GpsdLocationManager::State::readReports(bool wants) {
  // Reports are read only after this poll says so. They count as read after the arming only
  // when the arming came before the settings were looked at: what was already waiting when
  // the thread was woken for an arming is judged as before it.
  if (sleep(connection, POLLIN, std::chrono::milliseconds(-1)) == 0)
    return;
  bool armed = false;
  {
    std::lock_guard lock(mutex);
    armed = wants && wantsWatch() && !closed.load();
  }
  std::string why;
  if (!readAll(armed, why))
    lose(why);
}

// Reads everything gpsd has sent so far; false (with `why`) when the connection is gone.
bool GpsdLocationManager::State::readAll(bool armed, std::string& why) {
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::recv(connection, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
      return true;
    if (n <= 0) {
      why = n == 0 ? std::string("closed by gpsd") : errorText(errno);
      return false;
    }
    pending.append(buffer, static_cast<std::size_t>(n));
    std::size_t begin = 0;
    for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n', begin)) {
      std::string line = pending.substr(begin, end - begin);
      begin = end + 1;
      if (!line.empty() && line.back() == '\r')
        line.pop_back();
      handleLine(line, armed);
    }
    pending.erase(0, begin);
    if (pending.size() > kMaxLine) {
      why = fmt::format("a line over {} bytes", kMaxLine);
      return false;
    }
  }
}

// One line from gpsd. `armed`: the line was read after the arming, so a fix in it is fresh.
void GpsdLocationManager::State::handleLine(std::string& line, bool armed) {
  if (std::string_view(line).substr(0, kMessageHead).find(R"("class":"TPV")") ==
      std::string_view::npos)
    return;
  gps_unpack(line.data(), &gps);  // every TPV resets the fields it lacks
  {
    std::lock_guard lock(mutex);
    ++status.reports;
  }
  auto fix = fixFromReport(gps.fix);
  if (std::holds_alternative<Location>(fix))
    retry = options.retryMin;  // gpsd serves fixes: the back-off starts afresh
  if (!armed) {
    log("gpsd: report dropped: it arrived while no sample was armed");
    return;
  }
  if (auto* why = std::get_if<std::string>(&fix)) {
    log(fmt::format("gpsd: report dropped: {}", *why));
    return;
  }
  const auto& location = std::get<Location>(fix);
  if (lastDelivered && location.timestamp < *lastDelivered) {
    log(fmt::format("gpsd: report dropped: its time {} is older than the last fix delivered ({})",
                    timeText(location.timestamp), timeText(*lastDelivered)));
    return;
  }
  lastDelivered = location.timestamp;
  deliver(location);
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
