// The report's data and the page that carries it.
#include "report.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string_view>

#include <fmt/format.h>

#include "assets.hpp"
#include "geometry.hpp"

namespace zonaris::report_tool {

namespace {

using nlohmann::json;

// A day of 1 Hz points drawn as a line within 2 m of the original, and never more than this
// many points: about 25 bytes each in the page.
constexpr double kTrackToleranceMetres = 2.0;
constexpr std::size_t kMaxTrackPoints = 40000;

json orNull(const std::optional<double>& value, int decimals) {
  return value && std::isfinite(*value) ? json(rounded(*value, decimals)) : json(nullptr);
}

struct Position {
  double latitude = 0.0, longitude = 0.0;
};

Position traceAt(const sim::Trace& trace, double t) {
  const auto fix = trace.at(t);
  return {fix.latitude, fix.longitude};
}

// The fix the client held at `t`: the last one taken at or before it.
const Fix* fixAt(const std::vector<Fix>& fixes, double t) {
  auto after = std::upper_bound(fixes.begin(), fixes.end(), t,
                                [](double time, const Fix& fix) { return time < fix.t; });
  return after == fixes.begin() ? nullptr : &*(after - 1);
}

json positionJson(const Position& p) {
  return json::array({rounded(p.latitude, 6), rounded(p.longitude, 6)});
}

// Seconds since midnight of the start, and its date.
std::pair<std::string, double> clockOf(platform::TimePoint start) {
  using namespace std::chrono;
  const auto day = floor<days>(start);
  const year_month_day date{day};
  return {fmt::format("{:04d}-{:02d}-{:02d}", static_cast<int>(date.year()),
                      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day())),
          duration<double>(start - day).count()};
}

json fencesJson(const ReportInputs& in) {
  json out = json::array();
  for (std::size_t i = 0; i < in.fences.size(); ++i) {
    const auto& fence = in.fences[i];
    json f = {{"id", fence.id},
              {"name", in.fenceNames[i]},
              {"type", fence.type},
              {"radius", fence.radius},
              {"takesPart", fence.takesPart},
              {"dwell", fence.dwellWindows},
              {"shape", geoJsonOfWkt(fence.location).value_or(json(nullptr))}};
    if (fence.type == "beacon")
      f["beacon"] = fmt::format("{} {}/{}", fence.uuid, fence.major, fence.minor);
    out.push_back(std::move(f));
  }
  return out;
}

json fixesJson(const ReportInputs& in, std::vector<Position>& positions) {
  json out = json::array();
  for (const Fix& fix : in.run.fixes) {
    Position p = fix.latitude && fix.longitude ? Position{*fix.latitude, *fix.longitude}
                                               : traceAt(in.trace, fix.t);
    positions.push_back(p);
    out.push_back(json::array(
        {fix.t, rounded(p.latitude, 6), rounded(p.longitude, 6), orNull(fix.accuracy, 1),
         fix.interval ? json(*fix.interval) : json(nullptr), fix.source, fix.init ? 1 : 0}));
  }
  return out;
}

json seriesJson(const std::vector<TimedValue>& series) {
  json out = json::array();
  for (const auto& v : series)
    out.push_back(json::array({v.t, orNull(v.value, 2)}));
  return out;
}

const json* arrayIn(const json& object, const char* key) {
  if (!object.is_object())
    return nullptr;
  auto it = object.find(key);
  return it != object.end() && it->is_array() ? &*it : nullptr;
}

std::optional<double> numberIn(const json& object, const char* key) {
  auto it = object.find(key);
  return it != object.end() && it->is_number() ? std::optional(it->get<double>()) : std::nullopt;
}

std::optional<std::int64_t> fenceIdOf(const ReportInputs& in, const Event& event) {
  if (event.id)
    return event.id;
  for (std::size_t i = 0; i < in.fences.size(); ++i) {
    if (event.name && in.fenceNames[i] == *event.name)
      return in.fences[i].id;
  }
  return std::nullopt;
}

json eventsJson(const ReportInputs& in, const std::vector<Position>& fixPositions) {
  const json* matched = arrayIn(in.score, "matched");
  json out = json::array();
  for (const Event& event : in.run.events) {
    const Fix* fix = fixAt(in.run.fixes, event.t);
    const Position p = fix ? fixPositions[static_cast<std::size_t>(fix - in.run.fixes.data())]
                           : traceAt(in.trace, event.t);
    const auto id = fenceIdOf(in, event);
    json e = {
        {"t", event.t},
        {"type", event.type},
        {"name", event.name ? json(*event.name) : json(nullptr)},
        {"id", id ? json(*id) : json(nullptr)},
        {"at", positionJson(p)},
        {"basic", event.basic},
        {"data", event.data.is_object() && event.data.contains("values") ? event.data["values"]
                                                                         : event.data},
        {"sent", event.sentData ? json(*event.sentData) : json(nullptr)},
        {"silenced", event.silenced}};
    // The score's match for this event gives the true crossing and the latency.
    for (const json& m : matched ? *matched : json::array()) {
      if (!m.is_object() || !m.contains("type") || m["type"] != event.type)
        continue;
      const auto t = numberIn(m, "t");
      const auto mid = m.find("id");
      if (!t || std::fabs(*t - event.t) > 0.5 || !id || mid == m.end() ||
          !mid->is_number_integer() || mid->get<std::int64_t>() != *id)
        continue;
      e["trueT"] = orNull(numberIn(m, "true_t"), 1);
      e["latency"] = orNull(numberIn(m, "latency"), 1);
      break;
    }
    out.push_back(std::move(e));
  }
  return out;
}

// The score as the page needs it: its missed and false events placed on the map, the rest
// passed through for the summary panel.
json scoreJson(const ReportInputs& in, const std::vector<Position>& fixPositions) {
  if (!in.score.is_object())
    return nullptr;
  // The summary of a score (this run's, or the fixed 15 s sampler's): counts, not lists.
  auto summary = [](const json& score) {
    json out = json::object();
    for (const char* key :
         {"latency", "hours", "fixes", "requests_per_hour", "lost_visits", "outages"}) {
      if (score.contains(key))
        out[key] = score[key];
    }
    for (const char* key : {"truth", "matched", "missed", "false"}) {
      if (const json* list = arrayIn(score, key))
        out[std::string(key) + "Count"] = list->size();
    }
    return out;
  };
  json out = summary(in.score);
  if (in.score.contains("baseline_15s") && in.score["baseline_15s"].is_object())
    out["baseline"] = summary(in.score["baseline_15s"]);
  auto place = [&](const char* key, const char* timeKey, bool atFix) {
    json list = json::array();
    if (const json* items = arrayIn(in.score, key)) {
      for (const json& item : *items) {
        const auto t = item.is_object() ? numberIn(item, timeKey) : std::nullopt;
        if (!t)
          continue;
        json placed = item;
        const Fix* fix = atFix ? fixAt(in.run.fixes, *t) : nullptr;
        placed["at"] =
            positionJson(fix ? fixPositions[static_cast<std::size_t>(fix - in.run.fixes.data())]
                             : traceAt(in.trace, *t));
        list.push_back(std::move(placed));
      }
    }
    out[key] = std::move(list);
  };
  // A missed event is drawn where the device truly crossed; a false one where the client
  // stood when it was told.
  place("missed", "true_t", false);
  place("false", "t", true);
  return out;
}

json silenceJson(const ReportInputs& in, double end, double startClock) {
  json spans = json::array();
  if (!in.silence)
    return spans;
  // Walk the clock hours the run covers; merge neighbouring silent hours into one span.
  const double firstHour = std::floor(startClock / 3600.0) * 3600.0 - startClock;
  for (double h = firstHour; h < end; h += 3600.0) {
    const int hour = static_cast<int>(std::fmod((startClock + h) / 3600.0 + 0.5, 24.0));
    if (!silencedHour(hour, in.silence->first, in.silence->second))
      continue;
    const double a = std::max(0.0, h), b = std::min(end, h + 3600.0);
    if (!spans.empty() && spans.back()[1].get<double>() >= a)
      spans.back()[1] = b;
    else
      spans.push_back(json::array({a, b}));
  }
  return spans;
}

void appendEscapedHtml(std::string& out, std::string_view text) {
  for (char c : text) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
}

}  // namespace

bool silencedHour(int hour, int start, int stop) {
  if (stop >= start)
    return start < hour && hour < stop;
  return hour >= start || hour <= stop;
}

json reportData(const ReportInputs& in) {
  const auto [date, startClock] = clockOf(in.start);
  const double end = std::max(in.run.lastT, in.trace.duration());

  std::vector<std::array<double, 2>> track;
  track.reserve(in.trace.points().size());
  for (const auto& p : in.trace.points())
    track.push_back({p.latitude, p.longitude});
  json trace = json::array();
  for (const auto& p : simplifyTrack(track, kTrackToleranceMetres, kMaxTrackPoints))
    trace.push_back(json::array({p[0], p[1]}));

  std::vector<Position> fixPositions;
  json data = {{"title", in.title},
               {"startDate", date},
               {"startClock", startClock},
               {"end", end},
               {"devMode", in.run.devMode},
               {"lines", in.run.lines},
               {"fences", fencesJson(in)},
               {"trace", std::move(trace)},
               {"fixes", fixesJson(in, fixPositions)},
               {"speed", seriesJson(in.run.speed)},
               {"avgSpeed", seriesJson(in.run.averageSpeed)}};
  data["events"] = eventsJson(in, fixPositions);
  data["score"] = scoreJson(in, fixPositions);

  json distance = json::array();
  for (const auto& d : in.run.distance)
    distance.push_back(json::array({d.t, orNull(d.metres, 1), d.inside ? 1 : 0}));
  data["distance"] = std::move(distance);

  json scans = json::array();
  for (const auto& s : in.run.scans)
    scans.push_back(json::array({s.start, s.stop}));
  data["scans"] = std::move(scans);

  json sightings = json::array();
  if (in.sightings) {
    for (const auto& s : in.sightings->sightings())
      sightings.push_back(
          json::array({s.tStart, s.tEnd, fmt::format("{}/{}", s.beacon.major, s.beacon.minor)}));
  }
  data["sightings"] = std::move(sightings);

  json observations = json::array();
  for (const auto& o : in.run.observations)
    observations.push_back(json::array({o.t, o.reached ? 1 : 0}));
  data["observations"] = std::move(observations);

  json errors = json::array();
  for (const auto& e : in.run.errors)
    errors.push_back(json::array({e.t, e.reason}));
  data["errors"] = std::move(errors);

  data["silence"] = silenceJson(in, end, startClock);
  data["silenceHours"] =
      in.silence ? json::array({in.silence->first, in.silence->second}) : json(nullptr);
  return data;
}

std::string renderPage(const ReportInputs& in) {
  // '<' only ever appears inside JSON strings, where \u003c means the same; so the data can
  // never close its script element.
  std::string data;
  for (char c : reportData(in).dump(-1, ' ', false, json::error_handler_t::replace)) {
    if (c == '<')
      data += "\\u003c";
    else
      data += c;
  }

  // The template is cut at its @@NAME@@ marks; what goes in is never searched for marks.
  const std::string_view page = assets::pageHtml;
  std::string out;
  out.reserve(page.size() + assets::leafletJs.size() + assets::chartJs.size() + data.size() +
              65536);
  std::size_t from = 0;
  while (true) {
    const std::size_t mark = page.find("@@", from);
    const std::size_t close = mark == std::string_view::npos ? mark : page.find("@@", mark + 2);
    if (close == std::string_view::npos) {
      out.append(page.substr(from));
      break;
    }
    out.append(page.substr(from, mark - from));
    const std::string_view name = page.substr(mark + 2, close - mark - 2);
    if (name == "TITLE")
      appendEscapedHtml(out, in.title);
    else if (name == "LEAFLET_CSS")
      out.append(assets::leafletCss);
    else if (name == "PAGE_CSS")
      out.append(assets::pageCss);
    else if (name == "LEAFLET_JS")
      out.append(assets::leafletJs);
    else if (name == "CHART_JS")
      out.append(assets::chartJs);
    else if (name == "PAGE_JS")
      out.append(assets::pageJs);
    else if (name == "DATA")
      out.append(data);
    else
      out.append(page.substr(mark, close + 2 - mark));
    from = close + 2;
  }
  return out;
}

}  // namespace zonaris::report_tool
