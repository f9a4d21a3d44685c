#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "run_log.hpp"
#include "zonaris/platform/clock.hpp"
#include "zonaris/service/fence_set.hpp"
#include "zonaris/sim/beacon_sightings.hpp"
#include "zonaris/sim/trace.hpp"

namespace zonaris::report_tool {

/// Everything a report shows, read and checked.
struct ReportInputs {
  std::string title;
  platform::TimePoint start;  ///< the run's local start time (t = 0)
  RunLog run;
  sim::Trace trace;
  std::vector<service_tool::Fence> fences;
  std::vector<std::string> fenceNames;  ///< "name" of each fence ("" when absent)
  std::optional<sim::BeaconSightings> sightings;
  nlohmann::json score;                        ///< the ground-truth score object, or null
  std::optional<std::pair<int, int>> silence;  ///< START STOP hours, as the client was given
};

/// The page's data: one JSON object the page's script draws from. Positions missing from the
/// lines are taken from the trace; the trace is thinned to stay small for a day of 1 Hz points.
nlohmann::json reportData(const ReportInputs& in);

/// The whole self-contained page: Leaflet, Chart.js, the page's own script and style, and the
/// data, all inline.
std::string renderPage(const ReportInputs& in);

/// The hours of the day the silence window silences, as the client decides: START < STOP
/// silences the hours strictly between them, STOP < START the hours from START through STOP,
/// START == STOP none.
bool silencedHour(int hour, int start, int stop);

}  // namespace zonaris::report_tool
