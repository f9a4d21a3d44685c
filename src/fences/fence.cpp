// The setters of `ZonarisFence` that the geometry cache watches: each one moves a process-wide
// counter after its change, so the cache knows when what it read of the fences is stale.

#include "zonaris/fence.hpp"

#include <atomic>

#include "fences/fence_counters.hpp"

namespace zonaris {
namespace {

std::atomic<std::uint64_t> shapeChanges{0};
std::atomic<std::uint64_t> enteredChanges{0};
std::atomic<std::uint64_t> dwellStarts{0};

}  // namespace

namespace fences {

std::uint64_t fenceShapeChanges() {
  return shapeChanges.load();
}
std::uint64_t fenceEnteredChanges() {
  return enteredChanges.load();
}
std::uint64_t fenceDwellStarts() {
  return dwellStarts.load();
}

}  // namespace fences

void ZonarisFence::setType(Text value) {
  write(type_, std::move(value));
  shapeRevision_.fetch_add(1);
  shapeChanges.fetch_add(1);
}

void ZonarisFence::setLocation(Text value) {
  write(location_, std::move(value));
  shapeRevision_.fetch_add(1);
  shapeChanges.fetch_add(1);
}

void ZonarisFence::setRadius(float value) {
  radius_.store(value);
  shapeRevision_.fetch_add(1);
  shapeChanges.fetch_add(1);
}

void ZonarisFence::setEntered(bool value) {
  if (entered_.exchange(value) != value)
    enteredChanges.fetch_add(1);
}

void ZonarisFence::setDwell_time(std::int32_t value) {
  if (dwell_time_.exchange(value) == 0 && value != 0)
    dwellStarts.fetch_add(1);
}

}  // namespace zonaris
