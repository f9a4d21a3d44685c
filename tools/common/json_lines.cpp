#include "common/json_lines.hpp"

#include <charconv>
#include <cmath>
#include <cstdlib>

namespace zonaris::tools {

namespace {

using Ordered = nlohmann::ordered_json;

// Text from the service or the application may hold invalid UTF-8; it is replaced, never thrown.
template <typename Json>
std::string dumpJson(const Json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

Ordered nameOrNull(const std::optional<std::string>& name) {
  return name ? Ordered(*name) : Ordered();
}

Ordered doubleNumber(double value) {
  return std::isfinite(value) ? Ordered(value) : Ordered();
}

Ordered floatArg(float value) {
  const auto number = shortestDouble(value);
  return number ? Ordered(*number) : Ordered();
}

}  // namespace

std::optional<double> shortestDouble(float value) {
  if (!std::isfinite(value))
    return std::nullopt;
  char text[32];
  auto [end, error] = std::to_chars(text, text + sizeof text - 1, value);
  if (error != std::errc())
    return static_cast<double>(value);
  *end = '\0';
  return std::strtod(text, nullptr);
}

JsonLinesWriter::JsonLinesWriter(std::FILE* out, std::function<double()> elapsedSeconds)
    : out_(out), elapsedSeconds_(std::move(elapsedSeconds)) {}

void JsonLinesWriter::logLine(std::string_view line) {
  write(",\"type\":\"log\",\"line\":" + dumpJson(nlohmann::json(std::string(line))));
}

void JsonLinesWriter::callback(std::string_view name, nlohmann::ordered_json args) {
  {
    std::lock_guard lock(mutex_);
    ++counts_[std::string(name)];
  }
  write(",\"type\":\"callback\",\"name\":" + dumpJson(nlohmann::json(std::string(name))) +
        ",\"args\":" + dumpJson(args));
}

std::map<std::string, std::uint64_t> JsonLinesWriter::callbackCounts() const {
  std::lock_guard lock(mutex_);
  return counts_;
}

void JsonLinesWriter::write(const std::string& fields) {
  // Virtual time is whole nanoseconds; milliseconds are plenty for a reader and keep the
  // numbers short ("t":12.0, "t":12.25).
  const double t = std::round(elapsedSeconds_() * 1000.0) / 1000.0;
  std::string text = "{\"t\":" + nlohmann::json(t).dump() + fields + "}\n";
  std::lock_guard lock(mutex_);
  std::fwrite(text.data(), 1, text.size(), out_);
  std::fflush(out_);
}

void JsonLinesDelegate::updatedInitLocation(const platform::Location& location) {
  Ordered fix = Ordered::object();
  fix["latitude"] = doubleNumber(location.latitude);
  fix["longitude"] = doubleNumber(location.longitude);
  fix["horizontalAccuracy"] = doubleNumber(location.horizontalAccuracy);
  fix["speed"] = doubleNumber(location.speed);
  writer_.callback("updatedInitLocation", Ordered::array({fix}));
}

void JsonLinesDelegate::updatedDistanceToNearestFence(double distance, bool inside) {
  writer_.callback("updatedDistanceToNearestFence",
                   Ordered::array({doubleNumber(distance), inside}));
}

void JsonLinesDelegate::updatedBeaconScan(bool scanning) {
  writer_.callback("updatedBeaconScan", Ordered::array({scanning}));
}

void JsonLinesDelegate::reportSent() {
  writer_.callback("reportSent", Ordered::array());
}

void JsonLinesDelegate::eventEnterCallback(const std::optional<std::string>& name) {
  writer_.callback("eventEnterCallback", Ordered::array({nameOrNull(name)}));
}

void JsonLinesDelegate::eventExitCallback(const std::optional<std::string>& name) {
  writer_.callback("eventExitCallback", Ordered::array({nameOrNull(name)}));
}

void JsonLinesDelegate::eventDwellCallback(const std::optional<std::string>& name) {
  writer_.callback("eventDwellCallback", Ordered::array({nameOrNull(name)}));
}

void JsonLinesDelegate::actionBasicCallback(std::shared_ptr<const ZonarisActionBasic> action) {
  Ordered basic = Ordered::object();
  if (action) {
    basic["title"] = action->getTitle();
    basic["body"] = action->getBody();
    basic["url"] = action->getURL();
  }
  writer_.callback("actionBasicCallback", Ordered::array({basic}));
}

void JsonLinesDelegate::actionDataCallback(std::shared_ptr<const ZonarisActionData> action) {
  Ordered data = Ordered::object();
  // The application's keys as the service sent them, in the order the JSON reader kept.
  Ordered values = Ordered::object();
  if (action) {
    values = Ordered::parse(dumpJson(action->values()), nullptr, false);
    if (values.is_discarded())
      values = Ordered::object();
  }
  data["values"] = std::move(values);
  writer_.callback("actionDataCallback", Ordered::array({data}));
}

void JsonLinesDelegate::updatedSpeed(float speed) {
  writer_.callback("updatedSpeed", Ordered::array({floatArg(speed)}));
}

void JsonLinesDelegate::updatedAvgSpeed(float speed) {
  writer_.callback("updatedAvgSpeed", Ordered::array({floatArg(speed)}));
}

void JsonLinesDelegate::updatedInterval(std::int32_t seconds) {
  writer_.callback("updatedInterval", Ordered::array({seconds}));
}

void JsonLinesDelegate::updatedGPSAccuracy(float metres) {
  writer_.callback("updatedGPSAccuracy", Ordered::array({floatArg(metres)}));
}

}  // namespace zonaris::tools
