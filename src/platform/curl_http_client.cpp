// Placeholder until the libcurl adapter lands.
#include "zonaris/platform/curl_http.hpp"

namespace zonaris::platform {

namespace {
class UnavailableHttpClient final : public HttpClient {
 public:
  HttpResponse send(const HttpRequest&) override {
    HttpResponse response;
    response.transportError = true;
    response.errorMessage = "HTTP is not available";
    return response;
  }
};
}  // namespace

std::shared_ptr<HttpClient> makeCurlHttpClient(const CurlHttpOptions&) {
  return std::make_shared<UnavailableHttpClient>();
}

}  // namespace zonaris::platform
