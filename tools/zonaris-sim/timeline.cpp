// zonaris-timeline: reads zonaris-sim's JSON lines on stdin and prints the confirmed events and
// the delivered messages as a timeline with clock times.
// Usage: zonaris-sim ... | zonaris-timeline [--start YYYY-MM-DDTHH:MM:SS] [--score FILE]
// --start must be the simulation's start (default 2026-01-01T12:00:00, as zonaris-sim's).
// --score takes the score zonaris-sim wrote for the same run (--score FILE): events the
// application heard that never happened are marked "<- false", and the true events it never
// heard appear at their true time as "MISSED" lines.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

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

// The score's "missed" and "false" lists.
struct Marks {
  bool given = false;
  json missed = json::array();
  json falseEvents = json::array();
};

bool readMarks(const std::string& path, Marks& marks) {
  std::ifstream in(path, std::ios::binary);
  const json score = json::parse(in, nullptr, false);
  if (!in.is_open() || score.is_discarded() || !score.is_object())
    return false;
  marks.given = true;
  for (auto [key, list] : {std::pair{"missed", &marks.missed}, {"false", &marks.falseEvents}}) {
    auto it = score.find(key);
    if (it != score.end() && it->is_array())
      *list = *it;
  }
  return true;
}

double number(const json& object, const char* key) {
  auto it = object.find(key);
  return it != object.end() && it->is_number() ? it->get<double>() : -1.0;
}

// Takes the first false event of this fence, type and time out of the list.
bool takeFalse(Marks& marks, const std::string& fence, const char* type, double t) {
  for (auto it = marks.falseEvents.begin(); it != marks.falseEvents.end(); ++it) {
    if (it->is_object() && field(*it, "fence") == fence && field(*it, "type") == type &&
        std::abs(number(*it, "t") - t) < 0.0005) {
      marks.falseEvents.erase(it);
      return true;
    }
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  auto start = zonaris::sim::defaultStartTime();
  Marks marks;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--start" && i + 1 < argc) {
      auto parsed = zonaris::sim::parseLocalTime(argv[++i]);
      if (!parsed) {
        std::fprintf(stderr, "zonaris-timeline: --start: not YYYY-MM-DDTHH:MM:SS: %s\n", argv[i]);
        return 2;
      }
      start = *parsed;
    } else if (arg == "--score" && i + 1 < argc) {
      if (!readMarks(argv[++i], marks)) {
        std::fprintf(stderr, "zonaris-timeline: --score: not a score file: %s\n", argv[i]);
        return 2;
      }
    } else {
      std::fprintf(stderr, "zonaris-timeline: unknown argument: %s\n", arg.c_str());
      return 2;
    }
  }

  int events = 0, messages = 0, falseCount = 0;
  std::vector<std::pair<double, std::string>> rows;  // in the order of the run
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
      // An event whose data holds only the application's own keys still yields a basic action,
      // with both texts "(null)": the timeline names that case rather than print the texts.
      const std::string title = field(first, "title"), body = field(first, "body"),
                        url = field(first, "url");
      const std::string said = title == "(null)" && body == "(null)"
                                   ? std::string("(data only)")
                                   : fmt::format("\"{}\": {}", title, body);
      out =
          fmt::format("{}  message     {}{}", when, said, url == "(null)" ? "" : " [" + url + "]");
    } else if (callback == "actionDataCallback")
      out = fmt::format(
          "{}  data        {}", when,
          first.is_object() && first.contains("values") ? text(first["values"]) : text(first));
    else
      continue;
    if (callback.rfind("event", 0) == 0) {
      ++events;
      const char* kind = callback == "eventEnterCallback"  ? "entry"
                         : callback == "eventExitCallback" ? "exit"
                                                           : "dwell";
      if (marks.given && takeFalse(marks, text(first), kind, t->get<double>())) {
        out += "   <- false";
        ++falseCount;
      }
    } else {
      ++messages;
    }
    rows.emplace_back(t->get<double>(), std::move(out));
  }
  // Missed events go in at their true time, after what the application heard at that time.
  for (const auto& missed : marks.missed) {
    if (!missed.is_object())
      continue;
    const double t = number(missed, "true_t");
    const auto at = std::upper_bound(rows.begin(), rows.end(), t,
                                     [](double v, const auto& row) { return v < row.first; });
    const auto flag = missed.find("in_outage");
    const bool outage = flag != missed.end() && flag->is_boolean() && flag->get<bool>();
    rows.insert(
        at, {t, fmt::format("{}  MISSED      {} {}{}", clockText(start, t), field(missed, "type"),
                            field(missed, "fence"), outage ? " (service away)" : "")});
  }
  for (const auto& [t, row] : rows)
    std::puts(row.c_str());
  std::printf("%d event(s), %d message callback(s)\n", events, messages);
  if (marks.given)
    std::printf("%zu missed, %d false\n", marks.missed.size(), falseCount);
  return 0;
}
