#include "common/counting_http.hpp"

#include <nlohmann/json.hpp>

namespace zonaris::tools {

Exchange classify(const platform::HttpRequest& request, const std::string& baseUrl) {
  std::string path = request.url;
  if (path.compare(0, baseUrl.size(), baseUrl) == 0)
    path.erase(0, baseUrl.size());
  if (auto query = path.find('?'); query != std::string::npos)
    path.erase(query);
  if (request.method == "POST" && path == "/install")
    return Exchange::Registration;
  if (request.method == "GET" && path == "/install/location")
    return Exchange::FenceQuery;
  if (request.method == "POST" && path == "/observation")
    return Exchange::Observation;
  if (request.method == "POST" && path == "/install/error")
    return Exchange::ErrorReport;
  return Exchange::Other;
}

const char* exchangeName(Exchange exchange) {
  switch (exchange) {
    case Exchange::Registration:
      return "registration";
    case Exchange::FenceQuery:
      return "fence query";
    case Exchange::Observation:
      return "observation";
    case Exchange::ErrorReport:
      return "error report";
    case Exchange::Other:
      break;
  }
  return "other";
}

CountingHttpClient::CountingHttpClient(std::shared_ptr<platform::HttpClient> inner,
                                       std::string baseUrl)
    : inner_(std::move(inner)), baseUrl_(std::move(baseUrl)) {}

platform::HttpResponse CountingHttpClient::send(const platform::HttpRequest& request) {
  platform::HttpResponse response = inner_->send(request);
  const bool ok = !response.transportError && response.status >= 200 && response.status < 300;
  const Exchange exchange = classify(request, baseUrl_);
  std::deque<Answered> events;
  if (exchange == Exchange::Observation && !response.transportError) {
    // Read as the client reads it: events with a string type, in order.
    const auto answer = nlohmann::json::parse(response.body, nullptr, false);
    const auto list = answer.is_object() ? answer.find("events") : answer.end();
    if (list != answer.end() && list->is_array()) {
      for (const auto& event : *list) {
        if (!event.is_object() || !event.contains("event_type") || !event["event_type"].is_string())
          continue;
        const auto& id = event.contains("location_id") ? event["location_id"] : nlohmann::json();
        events.push_back({id.is_number_integer() ? id.get<std::int64_t>() : 0,
                          event["event_type"].get<std::string>()});
      }
    }
  }
  std::lock_guard lock(mutex_);
  Count& count = counts_[static_cast<std::size_t>(exchange)];
  ++count.sent;
  if (!ok)
    ++count.failed;
  // The libcurl client reports the size before decoding (CURLINFO_SIZE_DOWNLOAD_T); a client
  // that does not is taken to have received the body as it stands.
  count.receivedBytes +=
      response.wireBodyBytes != 0 ? response.wireBodyBytes : response.body.size();
  if (exchange == Exchange::FenceQuery && ok)
    freshCatalogue_ = true;
  if (exchange == Exchange::Observation && ok) {
    if (events.empty() && !freshCatalogue_)
      ++unconfirmed_;
    freshCatalogue_ = false;
  }
  if (exchange == Exchange::Observation && !response.transportError) {
    if (events.empty())
      answered_.erase(std::this_thread::get_id());
    else
      answered_[std::this_thread::get_id()] = std::move(events);
  }
  return response;
}

std::int64_t CountingHttpClient::takeConfirmed(const std::string& type,
                                               const std::function<bool(std::int64_t)>& fits) {
  std::lock_guard lock(mutex_);
  const auto it = answered_.find(std::this_thread::get_id());
  std::int64_t id = 0;
  bool found = false;
  while (it != answered_.end() && !it->second.empty() && !found) {
    const Answered next = std::move(it->second.front());
    it->second.pop_front();
    found = next.type == type && fits(next.id);
    id = found ? next.id : 0;
  }
  if (it != answered_.end() && it->second.empty())
    answered_.erase(it);
  return id;
}

std::uint64_t CountingHttpClient::unconfirmedObservations() const {
  std::lock_guard lock(mutex_);
  return unconfirmed_;
}

std::array<CountingHttpClient::Count, kExchangeCount> CountingHttpClient::counts() const {
  std::lock_guard lock(mutex_);
  return counts_;
}

}  // namespace zonaris::tools
