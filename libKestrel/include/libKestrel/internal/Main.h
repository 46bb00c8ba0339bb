#pragma once

#include <memory>
#include <vector>

#include "libKestrel/Query.h"

namespace libKestrel {

// Enumerates the attached monitors through GLFW and runs the monitor-side sources
// once per monitor, with a hidden 1x1 window placed at the monitor's origin.
// Returns their records, monitor 0's first; empty when monitors cannot be enumerated.
std::vector<std::shared_ptr<IGPU>> queryAvailableMonitorInfo(const std::vector<MonitorGPUQuerier>& monitorQueriers);

// GLFW's error callback: routes GLFW's errors to the log.
void glfwErrorCallback(int code, const char* description);

} // namespace libKestrel
