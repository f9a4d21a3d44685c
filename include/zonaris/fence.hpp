#pragma once

#include "zonaris/export.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zonaris {

/// One dwell window of a fence: staying inside the fence for longer than `dwell_time` seconds
/// is itself an event. Thread-safe: every field is read and written whole.
class ZONARIS_API ZonarisDwell {
 public:
  /// An inactive window with no duration (dwell_time -1, active false).
  ZonarisDwell() = default;
  /// An armed window of `dwell_time` seconds (active true); what the catalogue download makes.
  explicit ZonarisDwell(std::int32_t dwell_time) : dwell_time_(dwell_time), active_(true) {}

  std::int32_t dwell_time() const { return dwell_time_.load(); }
  void setDwell_time(std::int32_t value) { dwell_time_.store(value); }
  bool active() const { return active_.load(); }
  void setActive(bool value) { active_.store(value); }

 private:
  std::atomic<std::int32_t> dwell_time_{-1};
  std::atomic<bool> active_{false};
};

using DwellList = std::vector<std::shared_ptr<ZonarisDwell>>;

/// One downloaded fence (a geographic zone or a proximity beacon) with this device's state
/// towards it. Text fields may hold no value (null) when the service left the key out.
/// Thread-safe: scalars are atomic, text and the window list are replaced whole under a lock
/// and read as copies (the window list as a shared snapshot).
class ZONARIS_API ZonarisFence {
 public:
  using Text = std::optional<std::string>;

  ZonarisFence() = default;
  ZonarisFence(const ZonarisFence&) = delete;
  ZonarisFence& operator=(const ZonarisFence&) = delete;

  std::int64_t id() const { return id_.load(); }
  void setId(std::int64_t value) { id_.store(value); }
  Text name() const { return read(name_); }
  void setName(Text value) { write(name_, std::move(value)); }
  Text type() const { return read(type_); }
  void setType(Text value);
  /// The geometry as WKT text.
  Text location() const { return read(location_); }
  void setLocation(Text value);
  float radius() const { return radius_.load(); }
  void setRadius(float value);
  Text uuid() const { return read(uuid_); }
  void setUuid(Text value) { write(uuid_, std::move(value)); }
  std::int32_t major() const { return major_.load(); }
  void setMajor(std::int32_t value) { major_.store(value); }
  std::int32_t minor() const { return minor_.load(); }
  void setMinor(std::int32_t value) { minor_.store(value); }
  Text time_zone() const { return read(time_zone_); }
  void setTime_zone(Text value) { write(time_zone_, std::move(value)); }
  /// The dwell windows in the service's order. The snapshot stays valid after a replacement.
  std::shared_ptr<const DwellList> dwell_events() const {
    std::lock_guard lock(mutex_);
    return dwell_events_;
  }
  void setDwell_events(DwellList value) {
    auto list = std::make_shared<const DwellList>(std::move(value));
    std::lock_guard lock(mutex_);
    dwell_events_ = std::move(list);
  }
  bool entered() const { return entered_.load(); }
  void setEntered(bool value);
  bool dwelled() const { return dwelled_.load(); }
  void setDwelled(bool value) { dwelled_.store(value); }
  std::int32_t dwell_time() const { return dwell_time_.load(); }
  void setDwell_time(std::int32_t value);
  /// Counts the changes of `location`, `type` and `radius`, which decide how far the fence is.
  /// The catalogue's geometry cache keeps the count it was built with and measures a fence
  /// whose count has moved on from its text again, so such a change is never missed.
  std::uint32_t shapeRevision() const { return shapeRevision_.load(); }

 private:
  Text read(const Text& field) const {
    std::lock_guard lock(mutex_);
    return field;
  }
  void write(Text& field, Text value) {
    std::lock_guard lock(mutex_);
    field = std::move(value);
  }

  mutable std::mutex mutex_;
  std::atomic<std::int64_t> id_{-1};
  Text name_{""};
  Text type_{""};
  Text location_{""};
  std::atomic<float> radius_{-1.0f};
  Text uuid_{""};
  std::atomic<std::int32_t> major_{-1};
  std::atomic<std::int32_t> minor_{-1};
  Text time_zone_{""};
  std::shared_ptr<const DwellList> dwell_events_ = std::make_shared<const DwellList>();
  std::atomic<std::uint32_t> shapeRevision_{0};
  std::atomic<bool> entered_{false};
  std::atomic<bool> dwelled_{false};
  std::atomic<std::int32_t> dwell_time_{0};
};

using FenceList = std::vector<std::shared_ptr<ZonarisFence>>;

}  // namespace zonaris
