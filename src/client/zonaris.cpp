// Construction, configuration, start and stop of the client, and the helpers every subsystem
// uses to log, to run work on other threads and to reach the delegate.
#include "zonaris/zonaris.hpp"

#include <cstdlib>
#include <exception>

#include <fmt/format.h>

#include "client/system_version.hpp"
#include "client/zonaris_state.hpp"
#include "platform/thread_exit.hpp"

namespace zonaris {

namespace {

constexpr double kIdleDistanceFilter = 99999.0;
constexpr const char* kBeaconRegionIdentifier = "beacon_region";

}  // namespace

Zonaris::Zonaris(platform::Platform platform)
    : state_(std::make_unique<ZonarisState>(std::move(platform))) {}

Zonaris::~Zonaris() = default;

std::shared_ptr<Zonaris> Zonaris::initWithAppKey(std::string appKey, platform::Platform platform) {
  if (!platform.complete())
    return nullptr;
  auto client = std::shared_ptr<Zonaris>(new Zonaris(std::move(platform)));
  client->state_->mAppKey = std::move(appKey);
  client->state_->mUpdatingLocation = false;
  client->state_->mResetFences = false;
  client->state_->mBeaconEnabled = false;
  client->state_->mBeaconScanning = false;
  client->state_->mMinDist = kNoDistance;
  client->state_->mAverageSpeed = 28.0f;
  client->state_->mSpeed = 0.0f;
  client->state_->mFences = std::make_shared<const FenceList>();
  client->state_->mBeacons = std::make_shared<const nlohmann::json>(nlohmann::json::array());
  client->state_->mCurrentBeacons.clear();

  auto manager = client->state_->platform.makeLocationManager();
  if (!manager)
    return nullptr;
  client->state_->mLocationManager = manager;
  manager->setDelegate(std::weak_ptr<platform::LocationManagerDelegate>(client));
  manager->setPausesLocationUpdatesAutomatically(false);
  manager->setDesiredAccuracy(platform::Accuracy::ThreeKilometers);
  manager->setDistanceFilter(kIdleDistanceFilter);
  if (client::systemVersionNumber(client->state_->platform.device->systemVersion()) >= 9.0f) {
    manager->setAllowsBackgroundLocationUpdates(true);
  }
  if (client::systemVersionNumber(client->state_->platform.device->systemVersion()) >= 8.0f) {
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
  std::lock_guard lock(state_->fieldsMutex);
  state_->mUUID = uuid;
  state_->mBeaconRegion = std::move(region);
  return true;
}

void Zonaris::setDevMode(bool devMode) {
  state_->mDevMode.store(devMode);
  state_->mLocationManager->setDevMode(devMode);
}

void Zonaris::setTags(std::shared_ptr<ZonarisTags> tags) {
  std::lock_guard lock(state_->fieldsMutex);
  state_->mTags = std::move(tags);
}

void Zonaris::setSilenceWindowStart(std::int32_t start, std::int32_t stop) {
  state_->mSilenceStart.store(start);
  state_->mSilenceStop.store(stop);
}

void Zonaris::setDelegate(std::weak_ptr<ZonarisDelegate> delegate) {
  std::lock_guard lock(state_->fieldsMutex);
  state_->mDelegate = std::move(delegate);
}

void Zonaris::start() {
  devLog("Zonaris started");
  if (mAppKey().empty()) {
    devLog("You haven't set APP key");
    return;
  }
  state_->mInstallId.store(ZonarisUserDefaults::getInstallId(*state_->platform.store));
  if (state_->mInstallId.load() < 1) {
    devLog("Install ID is not set");
    detachGuarded("getInstallID", [](Zonaris& self) { self.getInstallID(); });
    return;
  }
  devLog(fmt::format("Install ID is set - {}", state_->mInstallId.load()));
  updateLocation();
}

void Zonaris::stop() {
  devLog("Zonaris stopped");
  stopUpdateBeacons();
  state_->mUpdatingLocation.store(false);
  if (state_->samplingPolicy.load() == SamplingPolicy::Efficient)
    state_->mLocationManager->stopMotionUpdates();
  state_->mLocationManager->stopUpdatingLocation();
}

// ---- Helpers ---------------------------------------------------------------------------------

void Zonaris::devLog(std::string_view line) const {
  if (state_->mDevMode.load())
    state_->platform.logger->log(line);
}

void Zonaris::alwaysLog(std::string_view line) const {
  state_->platform.logger->log(line);
}

std::vector<std::string> Zonaris::callStackSymbols() const {
  try {
    return state_->platform.callStack->symbols();
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
  state_->platform.dispatcher->detach([self, what, step = std::move(step)] {
    runGuarded(*self, what, step, &Zonaris::reportUnexpected);
  });
}

void Zonaris::mainAfterGuarded(const char* what, platform::Duration delay,
                               std::function<void(Zonaris&)> step) {
  auto self = shared_from_this();
  state_->platform.dispatcher->mainAfter(delay, [self, what, step = std::move(step)] {
    runGuarded(*self, what, step, &Zonaris::reportUnexpected);
  });
}

// ---- Field accessors ---------------------------------------------------------------------------

SamplingPolicy Zonaris::samplingPolicy() const {
  return state_->samplingPolicy.load();
}
bool Zonaris::compression() const {
  return state_->compression.load();
}
const platform::Platform& Zonaris::platform() const {
  return state_->platform;
}
std::shared_ptr<platform::LocationManager> Zonaris::mLocationManager() const {
  return state_->mLocationManager;
}
bool Zonaris::mDevMode() const {
  return state_->mDevMode.load();
}
std::int32_t Zonaris::mSilenceStart() const {
  return state_->mSilenceStart.load();
}
void Zonaris::setMSilenceStart(std::int32_t value) {
  state_->mSilenceStart.store(value);
}
std::int32_t Zonaris::mSilenceStop() const {
  return state_->mSilenceStop.load();
}
void Zonaris::setMSilenceStop(std::int32_t value) {
  state_->mSilenceStop.store(value);
}
std::int64_t Zonaris::mInstallId() const {
  return state_->mInstallId.load();
}
void Zonaris::setMInstallId(std::int64_t value) {
  state_->mInstallId.store(value);
}
bool Zonaris::mUpdatingLocation() const {
  return state_->mUpdatingLocation.load();
}
void Zonaris::setMUpdatingLocation(bool value) {
  state_->mUpdatingLocation.store(value);
}
bool Zonaris::mResetFences() const {
  return state_->mResetFences.load();
}
void Zonaris::setMResetFences(bool value) {
  state_->mResetFences.store(value);
}
bool Zonaris::mBeaconEnabled() const {
  return state_->mBeaconEnabled.load();
}
void Zonaris::setMBeaconEnabled(bool value) {
  state_->mBeaconEnabled.store(value);
}
bool Zonaris::mBeaconScanning() const {
  return state_->mBeaconScanning.load();
}
void Zonaris::setMBeaconScanning(bool value) {
  state_->mBeaconScanning.store(value);
}
double Zonaris::mMinDist() const {
  return state_->mMinDist.load();
}
void Zonaris::setMMinDist(double value) {
  state_->mMinDist.store(value);
}
float Zonaris::mAverageSpeed() const {
  return state_->mAverageSpeed.load();
}
void Zonaris::setMAverageSpeed(float value) {
  state_->mAverageSpeed.store(value);
}
float Zonaris::mSpeed() const {
  return state_->mSpeed.load();
}
void Zonaris::setMSpeed(float value) {
  state_->mSpeed.store(value);
}
std::string Zonaris::mAppKey() const {
  std::lock_guard lock(state_->fieldsMutex);
  return state_->mAppKey;
}
void Zonaris::setMAppKey(std::string value) {
  std::lock_guard lock(state_->fieldsMutex);
  state_->mAppKey = std::move(value);
}
std::optional<std::string> Zonaris::mUUID() const {
  std::lock_guard lock(state_->fieldsMutex);
  return state_->mUUID;
}
void Zonaris::setMUUID(std::optional<std::string> value) {
  std::lock_guard lock(state_->fieldsMutex);
  state_->mUUID = std::move(value);
}
std::shared_ptr<ZonarisTags> Zonaris::mTags() const {
  std::lock_guard lock(state_->fieldsMutex);
  return state_->mTags;
}
std::weak_ptr<ZonarisDelegate> Zonaris::mDelegate() const {
  std::lock_guard lock(state_->fieldsMutex);
  return state_->mDelegate;
}
Zonaris::RegionPtr Zonaris::mBeaconRegion() const {
  std::lock_guard lock(state_->fieldsMutex);
  return state_->mBeaconRegion;
}
void Zonaris::setMBeaconRegion(RegionPtr value) {
  std::lock_guard lock(state_->fieldsMutex);
  state_->mBeaconRegion = std::move(value);
}
Zonaris::LocationPtr Zonaris::mInitLocation() const {
  std::lock_guard lock(state_->fieldsMutex);
  return state_->mInitLocation;
}
void Zonaris::setMInitLocation(LocationPtr value) {
  std::lock_guard lock(state_->fieldsMutex);
  state_->mInitLocation = std::move(value);
}
Zonaris::LocationPtr Zonaris::mCurrentLocation() const {
  std::lock_guard lock(state_->fieldsMutex);
  return state_->mCurrentLocation;
}
void Zonaris::setMCurrentLocation(LocationPtr value) {
  std::lock_guard lock(state_->fieldsMutex);
  state_->mCurrentLocation = std::move(value);
}
Zonaris::FencesPtr Zonaris::mFences() const {
  std::lock_guard lock(state_->fieldsMutex);
  return state_->mFences;
}
void Zonaris::setMFences(FencesPtr value) {
  std::lock_guard lock(state_->fieldsMutex);
  state_->mFences = std::move(value);
}
Zonaris::BeaconRecords Zonaris::mBeacons() const {
  std::lock_guard lock(state_->fieldsMutex);
  return state_->mBeacons;
}
void Zonaris::setMBeacons(BeaconRecords value) {
  std::lock_guard lock(state_->fieldsMutex);
  state_->mBeacons = std::move(value);
}
std::vector<platform::Beacon> Zonaris::mCurrentBeacons() const {
  std::lock_guard lock(state_->fieldsMutex);
  return state_->mCurrentBeacons;
}
void Zonaris::setMCurrentBeacons(std::vector<platform::Beacon> value) {
  std::lock_guard lock(state_->fieldsMutex);
  state_->mCurrentBeacons = std::move(value);
}
std::shared_ptr<platform::TickerHandle> Zonaris::mDwellTimer() const {
  std::lock_guard lock(state_->fieldsMutex);
  return state_->mDwellTimer;
}
void Zonaris::setMDwellTimer(std::shared_ptr<platform::TickerHandle> value) {
  std::lock_guard lock(state_->fieldsMutex);
  state_->mDwellTimer = std::move(value);
}

}  // namespace zonaris
