// Beacon sightings for the simulated location service, read from CSV.
//
// Format, one sighting per line:
//
//   t_start,t_end,uuid,major,minor,accuracy,proximity
//
// - t_start, t_end: seconds since the simulation's start, finite, 0 <= t_start < t_end. A
//   sighting is visible for t_start <= t < t_end: the start is included, the end is not, so
//   "0,10,..." followed by "10,20,..." never shows both at once.
// - uuid: the proximity UUID in 8-4-4-4-12 hexadecimal form, either case; stored upper case.
// - major, minor: whole numbers 0 to 65535, the range the beacon advertisement carries.
// - accuracy: estimated distance in metres, finite; negative means the device could not
//   estimate it.
// - proximity: 0 unknown, 1 immediate, 2 near, 3 far.
//
// Blank lines and lines whose first non-blank character is '#' are skipped. The first other
// line is taken as a header when its first field starts with a letter. Fields may be
// surrounded by blanks; CRLF line ends are accepted. Anything else is an InputError
// "name:line: message".
#include "zonaris/sim/beacon_sightings.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <sstream>

#include <fmt/format.h>

#include "zonaris/sim/input_error.hpp"

namespace zonaris::sim {

namespace {

constexpr std::size_t kColumns = 7;
constexpr long long kMaxBeaconNumber = 65535;

std::string_view trim(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front())))
    s.remove_prefix(1);
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back())))
    s.remove_suffix(1);
  return s;
}

std::vector<std::string_view> splitFields(std::string_view line) {
  std::vector<std::string_view> fields;
  std::size_t start = 0;
  while (true) {
    const auto comma = line.find(',', start);
    if (comma == std::string_view::npos) {
      fields.push_back(trim(line.substr(start)));
      return fields;
    }
    fields.push_back(trim(line.substr(start, comma - start)));
    start = comma + 1;
  }
}

// Reports problems of one line as "name:line: message".
class LineReader {
 public:
  LineReader(const std::string& name, std::size_t lineNumber)
      : name_(name), lineNumber_(lineNumber) {}

  [[noreturn]] void fail(std::string_view message) const {
    throw InputError(fmt::format("{}:{}: {}", name_, lineNumber_, message));
  }

  double finite(std::string_view field, std::string_view column) const {
    double value = 0.0;
    const auto* end = field.data() + field.size();
    auto [ptr, ec] = std::from_chars(field.data(), end, value);
    if (field.empty() || ec != std::errc() || ptr != end || !std::isfinite(value))
      fail(fmt::format("{} is not a number: \"{}\"", column, field));
    return value;
  }

  long long whole(std::string_view field, std::string_view column, long long min,
                  long long max) const {
    long long value = 0;
    const auto* end = field.data() + field.size();
    auto [ptr, ec] = std::from_chars(field.data(), end, value);
    if (field.empty() || ec != std::errc() || ptr != end)
      fail(fmt::format("{} is not a whole number: \"{}\"", column, field));
    if (value < min || value > max)
      fail(fmt::format("{} must be between {} and {}: {}", column, min, max, value));
    return value;
  }

 private:
  const std::string& name_;
  std::size_t lineNumber_;
};

}  // namespace

BeaconSightings BeaconSightings::load(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw InputError(fmt::format("{}: cannot be opened", path));
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad())
    throw InputError(fmt::format("{}: cannot be read", path));
  return parseCsv(text.str(), path);
}

BeaconSightings BeaconSightings::parseCsv(std::string_view text, const std::string& name) {
  BeaconSightings result;
  bool headerAllowed = true;
  std::size_t lineNumber = 0;
  while (!text.empty()) {
    const auto newline = text.find('\n');
    auto line = text.substr(0, newline);
    text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
    ++lineNumber;

    line = trim(line);  // also drops the '\r' of CRLF files
    if (line.empty() || line.front() == '#')
      continue;
    const auto fields = splitFields(line);
    if (headerAllowed) {
      headerAllowed = false;
      if (!fields[0].empty() && std::isalpha(static_cast<unsigned char>(fields[0].front())))
        continue;
    }

    const LineReader reader(name, lineNumber);
    if (fields.size() != kColumns)
      reader.fail(
          fmt::format("expected {} fields (t_start,t_end,uuid,major,minor,accuracy,"
                      "proximity), found {}",
                      kColumns, fields.size()));
    BeaconSighting sighting;
    sighting.tStart = reader.finite(fields[0], "t_start");
    sighting.tEnd = reader.finite(fields[1], "t_end");
    if (sighting.tStart < 0.0)
      reader.fail("t_start must not be negative");
    if (sighting.tEnd <= sighting.tStart)
      reader.fail("t_end must be later than t_start");
    const auto uuid = platform::canonicalUUID(fields[2]);
    if (!uuid)
      reader.fail(fmt::format("uuid is not a UUID: \"{}\"", fields[2]));
    sighting.beacon.uuid = *uuid;
    sighting.beacon.major =
        static_cast<std::int32_t>(reader.whole(fields[3], "major", 0, kMaxBeaconNumber));
    sighting.beacon.minor =
        static_cast<std::int32_t>(reader.whole(fields[4], "minor", 0, kMaxBeaconNumber));
    sighting.beacon.accuracy = reader.finite(fields[5], "accuracy");
    sighting.beacon.proximity = static_cast<int>(reader.whole(fields[6], "proximity", 0, 3));
    result.sightings_.push_back(std::move(sighting));
  }
  return result;
}

std::vector<platform::Beacon> BeaconSightings::at(double secondsSinceStart,
                                                  const std::string& uuid) const {
  // Callers pass canonical text; canonicalising again makes a lower-case region match too.
  const auto canonical = platform::canonicalUUID(uuid);
  const std::string& wanted = canonical ? *canonical : uuid;
  std::vector<platform::Beacon> visible;
  for (const auto& sighting : sightings_) {
    if (sighting.beacon.uuid != wanted || !(sighting.tStart <= secondsSinceStart) ||
        !(secondsSinceStart < sighting.tEnd))
      continue;
    const auto& b = sighting.beacon;
    auto same = std::find_if(visible.begin(), visible.end(), [&](const platform::Beacon& v) {
      return v.major == b.major && v.minor == b.minor;
    });
    if (same == visible.end())
      visible.push_back(b);
    else if (b.accuracy > 0.0 && (same->accuracy <= 0.0 || b.accuracy < same->accuracy))
      *same = b;  // a platform reports one estimate per beacon: the best one
  }
  return visible;
}

}  // namespace zonaris::sim
