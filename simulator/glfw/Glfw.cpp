// A simulated GLFW 3: the monitors of the scenario, windows that remember where
// they were put, and errors reported through the error callback as GLFW does.
//
// Scenario: "monitors": [{"name": "DELL U2720Q", "x": 0, "y": 0}, ...]
// Faults:   glfwInit {"return": 0}; glfwGetMonitors {"null": true} or {"count": n};
//           glfwGetMonitorName {"null": true}; glfwCreateWindow {"call": k, "null": true}.
// Journal:  besides each call, "glfwWindowHint <hint> <value>" and
//           "glfwCreateWindow <width>x<height>", what the caller asked for.
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "common/Simulator.h"
#include "libKestrel/vendor/glfw.h"

using namespace libKestrel::glfw;

struct libKestrel::glfw::GLFWmonitor {
    std::string name;
    int x = 0;
    int y = 0;
};

struct libKestrel::glfw::GLFWwindow {
    int x = 0;
    int y = 0;
    bool visible = true;
    int contextMajor = 1;
};

namespace {

struct Glfw {
    bool initialized = false;
    GLFWerrorfun errorCallback = nullptr;
    std::vector<std::unique_ptr<GLFWmonitor>> monitors;
    std::vector<GLFWmonitor*> monitorList;
    std::vector<std::unique_ptr<GLFWwindow>> windows;
    bool visibleHint = true;
    int contextMajorHint = 1;
};

Glfw& glfw()
{
    static Glfw state;
    return state;
}

void reportError(int code, const char* description)
{
    if (const GLFWerrorfun callback = glfw().errorCallback)
        sim::callBack(callback, code, description);
}

bool requireInitialized()
{
    const bool initialized = glfw().initialized;
    if (!initialized)
        reportError(GLFW_NOT_INITIALIZED, "The GLFW library is not initialized");
    return initialized;
}

} // namespace

// A scenario set while GLFW is initialised brings its faults in from this call
// on. The monitors stay those glfwInit found: GLFW updates its list only while
// it processes events, which no caller of this module does.
void sim::followScenario()
{
    if (glfw().initialized && sim::scenarioChanged())
        sim::reload();
}

// The simulator implements exactly the signatures the library calls through.
#define CHECK_SIGNATURE(function) \
    static_assert(std::is_same_v<decltype(&function), PFN_##function>, #function " has the wrong signature")

SIM_EXPORT int glfwInit()
{
    const sim::Guard guard;
    sim::reload();
    if (const auto fault = sim::enter("glfwInit"); fault && fault->returnCode) {
        reportError(GLFW_API_UNAVAILABLE, "Simulated: GLFW refused to initialize");
        return static_cast<int>(*fault->returnCode);
    }
    Glfw& state = glfw();
    state.initialized = true;
    state.monitors.clear();
    state.monitorList.clear();
    const auto& monitors = sim::scenario().value("monitors", nlohmann::json::array());
    for (const auto& entry : monitors) {
        auto monitor = std::make_unique<GLFWmonitor>();
        monitor->name = sim::text(entry, "name", "Simulated monitor");
        monitor->x = entry.value("x", 0);
        monitor->y = entry.value("y", 0);
        state.monitorList.push_back(monitor.get());
        state.monitors.push_back(std::move(monitor));
    }
    return GLFW_TRUE;
}
CHECK_SIGNATURE(glfwInit);

SIM_EXPORT void glfwTerminate()
{
    const sim::Guard guard;
    sim::enter("glfwTerminate");
    Glfw& state = glfw();
    if (!state.windows.empty())
        sim::record("windows left open at glfwTerminate: " + std::to_string(state.windows.size()));
    state.windows.clear();
    state.monitors.clear();
    state.monitorList.clear();
    state.initialized = false;
    state.visibleHint = true;
    state.contextMajorHint = 1;
}
CHECK_SIGNATURE(glfwTerminate);

SIM_EXPORT void glfwMakeContextCurrent(GLFWwindow*)
{
    const sim::Guard guard;
    sim::enter("glfwMakeContextCurrent");
}
CHECK_SIGNATURE(glfwMakeContextCurrent);

SIM_EXPORT void glfwWindowHint(int hint, int value)
{
    const sim::Guard guard;
    sim::enter("glfwWindowHint");
    sim::record("glfwWindowHint " + std::to_string(hint) + " " + std::to_string(value));
    if (!requireInitialized())
        return;
    if (hint == GLFW_VISIBLE)
        glfw().visibleHint = value != GLFW_FALSE;
    else if (hint == GLFW_CONTEXT_VERSION_MAJOR)
        glfw().contextMajorHint = value;
}
CHECK_SIGNATURE(glfwWindowHint);

SIM_EXPORT GLFWmonitor** glfwGetMonitors(int* count)
{
    const sim::Guard guard;
    const auto fault = sim::enter("glfwGetMonitors");
    *count = 0;
    if (!requireInitialized() || (fault && fault->null))
        return nullptr;
    Glfw& state = glfw();
    const auto size = static_cast<std::int64_t>(state.monitorList.size());
    // A smaller count can be shown; a larger one would send the caller past the list.
    *count = static_cast<int>(fault && fault->count && *fault->count < size ? *fault->count : size);
    return state.monitorList.empty() ? nullptr : state.monitorList.data();
}
CHECK_SIGNATURE(glfwGetMonitors);

SIM_EXPORT const char* glfwGetMonitorName(GLFWmonitor* monitor)
{
    const sim::Guard guard;
    const auto fault = sim::enter("glfwGetMonitorName");
    if (!requireInitialized() || !monitor || (fault && fault->null))
        return nullptr;
    return monitor->name.c_str();
}
CHECK_SIGNATURE(glfwGetMonitorName);

SIM_EXPORT GLFWerrorfun glfwSetErrorCallback(GLFWerrorfun callback)
{
    const sim::Guard guard;
    sim::enter("glfwSetErrorCallback");
    GLFWerrorfun previous = glfw().errorCallback;
    glfw().errorCallback = callback;
    return previous;
}
CHECK_SIGNATURE(glfwSetErrorCallback);

SIM_EXPORT GLFWwindow* glfwCreateWindow(int width, int height, const char*, GLFWmonitor*, GLFWwindow*)
{
    const sim::Guard guard;
    const auto fault = sim::enter("glfwCreateWindow");
    sim::record("glfwCreateWindow " + std::to_string(width) + "x" + std::to_string(height));
    if (!requireInitialized())
        return nullptr;
    if (width <= 0 || height <= 0) {
        reportError(0x00010004, "Invalid window size");
        return nullptr;
    }
    if (fault && fault->null) {
        reportError(GLFW_PLATFORM_ERROR, "Simulated: the window could not be created");
        return nullptr;
    }
    Glfw& state = glfw();
    auto window = std::make_unique<GLFWwindow>();
    window->visible = state.visibleHint;
    window->contextMajor = state.contextMajorHint;
    state.windows.push_back(std::move(window));
    return state.windows.back().get();
}
CHECK_SIGNATURE(glfwCreateWindow);

SIM_EXPORT void glfwDestroyWindow(GLFWwindow* window)
{
    const sim::Guard guard;
    sim::enter("glfwDestroyWindow");
    auto& windows = glfw().windows;
    for (auto it = windows.begin(); it != windows.end(); ++it)
        if (it->get() == window) {
            windows.erase(it);
            return;
        }
}
CHECK_SIGNATURE(glfwDestroyWindow);

#if !defined(SIM_OMIT_glfwGetMonitorPos)
SIM_EXPORT void glfwGetMonitorPos(GLFWmonitor* monitor, int* xpos, int* ypos)
{
    const sim::Guard guard;
    sim::enter("glfwGetMonitorPos");
    *xpos = monitor ? monitor->x : 0;
    *ypos = monitor ? monitor->y : 0;
}
CHECK_SIGNATURE(glfwGetMonitorPos);
#endif

SIM_EXPORT void glfwSetWindowPos(GLFWwindow* window, int xpos, int ypos)
{
    const sim::Guard guard;
    sim::enter("glfwSetWindowPos");
    if (!window)
        return;
    window->x = xpos;
    window->y = ypos;
}
CHECK_SIGNATURE(glfwSetWindowPos);

SIM_EXPORT GLFWmonitor* glfwGetWindowMonitor(GLFWwindow*)
{
    const sim::Guard guard;
    sim::enter("glfwGetWindowMonitor");
    return nullptr; // probe windows are never full screen
}
CHECK_SIGNATURE(glfwGetWindowMonitor);

// Read-back for monitor-side sources, as real GLFW offers them.
SIM_EXPORT void glfwGetWindowPos(GLFWwindow* window, int* xpos, int* ypos)
{
    const sim::Guard guard;
    *xpos = window ? window->x : 0;
    *ypos = window ? window->y : 0;
}
CHECK_SIGNATURE(glfwGetWindowPos);

SIM_EXPORT int glfwGetWindowAttrib(GLFWwindow* window, int attribute)
{
    const sim::Guard guard;
    if (!window)
        return 0;
    if (attribute == GLFW_VISIBLE)
        return window->visible ? GLFW_TRUE : GLFW_FALSE;
    if (attribute == GLFW_CONTEXT_VERSION_MAJOR)
        return window->contextMajor;
    return 0;
}
CHECK_SIGNATURE(glfwGetWindowAttrib);
