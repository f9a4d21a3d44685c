#pragma once

#include "zonaris/export.h"

#include <string>

#include <nlohmann/json.hpp>

namespace zonaris {

/// A standard message of the service: title, body and image URL. Immutable.
/// A key the service left out reads as the text "(null)".
class ZONARIS_API ZonarisActionBasic {
 public:
  ZonarisActionBasic() = default;
  ZonarisActionBasic(std::string title, std::string body, std::string url)
      : mTitle(std::move(title)), mBody(std::move(body)), mURL(std::move(url)) {}

  const std::string& getTitle() const { return mTitle; }
  const std::string& getBody() const { return mBody; }
  const std::string& getURL() const { return mURL; }

 private:
  std::string mTitle;
  std::string mBody;
  std::string mURL;
};

/// The application's own keys of a message, without the three standard ones. Immutable.
class ZONARIS_API ZonarisActionData {
 public:
  ZonarisActionData() = default;
  /// `values` should be a JSON object; anything else is kept as an empty object.
  explicit ZonarisActionData(nlohmann::json values)
      : mValues(values.is_object() ? std::move(values) : nlohmann::json::object()) {}

  /// The value under `key`, or a JSON null when the key is absent.
  nlohmann::json getValue(const std::string& key) const {
    auto it = mValues.find(key);
    return it == mValues.end() ? nlohmann::json() : *it;
  }
  /// All keys and values.
  const nlohmann::json& values() const { return mValues; }

 private:
  nlohmann::json mValues = nlohmann::json::object();
};

}  // namespace zonaris
