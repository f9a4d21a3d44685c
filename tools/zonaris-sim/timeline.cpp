// zonaris-timeline: reads zonaris-sim's JSON lines on stdin and prints the confirmed events and
// the delivered messages as a timeline with clock times.
// Usage: zonaris-sim ... | zonaris-timeline [--start YYYY-MM-DDTHH:MM:SS]
// --start must be the simulation's start (default 2026-01-01T12:00:00, as zonaris-sim's).

#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "zonaris/sim/sim_platform.hpp"

namespace {

using nlohmann::json;

std::string clockText(zonaris::platform::TimePoint start, double t) {
  using namespace std::chrono;
  const auto at = start + duration_cast<zonaris::platform::Duration>(duration<double>(t));
  const auto day = floor<days>(at);
  const hh_mm_ss clock{duration_cast<seconds>(at - day)};
  return fmt::format("{:02d}:{:02d}:{:02d}", clock.hours().count(), clock.minutes().count(),
                     clock.seconds().count());
}

std::string text(const json& value) {
  if (value.is_string())
    return value.get_ref<const json::string_t&>();
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string field(const json& object, const char* key) {
  if (!object.is_object())
    return "(null)";
  auto it = object.find(key);
  return it == object.end() ? "(null)" : text(*it);
}

}  // namespace

int main(int argc, char** argv) {
  auto start = zonaris::sim::defaultStartTime();
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--start" && i + 1 < argc) {
      auto parsed = zonaris::sim::parseLocalTime(argv[++i]);
      if (!parsed) {
        std::fprintf(stderr, "zonaris-timeline: --start: not YYYY-MM-DDTHH:MM:SS: %s\n", argv[i]);
        return 2;
      }
      start = *parsed;
    } else {
      std::fprintf(stderr, "zonaris-timeline: unknown argument: %s\n", arg.c_str());
      return 2;
    }
  }

  int events = 0, messages = 0;
  std::string line;
  while (std::getline(std::cin, line)) {
    const json object = json::parse(line, nullptr, false);
    if (object.is_discarded() || !object.is_object())
      continue;
    auto t = object.find("t");
    auto type = object.find("type");
    auto name = object.find("name");
    auto args = object.find("args");
    if (t == object.end() || !t->is_number() || type == object.end() || *type != "callback" ||
        name == object.end() || !name->is_string() || args == object.end() || !args->is_array() ||
        args->empty())
      continue;
    const std::string when = clockText(start, t->get<double>());
    const std::string& callback = name->get_ref<const json::string_t&>();
    const json& first = (*args)[0];

    std::string out;
    if (callback == "eventEnterCallback")
      out = fmt::format("{}  entered     {}", when, text(first));
    else if (callback == "eventExitCallback")
      out = fmt::format("{}  left        {}", when, text(first));
    else if (callback == "eventDwellCallback")
      out = fmt::format("{}  dwelled in  {}", when, text(first));
    else if (callback == "actionBasicCallback") {
      // A missing title, body or URL reads "(null)", as the client hands it to the application.
      const std::string title = field(first, "title"), body = field(first, "body"),
                        url = field(first, "url");
      out = fmt::format("{}  message     \"{}\": {}{}", when, title, body,
                        url == "(null)" ? "" : " [" + url + "]");
    } else if (callback == "actionDataCallback")
      out = fmt::format(
          "{}  data        {}", when,
          first.is_object() && first.contains("values") ? text(first["values"]) : text(first));
    else
      continue;
    if (callback.rfind("event", 0) == 0)
      ++events;
    else
      ++messages;
    std::puts(out.c_str());
  }
  std::printf("%d event(s), %d message callback(s)\n", events, messages);
  return 0;
}
