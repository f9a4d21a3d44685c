// Reading traces (GPX 1.0/1.1 and CSV), timed or at a pace, and the position of the device at any
// moment of one.
#include "zonaris/sim/trace.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <fstream>
#include <iterator>
#include <sstream>

#include <fmt/format.h>
#include <pugixml.hpp>

#include "zonaris/sim/input_error.hpp"

namespace zonaris::sim {

namespace {

// Accuracy of a fix whose trace gives none, and metres per unit of GPX horizontal dilution.
// Phones report roughly 5 m outdoors with a good sky view; hdop 1 is such a sky.
constexpr double kDefaultAccuracy = 5.0;
constexpr double kMetresPerHdop = 5.0;

[[noreturn]] void fail(const std::string& name, std::size_t line, const std::string& message) {
  throw InputError(fmt::format("{}:{}: {}", name, line, message));
}

std::string_view trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos)
    return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

// A finite decimal number taking the whole text (surrounding blanks allowed), or nothing.
std::optional<double> parseNumber(std::string_view text) {
  text = trim(text);
  if (!text.empty() && text.front() == '+')
    text.remove_prefix(1);
  if (text.empty())
    return std::nullopt;
  double value = 0.0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
    return std::nullopt;
  return value;
}

// Checks what every point must satisfy, whatever the format.
void checkPoint(const TracePoint& p, const std::string& name, std::size_t line) {
  if (p.latitude < -90.0 || p.latitude > 90.0)
    fail(name, line, fmt::format("latitude {} is out of range (-90 to 90)", p.latitude));
  if (p.longitude < -180.0 || p.longitude > 180.0)
    fail(name, line, fmt::format("longitude {} is out of range (-180 to 180)", p.longitude));
  if (p.horizontalAccuracy < 0.0)
    fail(name, line, "accuracy must not be negative");
  if (p.speed && *p.speed < 0.0)
    fail(name, line, "speed must not be negative");
}

std::size_t lineAt(std::string_view text, std::ptrdiff_t offset) {
  if (offset < 0)
    return 1;
  const auto end = std::min<std::size_t>(static_cast<std::size_t>(offset), text.size());
  return 1 + static_cast<std::size_t>(std::count(text.begin(), text.begin() + end, '\n'));
}

// ---- ISO 8601 date and time --------------------------------------------------------------

struct IsoTime {
  platform::TimePoint instant;  // the absolute moment (UTC)
  platform::TimePoint local;    // the clock reading as written, without its offset
};

bool digits(std::string_view text, std::size_t pos, std::size_t count, int& out) {
  if (pos + count > text.size())
    return false;
  out = 0;
  for (std::size_t i = pos; i < pos + count; ++i) {
    if (text[i] < '0' || text[i] > '9')
      return false;
    out = out * 10 + (text[i] - '0');
  }
  return true;
}

// "YYYY-MM-DDTHH:MM:SS[.fraction][Z|+HH:MM|-HH:MM|+HHMM|-HHMM]". A time without a zone is
// read as UTC, as GPX prescribes.
std::optional<IsoTime> parseIsoTime(std::string_view text) {
  text = trim(text);
  int y, mo, d, h, mi, s;
  if (text.size() < 19 || !digits(text, 0, 4, y) || text[4] != '-' || !digits(text, 5, 2, mo) ||
      text[7] != '-' || !digits(text, 8, 2, d) || (text[10] != 'T' && text[10] != 't') ||
      !digits(text, 11, 2, h) || text[13] != ':' || !digits(text, 14, 2, mi) || text[16] != ':' ||
      !digits(text, 17, 2, s)) {
    return std::nullopt;
  }
  using namespace std::chrono;
  const year_month_day date{year{y}, month{static_cast<unsigned>(mo)},
                            day{static_cast<unsigned>(d)}};
  // Time points count nanoseconds in 64 bits, which reach from 1677 to 2262; a year outside
  // 1700 to 2200 is refused rather than overflowing.
  if (!date.ok() || y < 1700 || y > 2200 || h > 23 || mi > 59 || s > 60)
    return std::nullopt;
  std::size_t pos = 19;
  nanoseconds fraction{0};
  if (pos < text.size() && (text[pos] == '.' || text[pos] == ',')) {
    ++pos;
    const std::size_t first = pos;
    std::int64_t scale = 100'000'000;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      fraction += nanoseconds{(text[pos] - '0') * scale};
      scale /= 10;
      ++pos;
    }
    if (pos == first)
      return std::nullopt;
  }
  minutes offset{0};
  if (pos < text.size()) {
    const char sign = text[pos];
    if (sign == 'Z' || sign == 'z') {
      ++pos;
    } else if (sign == '+' || sign == '-') {
      int oh, om;
      if (!digits(text, pos + 1, 2, oh))
        return std::nullopt;
      pos += 3;
      if (pos < text.size() && text[pos] == ':')
        ++pos;
      if (!digits(text, pos, 2, om) || oh > 23 || om > 59)
        return std::nullopt;
      pos += 2;
      offset = (sign == '+' ? 1 : -1) * (hours{oh} + minutes{om});
    }
  }
  if (pos != text.size())
    return std::nullopt;
  const platform::TimePoint local{sys_days{date} + hours{h} + minutes{mi} + seconds{s} +
                                  duration_cast<platform::Duration>(fraction)};
  return IsoTime{local - offset, local};
}

// ---- GPX ---------------------------------------------------------------------------------

// Element names compared without their namespace prefix: files come with the default GPX
// namespace, with none, or with a prefix such as "gpx:".
std::string_view localName(const pugi::xml_node& node) {
  std::string_view name = node.name();
  const auto colon = name.find(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

pugi::xml_node child(const pugi::xml_node& node, std::string_view name) {
  for (auto c : node.children()) {
    if (c.type() == pugi::node_element && localName(c) == name)
      return c;
  }
  return {};
}

// The first element named `name` anywhere below `node`, depth first.
pugi::xml_node descendant(const pugi::xml_node& node, std::string_view name) {
  for (auto c : node.children()) {
    if (c.type() != pugi::node_element)
      continue;
    if (localName(c) == name)
      return c;
    if (auto found = descendant(c, name))
      return found;
  }
  return {};
}

void collect(const pugi::xml_node& node, std::string_view name, std::vector<pugi::xml_node>& out) {
  for (auto c : node.children()) {
    if (c.type() != pugi::node_element)
      continue;
    if (localName(c) == name)
      out.push_back(c);
    else
      collect(c, name, out);
  }
}

}  // namespace

Trace Trace::parseGpx(std::string_view text, const std::string& name, std::optional<double> pace) {
  pugi::xml_document doc;
  const auto parsed = doc.load_buffer(text.data(), text.size(), pugi::parse_default);
  if (!parsed)
    fail(name, lineAt(text, parsed.offset), fmt::format("not XML: {}", parsed.description()));
  const auto root = doc.document_element();
  if (localName(root) != "gpx") {
    fail(name, lineAt(text, root.offset_debug()),
         fmt::format("not a GPX file: the root element is <{}>", root.name()));
  }

  auto line = [&](const pugi::xml_node& n) { return lineAt(text, n.offset_debug()); };

  std::vector<pugi::xml_node> nodes;
  collect(root, "trkpt", nodes);
  if (nodes.empty()) {
    // A route or a set of waypoints is a trip when every point says when it was there, or at a
    // pace.
    collect(root, "rtept", nodes);
    if (nodes.empty())
      collect(root, "wpt", nodes);
    if (nodes.empty())
      fail(name, line(root), "no track points (<trkpt>) in this GPX file");
  }

  Trace trace;
  platform::TimePoint firstInstant{};
  platform::TimePoint previous{};
  for (const auto& node : nodes) {
    const auto at = line(node);
    const std::string kind(localName(node));
    TracePoint p;
    const auto lat = parseNumber(node.attribute("lat").value());
    const auto lon = parseNumber(node.attribute("lon").value());
    if (!lat)
      fail(name, at, fmt::format("<{}> has no valid lat attribute", kind));
    if (!lon)
      fail(name, at, fmt::format("<{}> has no valid lon attribute", kind));
    p.latitude = *lat;
    p.longitude = *lon;

    if (!pace) {
      const auto timeNode = child(node, "time");
      if (!timeNode) {
        fail(name, at,
             fmt::format("<{}> has no <time>; a trace needs the time of every point, or --pace "
                         "M/S to replay it at that speed",
                         kind));
      }
      const auto time = parseIsoTime(timeNode.child_value());
      if (!time) {
        fail(name, line(timeNode),
             fmt::format("<time> \"{}\" is not an ISO 8601 date and time",
                         std::string(trim(timeNode.child_value()))));
      }
      if (trace.points_.empty()) {
        firstInstant = time->instant;
        trace.startTime_ = time->local;
      } else if (time->instant < previous) {
        fail(name, line(timeNode), "times must not go back");
      }
      previous = time->instant;
      p.t = std::chrono::duration<double>(time->instant - firstInstant).count();
    }

    if (const auto hdopNode = child(node, "hdop")) {
      const auto hdop = parseNumber(hdopNode.child_value());
      if (!hdop)
        fail(name, line(hdopNode), "<hdop> is not a number");
      p.horizontalAccuracy = *hdop * kMetresPerHdop;
    } else {
      p.horizontalAccuracy = kDefaultAccuracy;
    }

    // GPX 1.0 puts <speed> in the point itself; GPX 1.1 files carry it in <extensions>
    // (for example gpxtpx:TrackPointExtension/gpxtpx:speed).
    auto speedNode = child(node, "speed");
    if (!speedNode) {
      if (const auto extensions = child(node, "extensions"))
        speedNode = descendant(extensions, "speed");
    }
    if (speedNode) {
      const auto speed = parseNumber(speedNode.child_value());
      if (!speed)
        fail(name, line(speedNode), "<speed> is not a number");
      p.speed = *speed;
    }
    checkPoint(p, name, at);
    trace.points_.push_back(p);
  }
  if (pace)
    trace.timeByPace(*pace);
  return trace;
}

Trace Trace::parseCsv(std::string_view text, const std::string& name, std::optional<double> pace) {
  Trace trace;
  double firstT = 0.0;
  std::size_t lineNumber = 0;
  bool headerAllowed = true;
  while (!text.empty()) {
    const auto newline = text.find('\n');
    const auto raw = text.substr(0, newline);
    text = newline == std::string_view::npos ? std::string_view{} : text.substr(newline + 1);
    ++lineNumber;
    const auto content = trim(raw);
    if (content.empty() || content.front() == '#')
      continue;

    std::vector<std::string_view> fields;
    std::string_view rest = content;
    for (;;) {
      const auto comma = rest.find(',');
      fields.push_back(trim(rest.substr(0, comma)));
      if (comma == std::string_view::npos)
        break;
      rest = rest.substr(comma + 1);
    }
    // The first line may name the columns.
    if (headerAllowed && !fields[0].empty() &&
        std::isalpha(static_cast<unsigned char>(fields[0].front())) && !parseNumber(fields[0])) {
      headerAllowed = false;
      continue;
    }
    headerAllowed = false;
    if (fields.size() < 3 || fields.size() > 5) {
      fail(name, lineNumber,
           fmt::format("expected t,lat,lon[,accuracy][,speed] but found {} fields", fields.size()));
    }
    static constexpr const char* kColumns[] = {"t", "lat", "lon", "accuracy", "speed"};
    double values[5] = {0, 0, 0, kDefaultAccuracy, 0};
    bool given[5] = {};
    for (std::size_t i = 0; i < fields.size(); ++i) {
      // An empty optional column means "not given".
      if (i >= 3 && fields[i].empty())
        continue;
      const auto value = parseNumber(fields[i]);
      if (!value) {
        fail(name, lineNumber,
             fmt::format("{} \"{}\" is not a number", kColumns[i], std::string(fields[i])));
      }
      values[i] = *value;
      given[i] = true;
    }
    TracePoint p;
    if (trace.points_.empty())
      firstT = values[0];
    p.t = values[0] - firstT;
    if (!trace.points_.empty() && p.t < trace.points_.back().t)
      fail(name, lineNumber, "times must not go back");
    p.latitude = values[1];
    p.longitude = values[2];
    p.horizontalAccuracy = values[3];
    if (given[4])
      p.speed = values[4];
    checkPoint(p, name, lineNumber);
    trace.points_.push_back(p);
  }
  if (trace.points_.empty())
    fail(name, std::max<std::size_t>(lineNumber, 1), "no points in this trace");
  if (pace)
    trace.timeByPace(*pace);
  return trace;
}

void Trace::timeByPace(double metresPerSecond) {
  startTime_.reset();
  double t = 0.0;
  for (std::size_t i = 0; i < points_.size(); ++i) {
    auto& p = points_[i];
    if (i > 0) {
      const auto& q = points_[i - 1];
      platform::Location from, to;
      from.latitude = q.latitude;
      from.longitude = q.longitude;
      to.latitude = p.latitude;
      to.longitude = p.longitude;
      t += from.distanceFrom(to) / metresPerSecond;
    }
    p.t = t;
    p.speed = metresPerSecond;
  }
}

Trace Trace::load(const std::string& path, std::optional<double> pace) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw InputError(fmt::format("{}: cannot be opened", path));
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (in.bad())
    throw InputError(fmt::format("{}: cannot be read", path));
  std::string extension;
  if (const auto dot = path.find_last_of('.'); dot != std::string::npos)
    extension = path.substr(dot + 1);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension == "gpx" ? parseGpx(text, path, pace) : parseCsv(text, path, pace);
}

double Trace::duration() const {
  return points_.empty() ? 0.0 : points_.back().t - points_.front().t;
}

platform::Location Trace::at(double secondsSinceStart) const {
  platform::Location fix;
  if (points_.empty())
    return fix;
  // The segment [a, b] with a.t <= t < b.t; before the first point and from the last point
  // on, the device stands still.
  const auto next = std::upper_bound(points_.begin(), points_.end(), secondsSinceStart,
                                     [](double t, const TracePoint& p) { return t < p.t; });
  if (next == points_.begin() || next == points_.end()) {
    const TracePoint& p = next == points_.end() ? points_.back() : points_.front();
    fix.latitude = p.latitude;
    fix.longitude = p.longitude;
    fix.horizontalAccuracy = p.horizontalAccuracy;
    fix.speed = 0.0;
    return fix;
  }
  const TracePoint& a = *(next - 1);
  const TracePoint& b = *next;
  const double span = b.t - a.t;  // > 0: b.t > t >= a.t
  const double f = (secondsSinceStart - a.t) / span;
  auto lerp = [f](double x, double y) { return x + (y - x) * f; };
  fix.latitude = lerp(a.latitude, b.latitude);
  // Across the antimeridian the short way round is the way the device went.
  double lonB = b.longitude;
  if (lonB - a.longitude > 180.0)
    lonB -= 360.0;
  else if (a.longitude - lonB > 180.0)
    lonB += 360.0;
  fix.longitude = lerp(a.longitude, lonB);
  if (fix.longitude > 180.0)
    fix.longitude -= 360.0;
  else if (fix.longitude < -180.0)
    fix.longitude += 360.0;
  fix.horizontalAccuracy = lerp(a.horizontalAccuracy, b.horizontalAccuracy);
  if (a.speed && b.speed) {
    fix.speed = lerp(*a.speed, *b.speed);
  } else if (a.speed || b.speed) {
    fix.speed = a.speed ? *a.speed : *b.speed;
  } else {
    platform::Location from, to;
    from.latitude = a.latitude;
    from.longitude = a.longitude;
    to.latitude = b.latitude;
    to.longitude = b.longitude;
    fix.speed = from.distanceFrom(to) / span;
  }
  return fix;
}

}  // namespace zonaris::sim
