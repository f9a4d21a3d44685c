#pragma once

// The fence walk of one evaluation pass: for every fence in list order, its distance, the
// inside/outside decision and what it asks of the pass. Two ways to get the distances, one
// result: measuring every fence from its text (the straightforward way, and the way for a
// catalogue without a geometry cache), or from the catalogue's geometry cache, measuring only
// the fences whose decision can matter.

#include <limits>
#include <string>

#include "fences/fence_cache.hpp"
#include "zonaris/fence.hpp"

namespace zonaris::fences {

/// What the walk needs from its client, asked in the same order by both ways.
class PassHost {
 public:
  virtual ~PassHost() = default;
  /// The raw distance from a fence's text to the device point's text, reporting unreadable
  /// text the way the client does; the largest double when there is none.
  virtual double calculateDistance(const std::string& fenceWkt, const std::string& pointWkt) = 0;
  virtual bool devMode() = 0;
  /// Writes "Distance to %@ zone = %f" for the fence (asked only in developer mode).
  virtual void distanceLine(const ZonarisFence& fence, double adjusted) = 0;
  /// Whether a new catalogue has not been reported yet.
  virtual bool resetFences() = 0;
};

/// What a walk decided. The fences' `entered` flags are set on the way, as a pass does.
struct PassResult {
  bool report = false;                                  ///< an observation must be sent
  bool anyInside = false;                               ///< the device is inside at least one fence
  bool nearBeacon = false;                              ///< a beacon fence lies nearer than 150 m
  double minimum = std::numeric_limits<double>::max();  ///< the new mMinDist

  bool operator==(const PassResult&) const = default;
};

/// Walks `fences` for the device at `pointWkt`. With a cache built for this very list, reads
/// each fence once and measures only the candidates; without one, or when the point text
/// cannot be read, measures every fence from its text. Either way the result, the flags, the
/// distance lines and the reports of unreadable text (one per such fence, in list order) are
/// the same.
PassResult evaluateFences(const FenceList& fences, const FenceCache* cache,
                          const std::string& pointWkt, PassHost& host);

}  // namespace zonaris::fences
