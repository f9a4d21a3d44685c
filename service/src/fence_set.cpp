#include "zonaris/service/fence_set.hpp"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include <fmt/format.h>

#include "fences/geometry.hpp"
#include "zonaris/service/json_read.hpp"

namespace zonaris::service_tool {

namespace {

using nlohmann::json;

// A fences file is a few hundred fences at most; anything far larger is the wrong file.
constexpr std::streamsize kMaxFileBytes = 64 * 1024 * 1024;
constexpr std::int64_t kMaxBeaconNumber = 65535;
const std::set<std::string> kEventTypes = {"entry", "exit", "dwell"};

// A string member that may be absent or null; anything else is a mistake.
bool optionalText(const json& element, const char* key) {
  auto it = element.find(key);
  return it == element.end() || it->is_null() || it->is_string();
}

// Checks one element; answers what is wrong with it, or nothing.
std::optional<std::string> checkElement(const json& e, Fence& out) {
  if (!e.is_object())
    return "not a JSON object";

  auto id = e.find("id");
  if (id == e.end())
    return "\"id\" is missing";
  auto idValue = json_read::int64(*id);
  if (!idValue)
    return "\"id\" is not an integer";
  out.id = *idValue;

  for (const char* key : {"name", "type", "uuid", "time_zone_id"}) {
    if (!optionalText(e, key))
      return fmt::format("\"{}\" is not a string", key);
  }
  if (auto type = e.find("type"); type != e.end() && type->is_string())
    out.type = type->get<std::string>();

  auto location = e.find("location");
  if (location == e.end() || !location->is_string())
    return "\"location\" is missing or not a string";
  out.location = location->get<std::string>();
  const auto bounds = fences::geometryBounds(out.location);
  if (!bounds)
    return "\"location\" is not WKT that GEOS can read";
  out.xmin = bounds->xmin;
  out.xmax = bounds->xmax;
  out.ymin = bounds->ymin;
  out.ymax = bounds->ymax;

  if (auto radius = e.find("radius"); radius != e.end()) {
    auto r = json_read::finite(*radius);
    if (!r || *r < 0.0 || *r > kMaxRadiusMetres)
      return fmt::format("\"radius\" must be a number of metres from 0 to {}", kMaxRadiusMetres);
    // The client keeps the radius as a 32-bit float; deciding with the same value keeps the
    // service's inside/outside in step with the device's at the boundary.
    out.radius = static_cast<double>(static_cast<float>(*r));
  }

  for (auto [key, field] : {std::pair{"major", &out.major}, std::pair{"minor", &out.minor}}) {
    auto it = e.find(key);
    if (it == e.end() || it->is_null())
      continue;
    auto n = json_read::intIn(*it, 0, kMaxBeaconNumber);
    if (!n)
      return fmt::format("\"{}\" must be an integer from 0 to {}", key, kMaxBeaconNumber);
    *field = static_cast<std::int32_t>(*n);
  }
  if (out.type == "beacon") {
    auto uuid = e.find("uuid");
    if (uuid == e.end() || !uuid->is_string() || uuid->get_ref<const std::string&>().empty())
      return "a \"beacon\" fence needs a \"uuid\"";
    if (!e.contains("major") || !e.contains("minor") || e["major"].is_null() ||
        e["minor"].is_null())
      return "a \"beacon\" fence needs \"major\" and \"minor\"";
    for (char c : uuid->get_ref<const std::string&>())
      out.uuid.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  }

  if (auto types = e.find("_event_types"); types != e.end() && !types->is_null()) {
    if (!types->is_array())
      return "\"_event_types\" is not an array";
    out.takesPart = !types->empty();
  }

  if (auto windows = e.find("_dwell_windows"); windows != e.end() && !windows->is_null()) {
    if (!windows->is_array())
      return "\"_dwell_windows\" is not an array";
    for (const auto& w : *windows) {
      auto seconds = json_read::intIn(w, 0, std::numeric_limits<std::int32_t>::max());
      if (!seconds)
        return "\"_dwell_windows\" must hold whole seconds, 0 or more";
      out.dwellWindows.push_back(static_cast<std::int32_t>(*seconds));
    }
  }

  if (auto messages = e.find("messages"); messages != e.end() && !messages->is_null()) {
    if (!messages->is_object())
      return "\"messages\" is not an object";
    for (const auto& [type, data] : messages->items()) {
      if (!kEventTypes.contains(type))
        return fmt::format("\"messages\" has \"{}\"; only \"entry\", \"exit\" and \"dwell\" exist",
                           type);
      if (!data.is_object())
        return fmt::format("\"messages\".\"{}\" is not an object", type);
    }
    out.messages = *messages;
  }

  out.record = e;
  out.record.erase("messages");
  return std::nullopt;
}

}  // namespace

std::optional<nlohmann::json> readFencesFile(const std::string& path, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = fmt::format("{}: cannot open: {}", path, std::strerror(errno));
    return std::nullopt;
  }
  std::string text;
  char buffer[65536];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    text.append(buffer, static_cast<std::size_t>(in.gcount()));
    if (static_cast<std::streamsize>(text.size()) > kMaxFileBytes) {
      error = fmt::format("{}: larger than {} bytes; not a fences file", path, kMaxFileBytes);
      return std::nullopt;
    }
  }
  if (in.bad()) {
    error = fmt::format("{}: cannot read", path);
    return std::nullopt;
  }
  auto doc = json::parse(text, nullptr, false);
  if (doc.is_discarded()) {
    error = fmt::format("{}: not valid JSON", path);
    return std::nullopt;
  }
  return doc;
}

std::optional<std::vector<Fence>> parseFences(const nlohmann::json& fences, std::string_view source,
                                              std::string& error) {
  if (!fences.is_array()) {
    error = fmt::format("{}: the fences must be a JSON array of fence objects", source);
    return std::nullopt;
  }
  std::vector<Fence> out;
  std::map<std::int64_t, std::size_t> seen;
  for (std::size_t i = 0; i < fences.size(); ++i) {
    Fence fence;
    if (auto problem = checkElement(fences[i], fence)) {
      error = fmt::format("{}: element {}: {}", source, i, *problem);
      return std::nullopt;
    }
    if (auto [it, fresh] = seen.emplace(fence.id, i); !fresh) {
      error = fmt::format("{}: element {}: \"id\" {} is already used by element {}", source, i,
                          fence.id, it->second);
      return std::nullopt;
    }
    out.push_back(std::move(fence));
  }
  return out;
}

}  // namespace zonaris::service_tool
