// The ground-truth score of a simulated run: what really happened, what the application heard,
// how late, and what it never heard.
#include "zonaris/simulation/score.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <map>
#include <utility>

#include "zonaris/service/event_rules.hpp"

namespace zonaris::sim_tool {

namespace {

using nlohmann::ordered_json;

constexpr const char* kRequestKeys[kRequestKinds] = {"registration", "fence_query", "observation",
                                                     "error_report"};
constexpr const char* kTypes[] = {"entry", "exit", "dwell"};
constexpr double kReferenceRadius = 1000.0;  // metres before the client fetches fences again

double milliseconds(double t) {
  return std::round(t * 1000.0) / 1000.0;
}

std::string nameOf(const service_tool::Fence& fence) {
  auto it = fence.record.find("name");
  return it != fence.record.end() && it->is_string() ? it->get<std::string>() : std::string();
}

std::string lowerCase(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// Whether the device is inside each fence at `t`, by the service's own rule.
class Insight {
 public:
  explicit Insight(const ScoreInputs& inputs) : inputs_(inputs) {}

  bool inside(const service_tool::Fence& fence, double t) const {
    if (fence.type == "beacon") {
      std::vector<service_tool::ObservedBeacon> seen;
      if (inputs_.sightings) {
        for (const auto& b : inputs_.sightings->at(t, fence.uuid))
          seen.push_back({lowerCase(b.uuid), b.major, b.minor});
      }
      return service_tool::isInside(fence, 0.0, 0.0, seen);
    }
    const auto p = inputs_.trace->at(t);
    return service_tool::isInside(fence, p.latitude, p.longitude, {});
  }

 private:
  const ScoreInputs& inputs_;
};

struct Stay {
  double entry = 0.0;
  std::optional<double> exit;
};

ordered_json eventJson(const FenceEvent& e) {
  ordered_json out{{"fence", e.fence}, {"id", e.id}, {"type", e.type}, {"t", milliseconds(e.t)}};
  if (e.optional)
    out["optional"] = true;
  return out;
}

ordered_json latencyFigures(std::vector<double> values) {
  ordered_json out{{"count", values.size()}};
  if (values.empty()) {
    out["median"] = nullptr;
    out["p95"] = nullptr;
    out["max"] = nullptr;
    return out;
  }
  std::sort(values.begin(), values.end());
  auto rank = [&](double p) {
    const auto n = static_cast<double>(values.size());
    const auto index = static_cast<std::size_t>(std::max(1.0, std::ceil(p * n))) - 1;
    return milliseconds(values[index]);
  };
  out["median"] = rank(0.5);
  out["p95"] = rank(0.95);
  out["max"] = milliseconds(values.back());
  return out;
}

bool inOutage(const ScoreInputs& inputs, double t) {
  return std::any_of(inputs.outages.begin(), inputs.outages.end(),
                     [&](const sim::Outage& o) { return o.contains(t); });
}

// When the service can first hear of something that happened at `t`: at once, or when the
// outage that holds `t` ends.
double heardFrom(const ScoreInputs& inputs, double t) {
  double from = t;
  for (const auto& o : inputs.outages) {
    if (o.contains(t))
      from = std::max(from, o.end);
  }
  return from;
}

// The times within which a confirmation of each true event counts as its match: from
// `kEarlyTolerance` before it (not before the fence's previous crossing) until the fence's next
// crossing, and no later than `kLateLimit` after the service could hear of it.
std::vector<std::pair<double, double>> matchWindows(const ScoreInputs& inputs,
                                                    const std::vector<FenceEvent>& truth) {
  std::vector<std::pair<double, double>> windows(truth.size());
  for (std::size_t i = 0; i < truth.size(); ++i) {
    const auto& e = truth[i];
    double previous = -std::numeric_limits<double>::infinity();
    double next = std::numeric_limits<double>::infinity();
    for (std::size_t j = 0; j < truth.size(); ++j) {
      const auto& o = truth[j];
      if (o.id != e.id || o.type == "dwell" || j == i)
        continue;
      // A dwell lies inside its stay: its previous crossing is the entry, its next the exit.
      if (o.t < e.t || (o.t == e.t && j < i))
        previous = std::max(previous, o.t);
      else
        next = std::min(next, o.t);
    }
    // A dwell counts from the entry as the service heard of it: an entry in an outage moves it.
    double heard = heardFrom(inputs, e.t);
    if (e.type == "dwell" && std::isfinite(previous))
      heard = std::max(heard, heardFrom(inputs, previous) + (e.t - previous));
    windows[i] = {std::max(e.t - kEarlyTolerance, previous), std::min(next, heard + kLateLimit)};
  }
  return windows;
}

// The figures of one run against the truth; `lostVisits` counts visits lost in an outage.
ordered_json figures(const ScoreInputs& inputs, const std::vector<FenceEvent>& truth, RunRecord run,
                     int& lostVisits) {
  std::map<std::string, std::int64_t> idByName;
  for (auto it = inputs.fences.rbegin(); it != inputs.fences.rend(); ++it)
    idByName[nameOf(*it)] = it->id;  // the first fence of a name wins
  for (auto& e : run.confirmed) {
    if (e.id == 0 && idByName.count(e.fence))
      e.id = idByName[e.fence];
  }
  std::stable_sort(run.confirmed.begin(), run.confirmed.end(),
                   [](const FenceEvent& a, const FenceEvent& b) { return a.t < b.t; });

  std::vector<int> matchOf(truth.size(), -1);  // truth index -> confirmed index
  const auto windows = matchWindows(inputs, truth);
  ordered_json matched = ordered_json::array(), missed = ordered_json::array(),
               falseEvents = ordered_json::array(), optional = ordered_json::array();
  std::map<std::string, std::vector<double>> latencies;
  for (std::size_t c = 0; c < run.confirmed.size(); ++c) {
    const auto& e = run.confirmed[c];
    // The earliest true event not heard of yet whose window holds it; a second confirmation of
    // one event, or one after the device crossed back, finds none and is false.
    int best = -1;
    for (std::size_t i = 0; i < truth.size() && best < 0; ++i) {
      const auto& t = truth[i];
      if (t.id == e.id && t.type == e.type && matchOf[i] < 0 && e.t >= windows[i].first &&
          e.t < windows[i].second)
        best = static_cast<int>(i);
    }
    if (best < 0) {
      falseEvents.push_back(eventJson(e));
      continue;
    }
    matchOf[static_cast<std::size_t>(best)] = static_cast<int>(c);
    const auto& t = truth[static_cast<std::size_t>(best)];
    const double latency = std::max(0.0, e.t - t.t);  // an early confirmation is not late
    if (t.optional)
      continue;
    latencies[e.type].push_back(latency);
    matched.push_back(ordered_json{{"fence", e.fence},
                                   {"id", e.id},
                                   {"type", e.type},
                                   {"true_t", milliseconds(t.t)},
                                   {"t", milliseconds(e.t)},
                                   {"latency", milliseconds(latency)}});
  }
  std::sort(matched.begin(), matched.end(), [](const ordered_json& a, const ordered_json& b) {
    return a["true_t"].get<double>() < b["true_t"].get<double>();
  });

  lostVisits = 0;
  for (std::size_t i = 0; i < truth.size(); ++i) {
    const auto& t = truth[i];
    if (t.optional) {
      const int c = matchOf[i];
      optional.push_back(ordered_json{
          {"fence", t.fence},
          {"id", t.id},
          {"type", t.type},
          {"true_t", milliseconds(t.t)},
          {"t", c >= 0 ? ordered_json(milliseconds(run.confirmed[static_cast<std::size_t>(c)].t))
                       : ordered_json(nullptr)}});
      continue;
    }
    if (matchOf[i] >= 0)
      continue;
    missed.push_back(ordered_json{{"fence", t.fence},
                                  {"id", t.id},
                                  {"type", t.type},
                                  {"true_t", milliseconds(t.t)},
                                  {"in_outage", inOutage(inputs, t.t)}});
    if (t.type != "entry")
      continue;
    // A visit is lost when it began and ended inside one outage and neither end was heard.
    for (std::size_t j = i + 1; j < truth.size(); ++j) {
      if (truth[j].id != t.id || truth[j].type != "exit")
        continue;
      const bool lost =
          matchOf[j] < 0 &&
          std::any_of(inputs.outages.begin(), inputs.outages.end(), [&](const sim::Outage& o) {
            return o.contains(t.t) && o.contains(truth[j].t);
          });
      lostVisits += lost ? 1 : 0;
      break;
    }
  }

  const double hours = inputs.seconds / 3600.0;
  auto perHour = [&](std::uint64_t n) {
    return hours > 0.0 ? std::round(static_cast<double>(n) / hours * 100.0) / 100.0 : 0.0;
  };
  ordered_json latency;
  for (const char* type : kTypes)
    latency[type] = latencyFigures(latencies[type]);
  ordered_json requests;
  for (int k = 0; k < kRequestKinds; ++k)
    requests[kRequestKeys[k]] = perHour(run.requests[static_cast<std::size_t>(k)]);

  ordered_json out;
  out["matched"] = std::move(matched);
  out["missed"] = std::move(missed);
  out["false"] = std::move(falseEvents);
  out["optional"] = std::move(optional);
  out["unconfirmed_observations"] = run.unconfirmedObservations;
  out["latency"] = std::move(latency);
  out["hours"] = std::round(hours * 10000.0) / 10000.0;
  out["fixes"] = ordered_json{{"taken", run.fixesTaken}, {"per_hour", perHour(run.fixesTaken)}};
  out["requests_per_hour"] = std::move(requests);
  return out;
}

}  // namespace

std::vector<FenceEvent> groundTruth(const ScoreInputs& inputs) {
  const Insight insight(inputs);
  std::vector<FenceEvent> events;
  const auto last = static_cast<long>(std::floor(inputs.seconds));
  for (const auto& fence : inputs.fences) {
    if (!fence.takesPart)
      continue;
    const std::string name = nameOf(fence);
    std::vector<Stay> stays;
    for (long s = 0; s <= last; ++s) {
      const bool in = insight.inside(fence, static_cast<double>(s));
      const bool wasIn = !stays.empty() && !stays.back().exit;
      if (in && !wasIn)
        stays.push_back(Stay{static_cast<double>(s), std::nullopt});
      else if (!in && wasIn)
        stays.back().exit = static_cast<double>(s);
    }
    for (std::size_t k = 0; k < stays.size(); ++k) {
      const Stay& stay = stays[k];
      // A short stay's crossings are optional, and so are those of a short absence between
      // two stays: a service may well let either pass unconfirmed.
      const bool shortStay = stay.exit && *stay.exit - stay.entry < kShortVisit;
      const bool shortBefore = k > 0 && stay.entry - *stays[k - 1].exit < kShortVisit;
      const bool shortAfter =
          k + 1 < stays.size() && stay.exit && stays[k + 1].entry - *stay.exit < kShortVisit;
      events.push_back(FenceEvent{fence.id, name, "entry", stay.entry, shortStay || shortBefore});
      for (const auto window : fence.dwellWindows) {
        const double deadline = stay.entry + window;
        if (deadline <= static_cast<double>(last) && (!stay.exit || deadline < *stay.exit))
          events.push_back(FenceEvent{fence.id, name, "dwell", deadline, shortStay});
      }
      if (stay.exit)
        events.push_back(FenceEvent{fence.id, name, "exit", *stay.exit, shortStay || shortAfter});
    }
  }
  std::stable_sort(events.begin(), events.end(),
                   [](const FenceEvent& a, const FenceEvent& b) { return a.t < b.t; });
  return events;
}

RunRecord fixedRateBaseline(const ScoreInputs& inputs, double interval) {
  const Insight insight(inputs);
  RunRecord run;
  run.requests[kRegistration] = 1;
  std::vector<service_tool::FenceState> states(inputs.fences.size());
  std::optional<platform::Location> reference;
  bool fresh = false;
  for (double t = 1.0; t <= inputs.seconds; t += interval) {
    ++run.fixesTaken;
    const auto here = inputs.trace->at(t);
    if (!reference) {
      reference = here;
      ++run.requests[kFenceQuery];
      fresh = true;  // a new catalogue is reported once
    }
    const auto nowMs = static_cast<std::int64_t>(std::llround(t * 1000.0));
    std::vector<char> inside(inputs.fences.size(), 0);
    bool report = fresh;
    for (std::size_t i = 0; i < inputs.fences.size(); ++i) {
      const auto& fence = inputs.fences[i];
      if (!fence.takesPart)
        continue;
      inside[i] = insight.inside(fence, t);
      const auto& state = states[i];
      report = report || inside[i] != state.inside;
      for (std::size_t w = 0; w < fence.dwellWindows.size() && inside[i] && state.inside; ++w) {
        report =
            report || (!state.dwellsSent.contains(w) &&
                       nowMs - state.enteredAtMs >= std::int64_t{fence.dwellWindows[w]} * 1000);
      }
    }
    if (report) {
      ++run.requests[kObservation];
      fresh = false;
      for (std::size_t i = 0; i < inputs.fences.size(); ++i) {
        const auto& fence = inputs.fences[i];
        if (!fence.takesPart)
          continue;
        for (auto& type :
             service_tool::advance(states[i], inside[i] != 0, nowMs, fence.dwellWindows))
          run.confirmed.push_back(FenceEvent{fence.id, nameOf(fence), std::move(type), t});
      }
    }
    if (here.distanceFrom(*reference) > kReferenceRadius)
      reference.reset();
  }
  return run;
}

nlohmann::ordered_json score(const ScoreInputs& inputs, const RunRecord& run) {
  const auto truth = groundTruth(inputs);
  ordered_json truthJson = ordered_json::array();
  for (const auto& e : truth)
    truthJson.push_back(eventJson(e));

  int lost = 0;
  ordered_json out{{"truth", std::move(truthJson)}};
  const ordered_json runFigures = figures(inputs, truth, run, lost);
  for (auto it = runFigures.begin(); it != runFigures.end(); ++it)
    out[it.key()] = *it;
  out["lost_visits"] = lost;
  ordered_json outages = ordered_json::array();
  for (const auto& o : inputs.outages)
    outages.push_back(ordered_json{{"start", o.start}, {"end", o.end}});
  out["outages"] = std::move(outages);

  ScoreInputs ideal = inputs;
  ideal.outages.clear();
  int unused = 0;
  out["baseline_15s"] = figures(ideal, truth, fixedRateBaseline(ideal, 15.0), unused);
  return out;
}

std::optional<std::vector<service_tool::Fence>> readScoreFences(const std::string& path,
                                                                std::string& error) {
  auto json = service_tool::readFencesFile(path, error);
  if (!json)
    return std::nullopt;
  return service_tool::parseFences(*json, path, error);
}

}  // namespace zonaris::sim_tool
