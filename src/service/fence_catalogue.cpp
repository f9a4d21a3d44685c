// The fence catalogue: downloading the fences around the reference position and publishing
// them as the client's new catalogue.
#include <chrono>

#include <fmt/format.h>

#include "fences/fence_cache.hpp"
#include "service/request.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {

namespace {

// Only this exact status counts as a catalogue; a 201 or a 204 is a failure like a 500.
constexpr long kCatalogueStatus = 200;
constexpr std::chrono::seconds kRetryDelay{30};
// The query always asks for the fences within this many metres; nothing changes it.
constexpr int kQueryRadius = 10000;

using nlohmann::json;

// One element of the answer as a fence, or null when the service lists no event types for it.
//
// Every field is set whether or not its key is present: a missing key gives null or zero, not
// the record's own default, so the record shows exactly what the service sent. Beyond that,
// values the service should not send are read like this (see service/request.hpp):
// - a JSON null is the same as a missing key;
// - a text field holding something other than a string (a number, an object) is null;
// - a number field accepts a JSON number or a numeric string ("12.5"); anything else is 0;
//   fractions are cut toward zero and values beyond the field's range (a major of 1e12, an id
//   beyond 64 bits) saturate at its bounds instead of wrapping;
// - a non-object element has no keys, so it has no event types and is skipped like one;
// - "_event_types" other than a non-empty array (an object, a string) lists no event types;
// - "_dwell_windows" other than an array gives no windows; inside it, elements that are
//   neither numbers nor numeric strings are left out rather than made into 0-second windows,
//   which would fire at once.
std::shared_ptr<ZonarisFence> fenceFrom(json& element) {
  const json* eventTypes = service::member(element, "_event_types");
  if (!eventTypes || !eventTypes->is_array() || eventTypes->empty())
    return nullptr;

  DwellList windows;
  if (const json* list = service::member(element, "_dwell_windows"); list && list->is_array()) {
    for (const json& window : *list) {
      if (service::numberOf(&window))
        windows.push_back(std::make_shared<ZonarisDwell>(service::int32Of(&window)));
    }
  }

  auto fence = std::make_shared<ZonarisFence>();
  fence->setId(service::int64Of(service::member(element, "id")));
  fence->setName(service::textOf(service::member(element, "name")));
  fence->setType(service::textOf(service::member(element, "type")));
  // The geometry text is the bulk of a catalogue: it is moved out of the parsed document.
  fence->setLocation(service::takeTextOf(service::member(element, "location")));
  fence->setRadius(service::floatOf(service::member(element, "radius")));
  fence->setUuid(service::textOf(service::member(element, "uuid")));
  fence->setMajor(service::int32Of(service::member(element, "major")));
  fence->setMinor(service::int32Of(service::member(element, "minor")));
  fence->setTime_zone(service::textOf(service::member(element, "time_zone_id")));
  fence->setDwell_events(std::move(windows));
  fence->setEntered(false);
  fence->setDwelled(false);
  fence->setDwell_time(0);
  return fence;
}

}  // namespace

void Zonaris::getFences() {
  devLog("Get fences...");
  const LocationPtr reference = mInitLocation();
  if (!reference) {
    // Only a retry can get here: the reference position was dropped while it waited. The next
    // accepted fix becomes the new reference and starts a download of its own, so fetching the
    // fences around no position at all would only publish a catalogue for the wrong place.
    return;
  }

  const std::string url =
      fmt::format("{}?install={}&lat={:f}&long={:f}&radius={}",
                  service::serviceUrl(platform_, "/install/location"), mInstallId_.load(),
                  reference->latitude, reference->longitude, kQueryRadius);
  const auto response = service::send(platform_, service::getRequest(url));

  if (response.status != kCatalogueStatus) {
    devLog("Get fences failed!");
    devLog(fmt::format("Get fences: Send request error - {}", response.status));
    sendException("Get fences failed", callStackSymbols(), json::array());
    // The catalogue, its freshness and the dwell timer stay as they are until a download
    // succeeds. No limit and no back-off.
    mainAfterGuarded("getFences", kRetryDelay, [](Zonaris& self) { self.getFences(); });
    return;
  }

  devLog("Get fences succesed!");
  // Only an array lists fences. Anything else (not JSON, an object, a bare value) is an
  // empty list, which still replaces the catalogue and still counts as fresh.
  json document = service::parseJson(response.body);
  const bool isList = document.is_array();
  devLog(fmt::format("Response size = {}", isList ? document.size() : 0));

  stopDwellTimer();
  // A new list replaces the old one whole: a pass that is walking the old catalogue keeps its
  // snapshot, and none of the old fences' state is carried over.
  FenceList fences;
  if (isList) {
    fences.reserve(document.size());
    // The lines are only formatted in developer mode: a city's catalogue is megabytes of
    // geometry text.
    const bool logging = mDevMode();
    for (json& element : document) {
      auto fence = fenceFrom(element);
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
  }
  // Each fence's geometry is read here, once per download, into a cache that belongs to this
  // snapshot and that every pass over it shares.
  setMFences(fences::withGeometryCache(std::move(fences)));
  setMResetFences(true);
  startDwellTimer();
  updateLocation();
}

}  // namespace zonaris
