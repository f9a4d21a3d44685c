// Reading a run's JSON lines into what the report draws.
//
// Without dev mode the lines carry every delegate callback and the beacon lines the client
// always logs ("Started scan", "Stopped scan"). That is enough for the timeline, the events and
// their messages; a fix's position then comes from the trace at its time. Dev mode adds the
// exact fixes ("New location: ..."), the fence id of each event, the message data dropped in the
// silence window, failed observations, the error reports and unexpected failures.
#include "run_log.hpp"

#include <cmath>
#include <cstdio>
#include <string_view>

#include <fmt/format.h>

#include "zonaris/sim/input_error.hpp"

namespace zonaris::report_tool {

namespace {

using nlohmann::json;

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

std::optional<double> numberOrNull(const json& value) {
  if (value.is_number())
    return value.get<double>();
  return std::nullopt;
}

class Reader {
 public:
  Reader(RunLog& log, const std::string& name) : log_(log), name_(name) {}

  void line(std::string_view text) {
    ++number_;
    if (text.find_first_not_of(" \t\r") == std::string_view::npos)
      return;
    const json object = json::parse(text, nullptr, false);
    if (object.is_discarded() || !object.is_object())
      fail("not a JSON object");
    const auto t = object.find("t");
    const auto type = object.find("type");
    if (t == object.end() || !t->is_number() || !std::isfinite(t->get<double>()) ||
        type == object.end() || !type->is_string())
      fail("a line needs a number \"t\" and a text \"type\"");
    now_ = t->get<double>();
    ++log_.lines;
    if (now_ > log_.lastT)
      log_.lastT = now_;

    if (*type == "log") {
      const auto line = object.find("line");
      if (line == object.end() || !line->is_string())
        fail("a log line needs a text \"line\"");
      logLine(line->get_ref<const std::string&>());
    } else if (*type == "callback") {
      const auto name = object.find("name");
      const auto args = object.find("args");
      if (name == object.end() || !name->is_string() || args == object.end() || !args->is_array())
        fail("a callback needs a text \"name\" and an array \"args\"");
      callback(name->get_ref<const std::string&>(), *args);
    }
  }

  void finish() {
    if (scanStart_)
      log_.scans.push_back({*scanStart_, log_.lastT});
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw sim::InputError(fmt::format("{}:{}: {}", name_, number_, what));
  }

  void logLine(const std::string& line) {
    if (expectExceptionBody_) {
      expectExceptionBody_ = false;
      const json body = json::parse(line, nullptr, false);
      if (body.is_object() && body.contains("data") && body["data"].is_object() &&
          body["data"].contains("reason") && body["data"]["reason"].is_string()) {
        log_.errors.back().reason = body["data"]["reason"].get<std::string>();
        return;
      }
    }
    if (line == "Started scan") {
      scanStart_ = now_;
    } else if (line == "Stopped scan") {
      if (scanStart_)
        log_.scans.push_back({*scanStart_, now_});
      scanStart_.reset();
    } else if (startsWith(line, "Zonaris: unexpected failure in ")) {
      log_.errors.push_back({now_, line.substr(9)});
    } else if (startsWith(line, "New location: ")) {
      log_.devMode = true;
      double lat = 0, lon = 0, speed = 0, accuracy = 0;
      if (std::sscanf(line.c_str() + 14, "%lf, %lf, %lf, %lf", &lat, &lon, &speed, &accuracy) ==
          4) {
        Fix fix{now_, "log", lat, lon, accuracy, std::nullopt, false};
        log_.fixes.push_back(fix);
      }
    } else if (line == "Sending exception...") {
      log_.devMode = true;
      log_.errors.push_back({now_, "(reason not logged)"});
      expectExceptionBody_ = true;
    } else if (line == "Observation wasn't sent!") {
      log_.observations.push_back({now_, false});
    } else if (startsWith(line, "    Event id        = ")) {
      log_.devMode = true;
      pendingData_.reset();
      pendingId_.reset();
    } else if (startsWith(line, "    Message data    = ")) {
      const std::string data = line.substr(22);
      if (data != "(null)")
        pendingData_ = data;
    } else if (startsWith(line, "Confirmed ")) {
      long long id = 0;
      char type[16] = {};
      if (std::sscanf(line.c_str(), "Confirmed %15s for %lld", type, &id) == 2)
        pendingId_ = id;
    } else if (startsWith(line, "Silence time: YES")) {
      if (current_)
        log_.events[*current_].silenced = true;
    }
  }

  Fix& fixNow() {
    if (log_.fixes.empty() || log_.fixes.back().t != now_)
      log_.fixes.push_back(
          Fix{now_, "trace", std::nullopt, std::nullopt, std::nullopt, std::nullopt, false});
    return log_.fixes.back();
  }

  void event(const std::string& type, const json& args) {
    if (args.size() != 1 || !(args[0].is_string() || args[0].is_null()))
      fail("an event callback needs [name or null]");
    Event e;
    e.t = now_;
    e.type = type;
    if (args[0].is_string())
      e.name = args[0].get<std::string>();
    e.id = pendingId_;
    e.sentData = pendingData_;
    pendingId_.reset();
    pendingData_.reset();
    log_.events.push_back(std::move(e));
    current_ = log_.events.size() - 1;
  }

  void callback(const std::string& name, const json& args) {
    // A message belongs to the event confirmed just before it, in the same instant.
    if (current_ && log_.events[*current_].t != now_)
      current_.reset();

    auto number = [&](std::vector<TimedValue>& series) {
      if (args.size() != 1 || !(args[0].is_number() || args[0].is_null()))
        fail(name + " needs [number]");
      series.push_back({now_, numberOrNull(args[0])});
    };

    if (name == "updatedInitLocation") {
      if (args.size() != 1 || !args[0].is_object())
        fail("updatedInitLocation needs [location]");
      const json& l = args[0];
      Fix* fix = nullptr;
      if (!log_.fixes.empty() && log_.fixes.back().t == now_ && log_.fixes.back().source == "log")
        fix = &log_.fixes.back();
      else
        fix = &fixNow();
      fix->init = true;
      if (fix->source != "log") {
        fix->source = "callback";
        fix->latitude = l.contains("latitude") ? numberOrNull(l["latitude"]) : std::nullopt;
        fix->longitude = l.contains("longitude") ? numberOrNull(l["longitude"]) : std::nullopt;
        fix->accuracy =
            l.contains("horizontalAccuracy") ? numberOrNull(l["horizontalAccuracy"]) : std::nullopt;
        if (!fix->latitude || !fix->longitude)
          fix->source = "trace";
      }
    } else if (name == "updatedInterval") {
      if (args.size() != 1 || !args[0].is_number_integer() ||
          args[0].get<std::int64_t>() != args[0].get<std::int32_t>())
        fail("updatedInterval needs [seconds]");
      fixNow().interval = args[0].get<std::int32_t>();
    } else if (name == "updatedGPSAccuracy") {
      number(log_.accuracy);
      if (!log_.fixes.empty() && log_.fixes.back().t == now_ && !log_.fixes.back().accuracy)
        log_.fixes.back().accuracy = log_.accuracy.back().value;
    } else if (name == "updatedSpeed") {
      number(log_.speed);
    } else if (name == "updatedAvgSpeed") {
      number(log_.averageSpeed);
    } else if (name == "updatedDistanceToNearestFence") {
      if (args.size() != 2 || !(args[0].is_number() || args[0].is_null()) || !args[1].is_boolean())
        fail("updatedDistanceToNearestFence needs [metres, inside]");
      log_.distance.push_back({now_, numberOrNull(args[0]), args[1].get<bool>()});
    } else if (name == "reportSent") {
      log_.observations.push_back({now_, true});
    } else if (name == "eventEnterCallback") {
      event("entry", args);
    } else if (name == "eventExitCallback") {
      event("exit", args);
    } else if (name == "eventDwellCallback") {
      event("dwell", args);
    } else if (name == "actionBasicCallback" || name == "actionDataCallback") {
      if (args.size() != 1 || !args[0].is_object())
        fail(name + " needs [object]");
      if (current_)
        (name == "actionBasicCallback" ? log_.events[*current_].basic
                                       : log_.events[*current_].data) = args[0];
    }
  }

  RunLog& log_;
  const std::string& name_;
  std::uint64_t number_ = 0;
  double now_ = 0.0;
  std::optional<double> scanStart_;
  std::optional<std::size_t> current_;  ///< the event a message in this instant belongs to
  std::optional<std::int64_t> pendingId_;
  std::optional<std::string> pendingData_;
  bool expectExceptionBody_ = false;
};

}  // namespace

RunLog readRunLog(std::istream& in, const std::string& name) {
  RunLog log;
  Reader reader(log, name);
  for (std::string text; std::getline(in, text);)
    reader.line(text);
  if (in.bad())
    throw sim::InputError(name + ": cannot be read");
  reader.finish();
  return log;
}

}  // namespace zonaris::report_tool
