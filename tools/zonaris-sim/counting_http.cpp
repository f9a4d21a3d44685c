#include "counting_http.hpp"

namespace zonaris::sim_tool {

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
  std::lock_guard lock(mutex_);
  Count& count = counts_[static_cast<std::size_t>(classify(request, baseUrl_))];
  ++count.sent;
  if (!ok)
    ++count.failed;
  return response;
}

std::array<CountingHttpClient::Count, kExchangeCount> CountingHttpClient::counts() const {
  std::lock_guard lock(mutex_);
  return counts_;
}

}  // namespace zonaris::sim_tool
