#pragma once

#include <stdexcept>
#include <string>

namespace zonaris::sim {

/// A simulator input (trace, beacon sightings, fences) that cannot be read. The message names
/// the file and, where it applies, the line: "walk.gpx:12: <what is wrong>".
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace zonaris::sim
