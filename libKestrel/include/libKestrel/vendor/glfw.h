#pragma once

// Our declarations of the part of GLFW 3 that the monitor enumeration calls.
// GLFW is reached only at run time, through these pointer types; the windows and
// monitors are opaque and only ever handled by pointer.
namespace libKestrel::glfw {

struct GLFWwindow;
struct GLFWmonitor;

using GLFWerrorfun = void (*)(int errorCode, const char* description);

constexpr int GLFW_FALSE = 0;
constexpr int GLFW_TRUE = 1;
constexpr int GLFW_VISIBLE = 0x00020004;
constexpr int GLFW_CONTEXT_VERSION_MAJOR = 0x00022002;
constexpr int GLFW_CONTEXT_VERSION_MINOR = 0x00022003;
constexpr int GLFW_NOT_INITIALIZED = 0x00010001;
constexpr int GLFW_API_UNAVAILABLE = 0x00010006;
constexpr int GLFW_PLATFORM_ERROR = 0x00010008;

using PFN_glfwInit = int (*)();
using PFN_glfwTerminate = void (*)();
using PFN_glfwMakeContextCurrent = void (*)(GLFWwindow* window);
using PFN_glfwWindowHint = void (*)(int hint, int value);
using PFN_glfwGetMonitors = GLFWmonitor** (*)(int* count);
using PFN_glfwGetMonitorName = const char* (*)(GLFWmonitor* monitor);
using PFN_glfwSetErrorCallback = GLFWerrorfun (*)(GLFWerrorfun callback);
using PFN_glfwCreateWindow = GLFWwindow* (*)(int width, int height, const char* title, GLFWmonitor* monitor,
                                              GLFWwindow* share);
using PFN_glfwDestroyWindow = void (*)(GLFWwindow* window);
using PFN_glfwGetMonitorPos = void (*)(GLFWmonitor* monitor, int* xpos, int* ypos);
using PFN_glfwSetWindowPos = void (*)(GLFWwindow* window, int xpos, int ypos);
using PFN_glfwGetWindowMonitor = GLFWmonitor* (*)(GLFWwindow* window);
// Not used by the library; a monitor-side source may read its window back with them.
using PFN_glfwGetWindowPos = void (*)(GLFWwindow* window, int* xpos, int* ypos);
using PFN_glfwGetWindowAttrib = int (*)(GLFWwindow* window, int attribute);

} // namespace libKestrel::glfw
