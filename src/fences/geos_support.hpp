#pragma once

// GEOS through its reentrant C API: contexts, owning handles, and reading fence text. Shared by
// the per-call distance and the fence geometry cache, so that both read a text into exactly the
// same geometry.

#include <geos_c.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "fences/geometry.hpp"

namespace zonaris::fences::geos {

/// A GEOS context with handlers that only record the last message (nothing may throw through
/// GEOS's C frames). Not to be shared between threads.
class Context {
 public:
  Context();
  ~Context();
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  GEOSContextHandle_t get() const { return handle_; }
  const std::string& lastError() const { return lastError_; }
  void clearMessages() {
    lastError_.clear();
    lastNotice_.clear();
  }

 private:
  static void record(const char* message, void* userdata);

  GEOSContextHandle_t handle_;
  std::string lastError_;
  std::string lastNotice_;
};

/// The calling thread's own context, made on first use and finished when the thread ends.
/// Null handle when GEOS could not make one.
Context& threadContext();

/// Releases GEOS objects through the context that made them; objects die before it.
struct Release {
  GEOSContextHandle_t context;
  void operator()(GEOSGeometry* geometry) const { GEOSGeom_destroy_r(context, geometry); }
  void operator()(GEOSCoordSequence* sequence) const { GEOSCoordSeq_destroy_r(context, sequence); }
  void operator()(GEOSWKTReader* reader) const { GEOSWKTReader_destroy_r(context, reader); }
  void operator()(GEOSGeoJSONWriter* writer) const { GEOSGeoJSONWriter_destroy_r(context, writer); }
  /// Text that GEOS allocated (a writer's output) goes back through GEOS's own allocator.
  void operator()(char* text) const { GEOSFree_r(context, text); }
};
using GeomPtr = std::unique_ptr<GEOSGeometry, Release>;
using CoordSeqPtr = std::unique_ptr<GEOSCoordSequence, Release>;
using ReaderPtr = std::unique_ptr<GEOSWKTReader, Release>;
using GeoJsonWriterPtr = std::unique_ptr<GEOSGeoJSONWriter, Release>;
using TextPtr = std::unique_ptr<char, Release>;

/// The calling thread's context, its messages cleared, and a new WKT reader on it: where every
/// reading of fence and device text starts. A null reader when GEOS could make neither
/// context nor reader; `why` says which.
struct ThreadReader {
  Context* context = nullptr;
  ReaderPtr reader;
};
ThreadReader openThreadReader(std::string& why);

/// Reads one WKT text into a geometry with no empty part and finite coordinates, or null with
/// `why` set. Text that is empty, larger than the response cap (16 MiB), nested deeper than 32
/// parentheses, malformed, a geometry that is empty or has an empty part, or one with a
/// non-finite X or Y is unreadable.
GeomPtr readGeometry(const Context& context, const GEOSWKTReader* reader, std::string_view text,
                     std::string& why);

/// The device point's longitude and latitude, as GEOS holds them after reading the text.
struct DevicePoint {
  GeomPtr geometry;
  double longitude = 0.0;
  double latitude = 0.0;
};

/// Reads the device text; nothing when it is unreadable or not a point (`why` says which).
std::optional<DevicePoint> readDevicePoint(const Context& context, const GEOSWKTReader* reader,
                                           std::string_view text, std::string& why);

/// The haversine distance from the point of `fence` nearest to the device point, or nothing
/// when GEOS cannot find that point. This is the one place where the distance is measured.
std::optional<double> nearestDistance(const Context& context, const GEOSGeometry* fence,
                                      const DevicePoint& device);

/// The extent of every coordinate of every part and ring of a geometry read by `readGeometry`.
/// GEOS's own envelope of a polygon is its shell's, while distances are measured to every ring,
/// so a hole that sticks out of its shell (an invalid but readable polygon) would fall outside it.
std::optional<GeometryBounds> extent(GEOSContextHandle_t ctx, const GEOSGeometry* geometry);

}  // namespace zonaris::fences::geos
