#pragma once

// What the four exchanges with the service share: how a request is built and sent, how an
// answer is parsed, and how values are read out of a parsed answer without trusting its types.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "zonaris/platform/platform.hpp"

namespace zonaris::service {

inline constexpr const char* kContentTypeHeader = "Content-Type";
inline constexpr const char* kJsonContentType = "application/json; charset=UTF-8";

/// Answers longer than this are not parsed (the libcurl adapter caps bodies at the same size).
inline constexpr std::size_t kMaxJsonBytes = 16u * 1024u * 1024u;
/// Deepest nesting of arrays and objects accepted in an answer. Copying and printing a JSON tree
/// recurse once per level, so a hostile answer nested a million levels deep could otherwise
/// overflow a thread's stack long after it was parsed.
inline constexpr int kMaxJsonDepth = 128;

/// Compact JSON text. Invalid UTF-8 in a string (an application's tag, say) is replaced, never
/// thrown about.
std::string compactJson(const nlohmann::json& value);

/// The base URL of the service followed by `path` ("/install", ...).
std::string serviceUrl(const platform::Platform& platform, std::string_view path);

/// A "POST" with `body` (already serialised) and the JSON "Content-Type" header.
platform::HttpRequest postRequest(std::string url, std::string body);
/// A "GET" with neither body nor header.
platform::HttpRequest getRequest(std::string url);

/// Sends synchronously on the calling thread through the platform's HTTP client. Never throws:
/// a client that throws counts as a transport error. After a transport error the status is 0,
/// whatever the client said, because no usable answer arrived.
platform::HttpResponse send(const platform::Platform& platform,
                            const platform::HttpRequest& request);

/// Parses an answer body. Text that is not JSON, is longer than `kMaxJsonBytes` or nested
/// deeper than `kMaxJsonDepth` yields a JSON null ("no document").
nlohmann::json parseJson(std::string_view text);

// ---- Type-checked reading ---------------------------------------------------------------
//
// The service's answers are read with one rule throughout: a key that is absent, or present
// with a JSON null, is missing; a value of the wrong type reads as missing too, except that a
// number may also arrive as a numeric string ("300"). Numbers are truncated toward zero when a
// whole number is wanted and saturate at the bounds of the field's type.

/// The value under `key` of `object`, or null when `object` is not an object, the key is absent
/// or its value is a JSON null.
const nlohmann::json* member(const nlohmann::json& object, std::string_view key);
inline nlohmann::json* member(nlohmann::json& object, std::string_view key) {
  return const_cast<nlohmann::json*>(member(std::as_const(object), key));
}

/// A JSON number, or a string holding nothing but a decimal number; otherwise nothing.
std::optional<double> numberOf(const nlohmann::json* value);
/// The number a string holds (blanks around it allowed), as `numberOf` reads a string.
std::optional<double> numberInText(std::string_view text);
/// The whole number a string holds exactly (blanks around it allowed), or nothing.
std::optional<std::int64_t> integerInText(std::string_view text);
/// Truncates toward zero and saturates at the bounds of std::int64_t; NaN gives 0.
std::int64_t saturatingInt64(double d);
/// Whole-number reading; 0 when missing or not a number.
std::int64_t int64Of(const nlohmann::json* value);
std::int32_t int32Of(const nlohmann::json* value);
/// 0.0 when missing or not a number.
float floatOf(const nlohmann::json* value);
/// The string, or nothing when missing or not a string.
std::optional<std::string> textOf(const nlohmann::json* value);
/// The same, moved out of the document (which keeps an empty string): for large texts read once.
std::optional<std::string> takeTextOf(nlohmann::json* value);
/// The text a "%@" placeholder shows: "(null)" when missing, a string as it is, anything else
/// as its compact JSON.
std::string describe(const nlohmann::json* value);

}  // namespace zonaris::service
