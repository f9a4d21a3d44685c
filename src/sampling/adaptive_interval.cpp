// Placeholder until this subsystem lands: the operations exist with their real signatures.
#include "zonaris/zonaris.hpp"

namespace zonaris {

void Zonaris::calculateIntervalAndAccuracy() {}

}  // namespace zonaris
