#pragma once

#include <atomic>

#include "libKestrel/vendor/glfw.h"
#include "tova/DynamicLibrary.h"

namespace libKestrel {

// The GLFW entry points the monitor enumeration calls, null until resolved.
// glfwMakeContextCurrent and glfwGetWindowMonitor are looked up but not kept.
struct GLFWFunctions {
    glfw::PFN_glfwInit glfwInit = nullptr;
    glfw::PFN_glfwTerminate glfwTerminate = nullptr;
    glfw::PFN_glfwWindowHint glfwWindowHint = nullptr;
    glfw::PFN_glfwGetMonitors glfwGetMonitors = nullptr;
    glfw::PFN_glfwGetMonitorName glfwGetMonitorName = nullptr;
    glfw::PFN_glfwSetErrorCallback glfwSetErrorCallback = nullptr;
    glfw::PFN_glfwCreateWindow glfwCreateWindow = nullptr;
    glfw::PFN_glfwDestroyWindow glfwDestroyWindow = nullptr;
    glfw::PFN_glfwGetMonitorPos glfwGetMonitorPos = nullptr;
    glfw::PFN_glfwSetWindowPos glfwSetWindowPos = nullptr;
};

// Process-wide binding state, used by one monitor enumeration at a time: the
// enumeration holds its lock throughout.
struct GLFWBinding {
    tova::DynamicLibrary library;
    std::atomic<bool> loaded{false};
    GLFWFunctions functions;
};

GLFWBinding& glfwBinding();

// Loads GLFW ("glfw3.dll", "libglfw.so.3") and fills the table; false when the
// module would not load, in which case nothing is changed.
bool initializeGLFWLibrary();

// Clears the table and the loaded flag. The module stays mapped until the next
// successful initializeGLFWLibrary replaces the holder.
void releaseGLFWLibrary();

// The first kept entry that the loaded module lacks, or null when it has them all.
const char* missingGLFWFunction();

} // namespace libKestrel
