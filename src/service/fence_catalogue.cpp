// The fence catalogue: downloading the fences around the reference position and publishing
// them as the client's new catalogue.
#include <chrono>

#include <fmt/format.h>

#include "client/zonaris_state.hpp"
#include "fences/fence_cache.hpp"
#include "service/fence_answer.hpp"
#include "service/request.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {

namespace {

// Only this exact status counts as a catalogue; a 201 or a 204 is a failure like a 500.
constexpr long kCatalogueStatus = 200;
constexpr std::chrono::seconds kRetryDelay{30};
// The query always asks for the fences within this many metres; nothing changes it.
constexpr int kQueryRadius = 10000;

}  // namespace

void Zonaris::setCompression(bool compression) {
  state_->compression.store(compression);
}

void Zonaris::getFences() {
  devLog("Get fences...");
  const LocationPtr reference = mInitLocation();
  if (!reference) {
    // Only a retry can get here: the reference position was dropped while it waited. The next
    // accepted fix becomes the new reference and starts a download of its own, so fetching the
    // fences around no position at all would only publish a catalogue for the wrong place.
    return;
  }

  const std::string url = fmt::format("{}?install={}&lat={:f}&long={:f}&radius={}",
                                      service::serviceUrl(state_->platform, "/install/location"),
                                      state_->mInstallId.load(), reference->latitude,
                                      reference->longitude, kQueryRadius);
  auto request = service::getRequest(url);
  request.acceptCompressed = state_->compression.load();
  const auto response = service::send(state_->platform, request);

  if (response.status != kCatalogueStatus) {
    devLog("Get fences failed!");
    devLog(fmt::format("Get fences: Send request error - {}", response.status));
    sendException("Get fences failed", callStackSymbols(), nlohmann::json::array());
    // The catalogue, its freshness and the dwell timer stay as they are until a download
    // succeeds. No limit and no back-off.
    mainAfterGuarded("getFences", kRetryDelay, [](Zonaris& self) { self.getFences(); });
    return;
  }

  devLog("Get fences succesed!");
  // Only an array lists fences. Anything else (not JSON, an object, a bare value) is an
  // empty list, which still replaces the catalogue and still counts as fresh.
  service::FenceAnswer answer = service::readFenceAnswer(response.body);
  devLog(fmt::format("Response size = {}", answer.elements.size()));

  stopDwellTimer();
  // A new list replaces the old one whole: a pass that is walking the old catalogue keeps its
  // snapshot, and none of the old fences' state is carried over.
  FenceList fences;
  fences.reserve(answer.elements.size());
  // The lines are only formatted in developer mode: a city's catalogue is megabytes of
  // geometry text.
  const bool logging = mDevMode();
  for (auto& fence : answer.elements) {
    if (!fence) {
      devLog("There is no events for this location");
      continue;
    }
    if (logging) {
      devLog(fmt::format("Name = {}", fence->name().value_or("(null)")));
      devLog(fmt::format("Type = {}", fence->type().value_or("(null)")));
      devLog(fmt::format("Loc  = {}", fence->location().value_or("(null)")));
      devLog(" ");
    }
    fences.push_back(std::move(fence));
  }
  // Each fence's geometry is read here into a cache that belongs to this snapshot and that
  // every pass over it shares. Only the geometry readings are carried over from the catalogue
  // this one replaces (a fence with the same id and text is the same shape); the fences
  // themselves are the new records above, with none of the old state.
  const FencesPtr previous = mFences();
  setMFences(fences::withGeometryCache(std::move(fences), fences::cacheOf(previous)));
  setMResetFences(true);
  startDwellTimer();
  updateLocation();
}

}  // namespace zonaris
