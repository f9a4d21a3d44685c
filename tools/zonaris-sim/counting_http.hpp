#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "zonaris/platform/http.hpp"

namespace zonaris::sim_tool {

/// The four exchanges of the service, and anything else.
enum class Exchange { Registration, FenceQuery, Observation, ErrorReport, Other };
inline constexpr std::size_t kExchangeCount = 5;

/// Which exchange `request` is, judged by its method and its path under `baseUrl`.
Exchange classify(const platform::HttpRequest& request, const std::string& baseUrl);
/// "registration", "fence query", "observation", "error report", "other".
const char* exchangeName(Exchange exchange);

/// Passes every request on to another client and counts them by exchange: how many were sent
/// and how many did not get a 2xx answer.
class CountingHttpClient final : public platform::HttpClient {
 public:
  struct Count {
    std::uint64_t sent = 0;
    std::uint64_t failed = 0;
  };

  CountingHttpClient(std::shared_ptr<platform::HttpClient> inner, std::string baseUrl);

  platform::HttpResponse send(const platform::HttpRequest& request) override;
  std::array<Count, kExchangeCount> counts() const;

 private:
  std::shared_ptr<platform::HttpClient> inner_;
  std::string baseUrl_;
  mutable std::mutex mutex_;
  std::array<Count, kExchangeCount> counts_{};
};

}  // namespace zonaris::sim_tool
