// Error reports: how the library tells the service about a failure instead of raising it.
#include <fmt/format.h>

#include "client/zonaris_state.hpp"
#include "service/request.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris {

void Zonaris::sendException(const std::string& reason, const std::vector<std::string>& callStack,
                            const nlohmann::json& variables) {
  devLog("Sending exception...");
  // Every reporter passes an array; anything else is sent as an empty one rather than
  // producing a report the service cannot read.
  const nlohmann::json data = {
      {"reason", reason},
      {"callstack", callStack},
      {"variables_state", variables.is_array() ? variables : nlohmann::json::array()}};
  const nlohmann::json report = {
      {"intall_id", state_->mInstallId.load()}, {"data", data}, {"version", kZonarisVersion}};
  const std::string body = service::compactJson(report);
  devLog(body);

  const auto response = service::send(
      state_->platform,
      service::postRequest(service::serviceUrl(state_->platform, "/install/error"), body));
  // The status is not looked at, and a failed report is dropped: it is not retried and does
  // not report itself.
  devLog(response.transportError ? "Exception wasn't sent!" : "Exception was sent successfully!");
}

}  // namespace zonaris
