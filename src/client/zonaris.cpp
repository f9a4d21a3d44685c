// Construction, configuration, start and stop of the client, and the helpers every subsystem
// uses to log, to run work on other threads and to reach the delegate.
#include "zonaris/zonaris.hpp"

#include <cstdlib>
#include <exception>

#include <fmt/format.h>

#include "client/system_version.hpp"
#include "platform/thread_exit.hpp"

namespace zonaris {

namespace {

constexpr double kIdleDistanceFilter = 99999.0;
constexpr const char* kBeaconRegionIdentifier = "beacon_region";

}  // namespace

Zonaris::Zonaris(platform::Platform platform) : platform_(std::move(platform)) {}

Zonaris::~Zonaris() = default;

std::shared_ptr<Zonaris> Zonaris::initWithAppKey(std::string appKey, platform::Platform platform) {
  if (!platform.complete())
    return nullptr;
  auto client = std::shared_ptr<Zonaris>(new Zonaris(std::move(platform)));
  client->mAppKey_ = std::move(appKey);
  client->mUpdatingLocation_ = false;
  client->mResetFences_ = false;
  client->mBeaconEnabled_ = false;
  client->mBeaconScanning_ = false;
  client->mMinDist_ = kNoDistance;
  client->mAverageSpeed_ = 28.0f;
  client->mSpeed_ = 0.0f;
  client->mFences_ = std::make_shared<const FenceList>();
  client->mBeacons_ = std::make_shared<const nlohmann::json>(nlohmann::json::array());
  client->mCurrentBeacons_.clear();

  auto manager = client->platform_.makeLocationManager();
  if (!manager)
    return nullptr;
  client->mLocationManager_ = manager;
  manager->setDelegate(std::weak_ptr<platform::LocationManagerDelegate>(client));
  manager->setPausesLocationUpdatesAutomatically(false);
  manager->setDesiredAccuracy(platform::Accuracy::ThreeKilometers);
  manager->setDistanceFilter(kIdleDistanceFilter);
  if (client::systemVersionNumber(client->platform_.device->systemVersion()) >= 9.0f) {
    manager->setAllowsBackgroundLocationUpdates(true);
  }
  if (client::systemVersionNumber(client->platform_.device->systemVersion()) >= 8.0f) {
    manager->requestAlwaysAuthorization();
  }
  manager->startUpdatingLocation();
  return client;
}

bool Zonaris::setUUID(const std::string& uuid) {
  auto canonical = platform::canonicalUUID(uuid);
  if (!canonical)
    return false;
  auto region = std::make_shared<platform::BeaconRegion>();
  region->uuid = *canonical;
  region->identifier = kBeaconRegionIdentifier;
  region->notifyOnEntry = true;
  region->notifyOnExit = true;
  region->notifyEntryStateOnDisplay = true;
  std::lock_guard lock(fieldsMutex_);
  mUUID_ = uuid;
  mBeaconRegion_ = std::move(region);
  return true;
}

void Zonaris::setDevMode(bool devMode) {
  mDevMode_.store(devMode);
  mLocationManager_->setDevMode(devMode);
}

void Zonaris::setTags(std::shared_ptr<ZonarisTags> tags) {
  std::lock_guard lock(fieldsMutex_);
  mTags_ = std::move(tags);
}

void Zonaris::setSilenceWindowStart(std::int32_t start, std::int32_t stop) {
  mSilenceStart_.store(start);
  mSilenceStop_.store(stop);
}

void Zonaris::setDelegate(std::weak_ptr<ZonarisDelegate> delegate) {
  std::lock_guard lock(fieldsMutex_);
  mDelegate_ = std::move(delegate);
}

void Zonaris::start() {
  devLog("Zonaris started");
  if (mAppKey().empty()) {
    devLog("You haven't set APP key");
    return;
  }
  mInstallId_.store(ZonarisUserDefaults::getInstallId(*platform_.store));
  if (mInstallId_.load() < 1) {
    devLog("Install ID is not set");
    detachGuarded("getInstallID", [](Zonaris& self) { self.getInstallID(); });
    return;
  }
  devLog(fmt::format("Install ID is set - {}", mInstallId_.load()));
  updateLocation();
}

void Zonaris::stop() {
  devLog("Zonaris stopped");
  stopUpdateBeacons();
  mUpdatingLocation_.store(false);
  if (samplingPolicy_.load() == SamplingPolicy::Efficient)
    mLocationManager_->stopMotionUpdates();
  mLocationManager_->stopUpdatingLocation();
}

// ---- Helpers ---------------------------------------------------------------------------------

void Zonaris::devLog(std::string_view line) const {
  if (mDevMode_.load())
    platform_.logger->log(line);
}

void Zonaris::alwaysLog(std::string_view line) const {
  platform_.logger->log(line);
}

std::vector<std::string> Zonaris::callStackSymbols() const {
  try {
    return platform_.callStack->symbols();
  } catch (...) {
    if (platform::endingThread())
      throw;
    return {};
  }
}

void Zonaris::reportUnexpected(const char* what, const char* message) {
  try {
    // Like every line but the beacon lines, written only in developer mode.
    devLog(fmt::format("Zonaris: unexpected failure in {}: {}", what, message));
    sendException("Unexpected failure", callStackSymbols(),
                  nlohmann::json::array({{{"name", "operation"}, {"value", what}},
                                         {{"name", "message"}, {"value", message}}}));
  } catch (...) {
    if (platform::endingThread())
      throw;
    // Nothing more can be done without risking the host; the failure was logged if possible.
  }
}

namespace {

// Runs one step of the client and keeps any exception inside the library; the forced unwind
// that ends a thread goes on (see platform/thread_exit.hpp). The report comes after the
// handler: it reaches the application's logger.
void runGuarded(Zonaris& self, const char* what, const std::function<void(Zonaris&)>& step,
                void (Zonaris::*report)(const char*, const char*)) {
  std::string failure;
  try {
    step(self);
    return;
  } catch (const std::exception& e) {
    failure = e.what();
  } catch (...) {
    if (platform::endingThread())
      throw;
    failure = "unknown exception";
  }
  (self.*report)(what, failure.c_str());
}

}  // namespace

void Zonaris::detachGuarded(const char* what, std::function<void(Zonaris&)> step) {
  auto self = shared_from_this();
  platform_.dispatcher->detach([self, what, step = std::move(step)] {
    runGuarded(*self, what, step, &Zonaris::reportUnexpected);
  });
}

void Zonaris::mainAfterGuarded(const char* what, platform::Duration delay,
                               std::function<void(Zonaris&)> step) {
  auto self = shared_from_this();
  platform_.dispatcher->mainAfter(delay, [self, what, step = std::move(step)] {
    runGuarded(*self, what, step, &Zonaris::reportUnexpected);
  });
}

// ---- Field accessors ---------------------------------------------------------------------------

std::string Zonaris::mAppKey() const {
  std::lock_guard lock(fieldsMutex_);
  return mAppKey_;
}
void Zonaris::setMAppKey(std::string value) {
  std::lock_guard lock(fieldsMutex_);
  mAppKey_ = std::move(value);
}
std::optional<std::string> Zonaris::mUUID() const {
  std::lock_guard lock(fieldsMutex_);
  return mUUID_;
}
void Zonaris::setMUUID(std::optional<std::string> value) {
  std::lock_guard lock(fieldsMutex_);
  mUUID_ = std::move(value);
}
std::shared_ptr<ZonarisTags> Zonaris::mTags() const {
  std::lock_guard lock(fieldsMutex_);
  return mTags_;
}
std::weak_ptr<ZonarisDelegate> Zonaris::mDelegate() const {
  std::lock_guard lock(fieldsMutex_);
  return mDelegate_;
}
Zonaris::RegionPtr Zonaris::mBeaconRegion() const {
  std::lock_guard lock(fieldsMutex_);
  return mBeaconRegion_;
}
void Zonaris::setMBeaconRegion(RegionPtr value) {
  std::lock_guard lock(fieldsMutex_);
  mBeaconRegion_ = std::move(value);
}
Zonaris::LocationPtr Zonaris::mInitLocation() const {
  std::lock_guard lock(fieldsMutex_);
  return mInitLocation_;
}
void Zonaris::setMInitLocation(LocationPtr value) {
  std::lock_guard lock(fieldsMutex_);
  mInitLocation_ = std::move(value);
}
Zonaris::LocationPtr Zonaris::mCurrentLocation() const {
  std::lock_guard lock(fieldsMutex_);
  return mCurrentLocation_;
}
void Zonaris::setMCurrentLocation(LocationPtr value) {
  std::lock_guard lock(fieldsMutex_);
  mCurrentLocation_ = std::move(value);
}
Zonaris::FencesPtr Zonaris::mFences() const {
  std::lock_guard lock(fieldsMutex_);
  return mFences_;
}
void Zonaris::setMFences(FencesPtr value) {
  std::lock_guard lock(fieldsMutex_);
  mFences_ = std::move(value);
}
Zonaris::BeaconRecords Zonaris::mBeacons() const {
  std::lock_guard lock(fieldsMutex_);
  return mBeacons_;
}
void Zonaris::setMBeacons(BeaconRecords value) {
  std::lock_guard lock(fieldsMutex_);
  mBeacons_ = std::move(value);
}
std::vector<platform::Beacon> Zonaris::mCurrentBeacons() const {
  std::lock_guard lock(fieldsMutex_);
  return mCurrentBeacons_;
}
void Zonaris::setMCurrentBeacons(std::vector<platform::Beacon> value) {
  std::lock_guard lock(fieldsMutex_);
  mCurrentBeacons_ = std::move(value);
}
std::shared_ptr<platform::TickerHandle> Zonaris::mDwellTimer() const {
  std::lock_guard lock(fieldsMutex_);
  return mDwellTimer_;
}
void Zonaris::setMDwellTimer(std::shared_ptr<platform::TickerHandle> value) {
  std::lock_guard lock(fieldsMutex_);
  mDwellTimer_ = std::move(value);
}

}  // namespace zonaris
