// The libcurl adapter against a real local server.
#include <gtest/gtest.h>

#include "support/recording_server.hpp"
#include "zonaris/platform/curl_http.hpp"

namespace zonaris::platform {
namespace {

using namespace std::chrono_literals;

class CurlHttpClientTest : public ::testing::Test {
 protected:
  HttpResponse get(const std::string& path, CurlHttpOptions options = {}) {
    return makeCurlHttpClient(options)->send({"GET", server.baseUrl() + path, {}, {}});
  }
  test::RecordingServer server;
};

TEST_F(CurlHttpClientTest, ReturnsTheStatusAndBodyOfEveryAnswerThatArrives) {
  for (int status : {200, 201, 404, 500}) {
    server.respond("GET", "/thing", {status, "body " + std::to_string(status)});
    const auto response = get("/thing?x=1");
    EXPECT_FALSE(response.transportError) << response.errorMessage;
    EXPECT_EQ(response.status, status);
    EXPECT_EQ(response.body, "body " + std::to_string(status));
  }
}

TEST_F(CurlHttpClientTest, PostsTheBodyWithExactlyTheHeadersGiven) {
  server.respond("POST", "/in", {201, ""});
  auto http = makeCurlHttpClient();
  const std::string big(100000, 'x');  // large enough for libcurl to want "Expect: 100-continue"
  http->send({"POST", server.baseUrl() + "/in", {{"Content-Type", "text/x-test"}}, big});
  http->send({"POST", server.baseUrl() + "/in", {}, "{}"});

  const auto sent = server.requests("POST", "/in");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].body, big);
  EXPECT_EQ(sent[0].header("Content-Type"), "text/x-test");
  EXPECT_FALSE(sent[0].hasHeader("Expect"));
  EXPECT_EQ(sent[1].body, "{}");
  EXPECT_FALSE(sent[1].hasHeader("Content-Type")) << "no form content type of libcurl's own";
}

// No complete answer, whatever the reason, is a transport error with status 0 and no body.
TEST_F(CurlHttpClientTest, NoCompleteAnswerIsATransportErrorWithStatusZero) {
  server.respond("GET", "/slow", {200, "late", "text/plain", 1000ms});
  server.respond("GET", "/fits", {200, std::string(1024, 'a')});
  server.respond("GET", "/over", {200, std::string(1025, 'a')});
  CurlHttpOptions shortTimeout, smallCap;
  shortTimeout.timeout = 100ms;
  smallCap.maxBodyBytes = 1024;

  EXPECT_EQ(get("/fits", smallCap).body.size(), 1024u);
  for (const auto& response : {get("/slow", shortTimeout), get("/over", smallCap)}) {
    EXPECT_TRUE(response.transportError);
    EXPECT_EQ(response.status, 0);
    EXPECT_TRUE(response.body.empty());
  }
  server.stop();
  const auto refused = get("/fits");
  EXPECT_TRUE(refused.transportError);
  EXPECT_EQ(refused.status, 0);
  EXPECT_FALSE(refused.errorMessage.empty());
}

}  // namespace
}  // namespace zonaris::platform
