// Placeholder until this subsystem lands: the operations exist with their real signatures.
#include "zonaris/zonaris.hpp"

namespace zonaris {

void Zonaris::startDwellTimer() {}
void Zonaris::stopDwellTimer() {}
void Zonaris::updateDwellTimes() {}
std::int32_t Zonaris::getTimeBeforeDwell() {
  return kNoDwellPending;
}

}  // namespace zonaris
