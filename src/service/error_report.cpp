// Placeholder until this subsystem lands: the operations exist with their real signatures.
#include "zonaris/zonaris.hpp"

namespace zonaris {

void Zonaris::sendException(const std::string& reason, const std::vector<std::string>& callStack,
                            const nlohmann::json& variables) {
  (void)reason;
  (void)callStack;
  (void)variables;
}

}  // namespace zonaris
