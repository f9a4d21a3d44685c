// Request building, sending and answer parsing shared by the four exchanges with the service.
#include "service/request.hpp"
#include "platform/thread_exit.hpp"

#include <charconv>
#include <cmath>
#include <exception>
#include <limits>
#include <utility>

namespace zonaris::service {

namespace {

using nlohmann::json;

// True when some array or object of `text` is nested deeper than `limit`. Brackets inside
// strings do not count; a malformed text is left for the parser to refuse.
bool nestedDeeperThan(std::string_view text, int limit) {
  int depth = 0;
  bool inString = false;
  bool escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else if (c == '"')
        inString = false;
      continue;
    }
    switch (c) {
      case '"':
        inString = true;
        break;
      case '[':
      case '{':
        if (++depth > limit)
          return true;
        break;
      case ']':
      case '}':
        --depth;
        break;
      default:
        break;
    }
  }
  return false;
}

std::string_view trimmed(std::string_view s) {
  const auto first = s.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos)
    return {};
  const auto last = s.find_last_not_of(" \t\r\n");
  return s.substr(first, last - first + 1);
}

// A decimal number written the JSON way: an optional minus sign and then a digit. This keeps
// "inf", "nan" and hexadecimal out, which from_chars would otherwise accept.
bool looksNumeric(std::string_view s) {
  const std::size_t digitAt = (!s.empty() && s.front() == '-') ? 1 : 0;
  return s.size() > digitAt && s[digitAt] >= '0' && s[digitAt] <= '9';
}

// A whole number exactly as written, when the value is an integer or an integer string.
std::optional<std::int64_t> exactInteger(const json& value) {
  if (value.is_number_unsigned()) {
    const auto u = value.get<json::number_unsigned_t>();
    constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    return u > kMax ? std::numeric_limits<std::int64_t>::max() : static_cast<std::int64_t>(u);
  }
  if (value.is_number_integer())
    return value.get<json::number_integer_t>();
  if (value.is_string())
    return integerInText(value.get_ref<const json::string_t&>());
  return std::nullopt;
}

}  // namespace

std::int64_t saturatingInt64(double d) {
  if (std::isnan(d))
    return 0;
  // 2^63 is exactly representable; every double below it converts without overflow.
  constexpr double kTwo63 = 9223372036854775808.0;
  if (d >= kTwo63)
    return std::numeric_limits<std::int64_t>::max();
  if (d <= -kTwo63)
    return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(d);
}

std::optional<std::int64_t> integerInText(std::string_view text) {
  text = trimmed(text);
  std::int64_t out = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  if (ec == std::errc() && end == text.data() + text.size() && looksNumeric(text))
    return out;
  return std::nullopt;
}

std::optional<double> numberInText(std::string_view text) {
  text = trimmed(text);
  double out = 0.0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  if (ec == std::errc() && end == text.data() + text.size() && looksNumeric(text))
    return out;
  return std::nullopt;
}

std::string compactJson(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string serviceUrl(const platform::Platform& platform, std::string_view path) {
  // ZONARIS_BASE_URL is the library's own build setting, never the application's.
  std::string url = platform.baseUrl.empty() ? std::string(ZONARIS_BASE_URL) : platform.baseUrl;
  url.append(path);
  return url;
}

platform::HttpRequest postRequest(std::string url, std::string body) {
  platform::HttpRequest request;
  request.method = "POST";
  request.url = std::move(url);
  request.headers.emplace_back(kContentTypeHeader, kJsonContentType);
  request.body = std::move(body);
  return request;
}

platform::HttpRequest getRequest(std::string url) {
  platform::HttpRequest request;
  request.method = "GET";
  request.url = std::move(url);
  return request;
}

platform::HttpResponse send(const platform::Platform& platform,
                            const platform::HttpRequest& request) {
  platform::HttpResponse response;
  try {
    response = platform.http->send(request);
  } catch (const std::exception& e) {
    response = {};
    response.transportError = true;
    response.errorMessage = e.what();
  } catch (...) {
    if (platform::endingThread())
      throw;
    response = {};
    response.transportError = true;
    response.errorMessage = "unknown failure in the HTTP client";
  }
  if (response.transportError)
    response.status = 0;
  return response;
}

nlohmann::json parseJson(std::string_view text) {
  if (text.size() > kMaxJsonBytes || nestedDeeperThan(text, kMaxJsonDepth))
    return nullptr;
  json parsed = json::parse(text, nullptr, false);
  if (parsed.is_discarded())
    return nullptr;
  return parsed;
}

const nlohmann::json* member(const nlohmann::json& object, std::string_view key) {
  if (!object.is_object())
    return nullptr;
  const auto it = object.find(key);
  if (it == object.end() || it->is_null())
    return nullptr;
  return &*it;
}

std::optional<double> numberOf(const nlohmann::json* value) {
  if (!value)
    return std::nullopt;
  if (value->is_number())
    return value->get<double>();
  if (value->is_string())
    return numberInText(value->get_ref<const json::string_t&>());
  return std::nullopt;
}

std::int64_t int64Of(const nlohmann::json* value) {
  if (!value)
    return 0;
  if (auto exact = exactInteger(*value))
    return *exact;
  if (auto number = numberOf(value))
    return saturatingInt64(*number);
  return 0;
}

std::int32_t int32Of(const nlohmann::json* value) {
  constexpr auto kMin = std::numeric_limits<std::int32_t>::min();
  constexpr auto kMax = std::numeric_limits<std::int32_t>::max();
  const std::int64_t wide = int64Of(value);
  return static_cast<std::int32_t>(wide < kMin ? kMin : (wide > kMax ? kMax : wide));
}

float floatOf(const nlohmann::json* value) {
  const auto number = numberOf(value);
  if (!number || std::isnan(*number))
    return 0.0f;
  constexpr double kMax = std::numeric_limits<float>::max();
  // Converting a double beyond the float range is undefined, so saturate first.
  return static_cast<float>(*number > kMax ? kMax : (*number < -kMax ? -kMax : *number));
}

std::optional<std::string> textOf(const nlohmann::json* value) {
  if (!value || !value->is_string())
    return std::nullopt;
  return value->get<std::string>();
}

std::optional<std::string> takeTextOf(nlohmann::json* value) {
  if (!value || !value->is_string())
    return std::nullopt;
  return std::move(value->get_ref<nlohmann::json::string_t&>());
}

std::string describe(const nlohmann::json* value) {
  if (!value)
    return "(null)";
  if (value->is_string())
    return value->get<std::string>();
  return compactJson(*value);
}

}  // namespace zonaris::service
