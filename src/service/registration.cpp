// Install registration: obtaining the installation's id from the service.
#include <chrono>

#include <fmt/format.h>

#include "client/zonaris_state.hpp"
#include "service/request.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {

namespace {

// Only this exact status counts as registered; a 200 is a failure like a 500.
constexpr long kRegisteredStatus = 201;
constexpr std::chrono::seconds kRetryDelay{30};

}  // namespace

void Zonaris::getInstallID() {
  devLog("Get install ID...");
  const std::string body = service::compactJson({{"appKey", mAppKey()}});
  const auto response =
      service::send(state_->platform,
                    service::postRequest(service::serviceUrl(state_->platform, "/install"), body));

  if (response.status == kRegisteredStatus) {
    devLog("Get install ID succesed!");
    const nlohmann::json answer = service::parseJson(response.body);
    devLog(service::describe(answer.is_null() ? nullptr : &answer));
    // A 201 without a usable "id" (no body, not JSON, not a number) still registers, with 0:
    // sampling starts, and the next launch finds 0 and registers again.
    state_->mInstallId.store(service::int64Of(service::member(answer, "id")));
    ZonarisUserDefaults::setInstallId(*state_->platform.store, state_->mInstallId.load());
    devLog(fmt::format("Get install id: Result - {}", state_->mInstallId.load()));
    updateLocation();
    return;
  }

  devLog("Get install ID failed!");
  devLog(fmt::format("Get install id: Send request error - {}", response.status));
  sendException("Get install id failed", callStackSymbols(), nlohmann::json::array());
  // No limit and no back-off: one attempt, and one error report, every 30 seconds.
  mainAfterGuarded("getInstallID", kRetryDelay, [](Zonaris& self) { self.getInstallID(); });
}

}  // namespace zonaris
