#include "zonaris/sim/sim_platform.hpp"

#include <atomic>
#include <cstdio>
#include <ctime>

#include "zonaris/platform/curl_http.hpp"
#include "zonaris/sim/location_manager.hpp"
#include "zonaris/sim/network.hpp"

namespace zonaris::sim {

// ---- Dispatcher --------------------------------------------------------------------------

namespace {

class SimTicker final : public platform::TickerHandle {
 public:
  void invalidate() override { valid_.store(false); }
  bool valid() const { return valid_.load(); }

 private:
  std::atomic<bool> valid_{true};
};

// Queues the next tick one interval ahead; the tick re-arms itself while the handle is valid.
void armTick(const std::shared_ptr<Scheduler>& scheduler, std::shared_ptr<SimTicker> ticker,
             platform::Duration interval, std::shared_ptr<platform::Task> tick) {
  std::weak_ptr<Scheduler> weakScheduler = scheduler;
  scheduler->postAfter(interval, [weakScheduler, ticker, interval, tick] {
    if (!ticker->valid())
      return;
    (*tick)();
    auto alive = weakScheduler.lock();
    if (alive && ticker->valid())
      armTick(alive, ticker, interval, tick);
  });
}

}  // namespace

SimDispatcher::SimDispatcher(std::shared_ptr<Scheduler> scheduler)
    : scheduler_(std::move(scheduler)) {}

void SimDispatcher::detach(platform::Task task) {
  scheduler_->postAfter(platform::Duration::zero(), std::move(task));
}

void SimDispatcher::mainAfter(platform::Duration delay, platform::Task task) {
  scheduler_->postAfter(delay, std::move(task), Scheduler::Lane::Main);
}

std::shared_ptr<platform::TickerHandle> SimDispatcher::startTicker(platform::Duration interval,
                                                                   platform::Task tick) {
  auto ticker = std::make_shared<SimTicker>();
  armTick(scheduler_, ticker, interval, std::make_shared<platform::Task>(std::move(tick)));
  return ticker;
}

// ---- Clock -------------------------------------------------------------------------------

SimClock::SimClock(std::shared_ptr<Scheduler> scheduler) : scheduler_(std::move(scheduler)) {}

platform::TimePoint SimClock::now() const {
  return scheduler_->now();
}

int SimClock::hourOfDay(platform::TimePoint time) const {
  const auto sinceMidnight = time - std::chrono::floor<std::chrono::days>(time);
  return static_cast<int>(std::chrono::duration_cast<std::chrono::hours>(sinceMidnight).count());
}

// ---- Store, logger, device, call stack ---------------------------------------------------

std::int64_t MemoryStore::getLong(const std::string& key) const {
  std::lock_guard lock(mutex_);
  auto it = values_.find(key);
  return it == values_.end() ? 0 : it->second;
}

void MemoryStore::setLong(const std::string& key, std::int64_t value) {
  std::lock_guard lock(mutex_);
  values_[key] = value;
}

CapturingLogger::CapturingLogger(std::function<void(std::string_view)> sink)
    : sink_(std::move(sink)) {}

void CapturingLogger::log(std::string_view line) {
  {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  }
  if (sink_)
    sink_(line);
}

std::vector<std::string> CapturingLogger::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

void CapturingLogger::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

std::vector<std::string> SimCallStack::symbols() const {
  return {"0   zonaris   simulated thread"};
}

// ---- Times -------------------------------------------------------------------------------

std::optional<platform::TimePoint> parseLocalTime(std::string_view text) {
  int y, mo, d, h, mi, s;
  char tail;
  std::string copy(text);
  if (std::sscanf(copy.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c", &y, &mo, &d, &h, &mi, &s, &tail) !=
      6) {
    return std::nullopt;
  }
  using namespace std::chrono;
  const year_month_day date{year{y}, month{static_cast<unsigned>(mo)},
                            day{static_cast<unsigned>(d)}};
  if (!date.ok() || h < 0 || h > 23 || mi < 0 || mi > 59 || s < 0 || s > 59)
    return std::nullopt;
  return platform::TimePoint{sys_days{date}} + hours{h} + minutes{mi} + seconds{s};
}

platform::TimePoint defaultStartTime() {
  return *parseLocalTime("2026-01-01T12:00:00");
}

// ---- Simulation --------------------------------------------------------------------------

Simulation::Simulation(SimulationOptions options)
    : options_(std::move(options)),
      scheduler_(options_.scheduler ? options_.scheduler
                                    : std::make_shared<Scheduler>(options_.start)),
      dispatcher_(std::make_shared<SimDispatcher>(scheduler_)),
      clock_(std::make_shared<SimClock>(scheduler_)),
      logger_(std::make_shared<CapturingLogger>(options_.logSink)),
      store_(options_.store ? options_.store : std::make_shared<MemoryStore>()),
      http_(options_.http ? options_.http : platform::makeCurlHttpClient()),
      device_(std::make_shared<FixedDeviceInfo>(options_.systemVersion)),
      callStack_(std::make_shared<SimCallStack>()),
      managers_(std::make_shared<Managers>()) {
  if (options_.network.active())
    http_ = std::make_shared<SimNetwork>(http_, scheduler_, options_.network);
}

Simulation::~Simulation() {
  scheduler_->clear();
}

platform::Platform Simulation::platform() const {
  platform::Platform p;
  auto make = options_.makeLocationManager;
  auto scheduler = scheduler_;
  auto managers = managers_;
  auto trace = options_.trace;
  auto beacons = options_.beacons;
  auto device = options_.device;
  p.makeLocationManager = [make, scheduler, managers, trace, beacons,
                           device]() -> std::shared_ptr<platform::LocationManager> {
    std::shared_ptr<platform::LocationManager> manager;
    if (make) {
      manager = make(scheduler);
    } else {
      auto sim = std::make_shared<SimLocationManager>(scheduler);
      sim->setTrace(trace);
      sim->setBeaconSightings(beacons);
      sim->setDeviceModel(device);
      manager = std::move(sim);
    }
    std::lock_guard lock(managers->mutex);
    managers->list.push_back(manager);
    return manager;
  };
  p.http = http_;
  p.store = store_;
  p.dispatcher = dispatcher_;
  p.clock = clock_;
  p.logger = logger_;
  p.device = device_;
  p.callStack = callStack_;
  p.baseUrl = options_.baseUrl;
  return p;
}

std::vector<std::shared_ptr<platform::LocationManager>> Simulation::locationManagers() const {
  std::lock_guard lock(managers_->mutex);
  return managers_->list;
}

std::shared_ptr<SimLocationManager> Simulation::simLocationManager() const {
  std::lock_guard lock(managers_->mutex);
  for (const auto& manager : managers_->list) {
    if (auto sim = std::dynamic_pointer_cast<SimLocationManager>(manager))
      return sim;
  }
  return nullptr;
}

double Simulation::elapsedSeconds() const {
  return std::chrono::duration<double>(scheduler_->elapsed()).count();
}

}  // namespace zonaris::sim
