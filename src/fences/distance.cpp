// Placeholder until this subsystem lands: the operations exist with their real signatures.
#include "zonaris/zonaris.hpp"

namespace zonaris {

double Zonaris::calculateDistanceFrom(const std::string& from, const std::string& to) {
  (void)from;
  (void)to;
  return kNoDistance;
}

}  // namespace zonaris
