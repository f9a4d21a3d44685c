#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "zonaris/platform/location.hpp"

namespace zonaris::sim {

/// One beacon visible from `t_start` to `t_end` (seconds since the simulation's start).
struct BeaconSighting {
  double tStart = 0.0;
  double tEnd = 0.0;
  platform::Beacon beacon;
};

/// Which beacons the device would see when. Read from CSV
/// `t_start,t_end,uuid,major,minor,accuracy,proximity`.
class BeaconSightings {
 public:
  /// Throws InputError naming the file and line when it is malformed.
  static BeaconSightings load(const std::string& path);
  static BeaconSightings parseCsv(std::string_view text, const std::string& name);

  /// The beacons of region `uuid` (canonical text) visible at `secondsSinceStart`, one entry
  /// per beacon (major and minor) in the order of its first row, as a platform reports a
  /// ranging result: overlapping rows of one beacon merge into the sighting with the best
  /// usable accuracy (the smallest positive one; the first row when none is positive).
  std::vector<platform::Beacon> at(double secondsSinceStart, const std::string& uuid) const;
  const std::vector<BeaconSighting>& sightings() const { return sightings_; }

 private:
  std::vector<BeaconSighting> sightings_;
};

}  // namespace zonaris::sim
