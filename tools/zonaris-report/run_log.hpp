#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zonaris::report_tool {

/// One position fix the client accepted (every fix it armed for and used).
struct Fix {
  double t = 0.0;
  /// Where the position came from: "log" (a dev-mode "New location" line, the exact fix),
  /// "callback" (updatedInitLocation) or "trace" (no position in the lines: the trace at `t`).
  std::string source;
  std::optional<double> latitude, longitude;  ///< unset for "trace" until the trace fills them
  std::optional<double> accuracy;             ///< metres
  std::optional<std::int32_t> interval;       ///< seconds to the next fix; unset after an init fix
  bool init = false;                          ///< became the reference position (fence download)
};

/// A confirmed entry, exit or dwell, with the message the service attached to it.
struct Event {
  double t = 0.0;
  std::string type;                 ///< "entry", "exit", "dwell"
  std::optional<std::string> name;  ///< the fence's name as the client reported it
  std::optional<std::int64_t> id;   ///< from the dev-mode "Confirmed ... for ID" line
  /// What the application got: {"title","body","url"} and/or {"values"}; null when nothing.
  nlohmann::json basic, data;
  /// The message data the service sent (dev mode only), whether delivered or not.
  std::optional<std::string> sentData;
  bool silenced = false;  ///< dev mode: the message was dropped in the silence window
};

struct TimedValue {
  double t = 0.0;
  std::optional<double> value;  ///< null in the lines (a non-finite number)
};

struct Distance {
  double t = 0.0;
  std::optional<double> metres;
  bool inside = false;
};

struct Span {
  double start = 0.0, stop = 0.0;
};

/// An error report the client sent (dev mode), or a failure it logged.
struct ErrorReport {
  double t = 0.0;
  std::string reason;
};

struct Observation {
  double t = 0.0;
  bool reached = true;  ///< false: dev mode logged "Observation wasn't sent!"
};

/// What a run of zonaris-sim or zonaris-agent shows in its JSON lines.
struct RunLog {
  std::vector<Fix> fixes;
  std::vector<Event> events;
  std::vector<TimedValue> speed, averageSpeed, accuracy;
  std::vector<Distance> distance;
  std::vector<Span> scans;  ///< beacon scanning windows ("Started scan" .. "Stopped scan")
  std::vector<Observation> observations;
  std::vector<ErrorReport> errors;
  std::uint64_t lines = 0;
  double lastT = 0.0;
  bool devMode = false;  ///< any dev-mode line was seen
};

/// Reads the JSON lines from `in`. Throws sim::InputError naming `name` and the line number when a
/// line is not a JSON object with a number "t" and a text "type", or a known callback has
/// arguments of the wrong kind. Blank lines, unknown types, callbacks and log lines are skipped.
RunLog readRunLog(std::istream& in, const std::string& name);

}  // namespace zonaris::report_tool
