#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zonaris/platform/clock.hpp"
#include "zonaris/platform/location.hpp"

namespace zonaris::sim {

/// One point of a recorded or synthesised trip.
struct TracePoint {
  double t = 0.0;  ///< seconds since the trace's first point
  double latitude = 0.0;
  double longitude = 0.0;
  double horizontalAccuracy = 5.0;  ///< metres
  std::optional<double> speed;      ///< metres per second, when the trace gives it
};

/// A device's movement over time, replayed by `SimLocationManager`.
class Trace {
 public:
  /// Reads GPX 1.1 (".gpx") or CSV `t,lat,lon[,accuracy][,speed]` (any other name) from a file.
  /// Throws InputError naming the file (and line) when it is malformed.
  static Trace load(const std::string& path);
  /// `name` is used in error messages.
  static Trace parseGpx(std::string_view text, const std::string& name);
  static Trace parseCsv(std::string_view text, const std::string& name);

  const std::vector<TracePoint>& points() const { return points_; }
  /// The absolute local time of the first point, when the trace carries times (GPX).
  const std::optional<platform::TimePoint>& startTime() const { return startTime_; }
  /// Seconds from the first to the last point.
  double duration() const;
  /// The fix at `secondsSinceStart`, interpolated between points; before the first point the
  /// first, after the last the last. The timestamp is left for the caller to set.
  platform::Location at(double secondsSinceStart) const;

 private:
  std::vector<TracePoint> points_;
  std::optional<platform::TimePoint> startTime_;
};

}  // namespace zonaris::sim
