// Reading the fence query's answer: simdjson first, nlohmann::json for what simdjson refuses.
//
// Every field of a kept fence is set whether or not its key is present: a missing key gives null
// or zero, not the record's own default, so the record shows exactly what the service sent.
// Beyond that, values the service should not send are read like this (see service/request.hpp):
// - a JSON null is the same as a missing key, and of a key given twice the last one counts;
// - a text field holding something other than a string (a number, an object) is null;
// - a number field accepts a JSON number or a numeric string ("12.5"); anything else is 0;
//   fractions are cut toward zero and values beyond the field's range (a major of 1e12, an id
//   beyond 64 bits) saturate at its bounds instead of wrapping;
// - a non-object element has no keys, so it has no event types and is skipped like one;
// - "_event_types" other than a non-empty array (an object, a string) lists no event types;
// - "_dwell_windows" other than an array gives no windows; inside it, elements that are
//   neither numbers nor numeric strings are left out rather than made into 0-second windows,
//   which would fire at once.
//
// Both readers follow these rules; the fence catalogue fuzz harness holds them to the same
// records on every input. simdjson refuses some text that nlohmann::json reads (a leading byte
// order mark, integers beyond 64 bits, which nlohmann reads as doubles), so any refusal is
// decided by nlohmann::json; simdjson accepts nothing that nlohmann::json refuses.
#include "service/fence_answer.hpp"

#include <simdjson.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "service/request.hpp"

namespace zonaris::service {

namespace {

// ---- The general reading: a nlohmann::json tree ----------------------------------------------

std::shared_ptr<ZonarisFence> fenceFromTree(nlohmann::json& element) {
  const nlohmann::json* eventTypes = member(element, "_event_types");
  if (!eventTypes || !eventTypes->is_array() || eventTypes->empty())
    return nullptr;

  DwellList windows;
  if (const nlohmann::json* list = member(element, "_dwell_windows"); list && list->is_array()) {
    for (const nlohmann::json& window : *list) {
      if (numberOf(&window))
        windows.push_back(std::make_shared<ZonarisDwell>(int32Of(&window)));
    }
  }

  auto fence = std::make_shared<ZonarisFence>();
  fence->setId(int64Of(member(element, "id")));
  fence->setName(textOf(member(element, "name")));
  fence->setType(textOf(member(element, "type")));
  // The geometry text is the bulk of a catalogue: it is moved out of the parsed document.
  fence->setLocation(takeTextOf(member(element, "location")));
  fence->setRadius(floatOf(member(element, "radius")));
  fence->setUuid(textOf(member(element, "uuid")));
  fence->setMajor(int32Of(member(element, "major")));
  fence->setMinor(int32Of(member(element, "minor")));
  fence->setTime_zone(textOf(member(element, "time_zone_id")));
  fence->setDwell_events(std::move(windows));
  fence->setEntered(false);
  fence->setDwelled(false);
  fence->setDwell_time(0);
  return fence;
}

// ---- The fast reading: a simdjson document, read by the same rules ---------------------------

using simdjson::dom::element;
using simdjson::dom::element_type;

// Missing: no key, or a JSON null.
using Field = std::optional<element>;

std::optional<double> numberOf(const Field& value) {
  if (!value)
    return std::nullopt;
  switch (value->type()) {
    case element_type::INT64:
      return static_cast<double>(std::int64_t(*value));
    case element_type::UINT64:
      return static_cast<double>(std::uint64_t(*value));
    case element_type::DOUBLE:
      return double(*value);
    case element_type::STRING:
      return numberInText(std::string_view(*value));
    default:
      return std::nullopt;
  }
}

std::int64_t int64Of(const Field& value) {
  if (!value)
    return 0;
  switch (value->type()) {
    case element_type::INT64:
      return std::int64_t(*value);
    case element_type::UINT64: {
      const std::uint64_t u = std::uint64_t(*value);
      constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
      return u > kMax ? std::numeric_limits<std::int64_t>::max() : static_cast<std::int64_t>(u);
    }
    case element_type::STRING:
      if (auto exact = integerInText(std::string_view(*value)))
        return *exact;
      break;
    default:
      break;
  }
  if (auto number = numberOf(value))
    return saturatingInt64(*number);
  return 0;
}

std::int32_t int32Of(const Field& value) {
  constexpr auto kMin = std::numeric_limits<std::int32_t>::min();
  constexpr auto kMax = std::numeric_limits<std::int32_t>::max();
  const std::int64_t wide = int64Of(value);
  return static_cast<std::int32_t>(wide < kMin ? kMin : (wide > kMax ? kMax : wide));
}

float floatOf(const Field& value) {
  const auto number = numberOf(value);
  if (!number || std::isnan(*number))
    return 0.0f;
  constexpr double kMax = std::numeric_limits<float>::max();
  return static_cast<float>(*number > kMax ? kMax : (*number < -kMax ? -kMax : *number));
}

std::optional<std::string> textOf(const Field& value) {
  if (!value || value->type() != element_type::STRING)
    return std::nullopt;
  return std::string(std::string_view(*value));
}

// The keys a fence reads, each its last occurrence that is not null.
struct FenceFields {
  Field id, name, type, location, radius, uuid, major, minor, timeZone, eventTypes, windows;
};

FenceFields fieldsOf(element object) {
  FenceFields f;
  for (const auto field : simdjson::dom::object(object)) {
    Field* slot = nullptr;
    const std::string_view key = field.key;
    if (key == "location")
      slot = &f.location;
    else if (key == "id")
      slot = &f.id;
    else if (key == "name")
      slot = &f.name;
    else if (key == "type")
      slot = &f.type;
    else if (key == "radius")
      slot = &f.radius;
    else if (key == "uuid")
      slot = &f.uuid;
    else if (key == "major")
      slot = &f.major;
    else if (key == "minor")
      slot = &f.minor;
    else if (key == "time_zone_id")
      slot = &f.timeZone;
    else if (key == "_event_types")
      slot = &f.eventTypes;
    else if (key == "_dwell_windows")
      slot = &f.windows;
    if (slot != nullptr) {
      if (field.value.is_null())
        slot->reset();
      else
        *slot = field.value;
    }
  }
  return f;
}

std::shared_ptr<ZonarisFence> fenceFromDocument(element item) {
  if (item.type() != element_type::OBJECT)
    return nullptr;
  const FenceFields f = fieldsOf(item);
  if (!f.eventTypes || f.eventTypes->type() != element_type::ARRAY)
    return nullptr;
  const simdjson::dom::array eventTypes(*f.eventTypes);
  if (eventTypes.begin() == eventTypes.end())
    return nullptr;

  DwellList windows;
  if (f.windows && f.windows->type() == element_type::ARRAY) {
    for (const element window : simdjson::dom::array(*f.windows)) {
      const Field value(window);
      if (numberOf(value))
        windows.push_back(std::make_shared<ZonarisDwell>(int32Of(value)));
    }
  }

  auto fence = std::make_shared<ZonarisFence>();
  fence->setId(int64Of(f.id));
  fence->setName(textOf(f.name));
  fence->setType(textOf(f.type));
  fence->setLocation(textOf(f.location));
  fence->setRadius(floatOf(f.radius));
  fence->setUuid(textOf(f.uuid));
  fence->setMajor(int32Of(f.major));
  fence->setMinor(int32Of(f.minor));
  fence->setTime_zone(textOf(f.timeZone));
  fence->setDwell_events(std::move(windows));
  fence->setEntered(false);
  fence->setDwelled(false);
  fence->setDwell_time(0);
  return fence;
}

}  // namespace

FenceAnswer readFenceAnswerTree(std::string_view body) {
  FenceAnswer answer;
  nlohmann::json document = parseJson(body);
  answer.isList = document.is_array();
  if (!answer.isList)
    return answer;
  answer.elements.reserve(document.size());
  for (nlohmann::json& item : document)
    answer.elements.push_back(fenceFromTree(item));
  return answer;
}

FenceAnswer readFenceAnswer(std::string_view body) {
  // The same limits as every answer: nothing over the size cap or nested too deep is read.
  if (body.size() > kMaxJsonBytes || body.empty())
    return readFenceAnswerTree(body);
  // The depth limit is the one parseJson applies: a document nested deeper is refused, and the
  // general reading refuses it too.
  simdjson::dom::parser parser;
  element document;
  if (parser.allocate(body.size(), kMaxJsonDepth) != simdjson::SUCCESS ||
      parser.parse(body.data(), body.size()).get(document) != simdjson::SUCCESS)
    return readFenceAnswerTree(body);
  FenceAnswer answer;
  if (document.type() != element_type::ARRAY)
    return readFenceAnswerTree(body);  // rare and small; the depth rule decides as it does there
  answer.isList = true;
  for (const element item : simdjson::dom::array(document))
    answer.elements.push_back(fenceFromDocument(item));
  return answer;
}

}  // namespace zonaris::service
