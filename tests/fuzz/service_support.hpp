#pragma once

// A reference service with a small fence set, an in-memory database and a fixed clock, as the
// service harnesses use it.

#include <chrono>
#include <memory>

#include "fuzz_support.hpp"
#include "zonaris/service/reference_service.hpp"

namespace zonaris::fuzz {

inline std::unique_ptr<service_tool::ReferenceService> makeService() {
  service_tool::ServiceOptions options;
  options.fences = nlohmann::json::parse(R"json([
    {"id": 1, "name": "Home", "type": "point", "location": "POINT (2.35 48.85)", "radius": 50,
     "_event_types": ["entry", "exit"], "_dwell_windows": [],
     "messages": {"entry": {"zr:msg:title": "Hi", "zr:msg:body": "B", "k": 1}}},
    {"id": 2, "name": "Shop", "type": "polygon", "radius": 0,
     "location": "POLYGON ((2.34 48.84, 2.36 48.84, 2.36 48.86, 2.34 48.86, 2.34 48.84))",
     "_event_types": ["entry", "exit", "dwell"], "_dwell_windows": [0, 60]},
    {"id": 3, "name": "Cafe", "type": "beacon", "location": "POINT (2.351 48.851)",
     "radius": 0, "uuid": "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5", "major": 1, "minor": 2,
     "_event_types": ["entry", "exit"], "_dwell_windows": [300]}
  ])json");
  options.now = [] { return std::chrono::system_clock::time_point(std::chrono::hours(494000)); };
  return std::make_unique<service_tool::ReferenceService>(std::move(options));
}

}  // namespace zonaris::fuzz
