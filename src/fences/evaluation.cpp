// Placeholder until this subsystem lands: the operations exist with their real signatures.
#include "zonaris/zonaris.hpp"

namespace zonaris {

void Zonaris::handleFences() {}

void Zonaris::confirmEventFor(std::int64_t locationId, const std::string& type) {
  (void)locationId;
  (void)type;
}

}  // namespace zonaris
