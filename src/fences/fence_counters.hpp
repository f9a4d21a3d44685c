#pragma once

// Process-wide counts of changes to any fence's shape (`location`, `type`, `radius`), to any
// fence's `entered` flag, and of any fence's `dwell_time` leaving zero, each counted after the
// change is made. While none of them moves, the geometry cache may rely on what it read of the
// fences before it read the counts. They live inside the library: only the cache reads them,
// and only the fence setters (compiled here, not in the application) move them.

#include <cstdint>

namespace zonaris::fences {

std::uint64_t fenceShapeChanges();
std::uint64_t fenceEnteredChanges();
std::uint64_t fenceDwellStarts();

}  // namespace zonaris::fences
