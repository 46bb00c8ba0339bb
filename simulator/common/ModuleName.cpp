// Compiled into each module with its own SIM_MODULE_NAME.
#include "common/Simulator.h"

const char* sim::moduleName() { return SIM_MODULE_NAME; }
