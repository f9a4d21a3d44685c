#pragma once

// Reading the fence query's answer into fence records. The answer is the bulk of what the
// client downloads (a city's catalogue is megabytes), so it is read with simdjson, which parses
// it several times faster than a JSON tree; text simdjson refuses is read again the general way
// (nlohmann::json), so that what counts as JSON, and every value, stays exactly as before.

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "zonaris/fence.hpp"

namespace zonaris::service {

/// What an answer lists.
struct FenceAnswer {
  /// The answer is a JSON array; anything else (not JSON, an object, a bare value) lists no
  /// fences.
  bool isList = false;
  /// One entry per element of the array, in order: the fence, or null when the element lists
  /// no event types (and is not kept).
  std::vector<std::shared_ptr<ZonarisFence>> elements;
};

/// Reads an answer. Every field of a kept fence is set, whether or not its key is present: see
/// the reading rules in fence_answer.cpp. Never throws on any text.
FenceAnswer readFenceAnswer(std::string_view body);

/// The same through a nlohmann::json tree only: the general reading, which the fast one must
/// match exactly.
FenceAnswer readFenceAnswerTree(std::string_view body);

}  // namespace zonaris::service
