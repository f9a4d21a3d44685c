// Observation reports and what the service answers to them: confirmed events and messages.
#include <fmt/format.h>

#include "client/zonaris_state.hpp"
#include "sampling/efficient_policy.hpp"
#include "service/request.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {

namespace {

using nlohmann::json;

constexpr const char* kTitleKey = "zr:msg:title";
constexpr const char* kBodyKey = "zr:msg:body";
constexpr const char* kImageUrlKey = "zr:msg:image_url";

json observationBody(const Zonaris& client) {
  // Without a fix there is no position to report; zeros keep the body readable by the
  // service rather than leaving "gps" out.
  const auto location = client.mCurrentLocation();
  const json gps = {{"latitude", location ? location->latitude : 0.0},
                    {"longitude", location ? location->longitude : 0.0},
                    {"radius", location ? location->horizontalAccuracy : 0.0}};
  const auto beacons = client.mBeacons();
  // Without tags the observation carries an empty object under "data".
  const auto tags = client.mTags();
  return {{"gps", gps},
          {"beacons", beacons ? *beacons : json::array()},
          {"data", tags ? tags->snapshot() : json::object()},
          {"install", client.mInstallId()}};
}

}  // namespace

void Zonaris::sendObservation() {
  devLog("Sending to server...");
  const std::string body = service::compactJson(observationBody(*this));
  devLog(body);
  const auto response = service::send(
      state_->platform,
      service::postRequest(service::serviceUrl(state_->platform, "/observation"), body));

  if (response.transportError) {
    devLog("Observation wasn't sent!");
    sendException("Send observatnion failed", callStackSymbols(), json::array());
    // mResetFences stays set, so the next evaluation reports the fresh catalogue again.
    return;
  }

  // Whatever the status: a 4xx or 5xx that arrived is a sent observation, and its body is read.
  devLog("Observation was sent successfully!");
  notifyDelegate(ZonarisCallback::reportSent, [](ZonarisDelegate& d) { d.reportSent(); });

  const json answer = service::parseJson(response.body);
  devLog(fmt::format("Observation id = {}", service::int64Of(service::member(answer, "id"))));

  // The answer is read with the rules of service/request.hpp. In particular a JSON null under
  // "event_type" or "data" is the same as a missing key; an "event_type" that is not a string
  // is not confirmed; "data" that is not an object carries no message; "events" that is not
  // an array, and elements that are not objects, carry no events.
  const json* events = service::member(answer, "events");
  // The efficient policy samples again soon when the service did not confirm a crossing yet.
  if (const auto efficient = efficientPolicy()) {
    bool confirmed = false;
    if (events && events->is_array())
      for (const json& event : *events) {
        const json* type = service::member(event, "event_type");
        confirmed = confirmed || (type && type->is_string());
      }
    efficient->observed(confirmed);
  }
  if (events && events->is_array()) {
    for (const json& event : *events) {
      const std::int64_t locationId = service::int64Of(service::member(event, "location_id"));
      const json* type = service::member(event, "event_type");
      const json* dataValue = service::member(event, "data");
      const json* data = dataValue && dataValue->is_object() ? dataValue : nullptr;
      devLog(fmt::format("    Event id        = {}", locationId));
      devLog(fmt::format("    Event type      = {}", service::describe(type)));
      devLog(fmt::format("    Message data    = {}", service::describe(data)));

      // Confirmation happens whatever the silence window says.
      if (type && type->is_string())
        confirmEventFor(locationId, type->get<std::string>());

      if (!data || data->empty())
        continue;
      if (checkSilenceTime()) {
        // Dropped, not deferred.
        devLog("Silence time: YES (ignoring messages)");
        continue;
      }
      devLog("Silence time: NO");
      // A standard message always goes out, even when the data holds only keys of the
      // application's own: its texts then read "(null)".
      auto basic = std::make_shared<const ZonarisActionBasic>(
          service::describe(service::member(*data, kTitleKey)),
          service::describe(service::member(*data, kBodyKey)),
          service::describe(service::member(*data, kImageUrlKey)));
      json rest = *data;
      rest.erase(kTitleKey);
      rest.erase(kBodyKey);
      rest.erase(kImageUrlKey);
      notifyDelegate(ZonarisCallback::actionBasicCallback,
                     [&](ZonarisDelegate& d) { d.actionBasicCallback(basic); });
      if (!rest.empty()) {
        auto values = std::make_shared<const ZonarisActionData>(std::move(rest));
        notifyDelegate(ZonarisCallback::actionDataCallback,
                       [&](ZonarisDelegate& d) { d.actionDataCallback(values); });
      }
    }
  }
  setMResetFences(false);
}

bool Zonaris::checkSilenceTime() {
  const int hour = state_->platform.clock->hourOfDay(state_->platform.clock->now());
  const std::int32_t start = state_->mSilenceStart.load();
  const std::int32_t stop = state_->mSilenceStop.load();
  // Deliberately asymmetric: a window within one day excludes both of its ends, a window
  // across midnight includes both. With start == stop no hour is silent.
  if (stop >= start)
    return start < hour && hour < stop;
  return hour >= start || hour <= stop;
}

}  // namespace zonaris
