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
  ///
  /// GPX: the track points (`trkpt`), else a route's points (`rtept`), else the waypoints, with
  /// or without a namespace prefix. Each needs a `<time>` (ISO 8601, "Z" or an offset,
  /// optional fraction; no zone reads as UTC) unless a `pace` is given. The accuracy is
  /// `<hdop>` × 5 m, or 5 m without one; the speed comes from `<speed>` in the point (GPX 1.0)
  /// or anywhere in its `<extensions>`. `startTime` is the first time's clock reading as written
  /// (09:00+01:00 is 09:00), while `t` follows the absolute instants.
  /// CSV: an optional header line, `#` comments and blank lines; an empty accuracy or speed
  /// column is "not given" (accuracy 5 m). Times are made relative to the first point.
  /// Both: times must not go back; coordinates must be finite and in range.
  /// With `pace` (metres per second, > 0) the points are passed at that steady speed: each one's
  /// time is the distance along the points so far divided by the pace, any time or speed the
  /// file gives is ignored, and there is no `startTime`.
  static Trace load(const std::string& path, std::optional<double> pace = std::nullopt);
  /// `name` is used in error messages.
  static Trace parseGpx(std::string_view text, const std::string& name,
                        std::optional<double> pace = std::nullopt);
  static Trace parseCsv(std::string_view text, const std::string& name,
                        std::optional<double> pace = std::nullopt);

  const std::vector<TracePoint>& points() const { return points_; }
  /// The absolute local time of the first point, when the trace carries times (GPX).
  const std::optional<platform::TimePoint>& startTime() const { return startTime_; }
  /// Seconds from the first to the last point.
  double duration() const;
  /// The fix at `secondsSinceStart`, interpolated between points; before the first point the
  /// first, after the last the last. The timestamp is left for the caller to set.
  platform::Location at(double secondsSinceStart) const;

 private:
  void timeByPace(double metresPerSecond);

  std::vector<TracePoint> points_;
  std::optional<platform::TimePoint> startTime_;
};

}  // namespace zonaris::sim
