/* Deprecated, and removed in the next release: the simulation's C API is
 * zonaris/zonaris_simulation.h, named after its library, libzonaris_simulation. */
#ifndef ZONARIS_SIM_H
#define ZONARIS_SIM_H

#include "zonaris/zonaris_simulation.h"

#endif /* ZONARIS_SIM_H */
