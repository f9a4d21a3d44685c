// Install registration and error reports as the service sees them.
#include <limits>

#include "service/service_fixture.hpp"

namespace zonaris::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

class Registration : public ServiceTest {
 protected:
  Registration() { client->setMInstallId(0); }
};

TEST_F(Registration, SendsOnlyTheAppKeyAndKeepsTheIssuedId) {
  server.respond("POST", "/install", {201, R"({"id": 57, "other": "ignored"})"});
  client->getInstallID();

  const auto sent = server.requests("POST", "/install");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(json::parse(sent[0].body), json({{"appKey", "demo-key"}}));
  EXPECT_EQ(sent[0].header("Content-Type"), "application/json; charset=UTF-8");
  EXPECT_EQ(client->mInstallId(), 57);
  EXPECT_EQ(simulation->store().getLong("installId"), 57);
  EXPECT_TRUE(client->mUpdatingLocation()) << "registration arms the first sample";
  EXPECT_TRUE(logged("Get install id: Result - 57"));
}

// What a 201 carries is not checked: without a usable "id" the install id is 0 and sampling
// starts anyway.
class RegistrationAnswer : public Registration,
                           public ::testing::WithParamInterface<std::pair<const char*, long>> {};

TEST_P(RegistrationAnswer, A201StoresWhatTheIdReadsAsAndArmsASample) {
  server.respond("POST", "/install", {201, GetParam().first});
  simulation->store().setLong("installId", 99);
  client->getInstallID();
  EXPECT_EQ(client->mInstallId(), GetParam().second);
  EXPECT_EQ(simulation->store().getLong("installId"), GetParam().second);
  EXPECT_TRUE(client->mUpdatingLocation());
  EXPECT_TRUE(errorReports().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Bodies, RegistrationAnswer,
    ::testing::Values(std::pair{"", 0L}, std::pair{"not json", 0L},
                      std::pair{R"({"id": null})", 0L}, std::pair{R"({"id": "abc"})", 0L},
                      std::pair{R"({"id": "57"})", 57L},
                      std::pair{R"({"id": 1e30})", std::numeric_limits<long>::max()}));

// Anything but a 201 fails: one error report per attempt and a new attempt every 30 s.
class RegistrationFailure : public Registration, public ::testing::WithParamInterface<int> {};

TEST_P(RegistrationFailure, ReportsAndRetriesEveryThirtySecondsUntilA201) {
  const int status = GetParam();  // 0: no service at all
  server.respondSequence("POST", "/install", {{status, R"({"id": 57})"}, {201, R"({"id": 8})"}});
  if (status == 0)
    server.stop();

  client->getInstallID();
  EXPECT_EQ(client->mInstallId(), 0);
  EXPECT_FALSE(client->mUpdatingLocation());
  EXPECT_TRUE(logged("Get install id: Send request error - " + std::to_string(status)));
  simulation->runFor(29999ms);
  EXPECT_EQ(logCount("Get install ID..."), 1);
  simulation->runFor(1ms);
  EXPECT_EQ(logCount("Get install ID..."), 2);

  if (status == 0) {
    simulation->runFor(60s);
    EXPECT_EQ(logCount("Get install ID..."), 4);
    EXPECT_EQ(logCount("Exception wasn't sent!"), 4);
    return;
  }
  EXPECT_EQ(client->mInstallId(), 8);
  const auto reports = errorReports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0]["data"]["reason"], "Get install id failed");
  simulation->runFor(2min);
  EXPECT_EQ(server.count("POST", "/install"), 2u) << "a registered client stops trying";
}

INSTANTIATE_TEST_SUITE_P(Statuses, RegistrationFailure, ::testing::Values(200, 500, 0));

TEST_F(Registration, ErrorReportsCarryReasonStackVariablesInstallIdAndVersion) {
  server.respond("POST", "/install/error", {500, "oops"});
  client->setMInstallId(-3);
  const json variables = json::array({{{"name", "fences"}, {"value", "nil"}}});
  client->sendException("Handle fences error", {"0 frame", "1 frame"}, variables);

  const auto sent = server.requests("POST", "/install/error");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].header("Content-Type"), "application/json; charset=UTF-8");
  EXPECT_EQ(json::parse(sent[0].body), json({{"intall_id", -3},
                                             {"data",
                                              {{"reason", "Handle fences error"},
                                               {"callstack", {"0 frame", "1 frame"}},
                                               {"variables_state", variables}}},
                                             {"version", "2.0.03.30"}}));
  EXPECT_TRUE(logged("Exception was sent successfully!")) << "the status is not looked at";
}

}  // namespace
}  // namespace zonaris::test
