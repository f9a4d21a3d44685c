#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "zonaris/platform/http.hpp"

namespace zonaris::tools {

/// The four exchanges of the service, and anything else.
enum class Exchange { Registration, FenceQuery, Observation, ErrorReport, Other };
inline constexpr std::size_t kExchangeCount = 5;

/// Which exchange `request` is, judged by its method and its path under `baseUrl`.
Exchange classify(const platform::HttpRequest& request, const std::string& baseUrl);
/// "registration", "fence query", "observation", "error report", "other".
const char* exchangeName(Exchange exchange);

/// Passes every request on to another client and counts them by exchange: how many were sent,
/// how many did not get a 2xx answer, and the bytes of the answers' bodies as they arrived on
/// the wire (compressed when they were; the inner client says, see `wireBodyBytes`). It also reads
/// the answers to observations: which events they confirm (by fence id) and how many confirm
/// nothing.
class CountingHttpClient final : public platform::HttpClient {
 public:
  struct Count {
    std::uint64_t sent = 0;
    std::uint64_t failed = 0;
    std::uint64_t receivedBytes = 0;
  };

  CountingHttpClient(std::shared_ptr<platform::HttpClient> inner, std::string baseUrl);

  platform::HttpResponse send(const platform::HttpRequest& request) override;
  std::array<Count, kExchangeCount> counts() const;

  /// The fence id of an event the client is confirming to the application right now, on the
  /// thread that received the answer: the next event of that answer of this type whose id
  /// `fits` (the client skips events of fences it does not hold). 0 when there is none.
  std::int64_t takeConfirmed(const std::string& type,
                             const std::function<bool(std::int64_t)>& fits);
  /// Observations answered (2xx) without an event, except the first after each fence download.
  std::uint64_t unconfirmedObservations() const;

 private:
  struct Answered {
    std::int64_t id;
    std::string type;
  };

  std::shared_ptr<platform::HttpClient> inner_;
  std::string baseUrl_;
  mutable std::mutex mutex_;
  std::array<Count, kExchangeCount> counts_{};
  std::map<std::thread::id, std::deque<Answered>> answered_;  // the last answer per thread
  bool freshCatalogue_ = false;  // a download was answered, no observation since
  std::uint64_t unconfirmed_ = 0;
};

}  // namespace zonaris::tools
