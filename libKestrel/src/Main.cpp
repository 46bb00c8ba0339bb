#include "libKestrel/internal/Main.h"

#include <mutex>

#include "libKestrel/internal/Kestrel.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/multi/GLFW/glfwWrapper.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;

logging::LogSite site("libKestrel.Main", "libKestrel/src/Main.cpp");

// GLFW keeps one state per process, started by glfwInit and ended by
// glfwTerminate, and its binding one table: one enumeration runs at a time.
std::mutex enumerating;

} // namespace

void glfwErrorCallback(int, const char* description)
{
    log(site, Priority::WARNING, "31 ", "GLFW Error: ", description);
}

std::vector<std::shared_ptr<IGPU>> queryAvailableMonitorInfo(const std::vector<MonitorGPUQuerier>& monitorQueriers)
{
    auto trace = site.trace("queryAvailableMonitorInfo", 23);
    std::vector<std::shared_ptr<IGPU>> result;
    const std::lock_guard<std::mutex> oneAtATime(enumerating);
    if (!initializeGLFWLibrary()) {
        log(site, Priority::TRACE, "44 ", "Could not load libglfw, likely X libraries are not installed");
        return result;
    }
    ScopeExit release(releaseGLFWLibrary);

    // A module that lacks an entry we call is no GLFW we can use.
    if (const char* missing = missingGLFWFunction()) {
        log(site, Priority::WARNING, "46 ", "GLFW lacks the entry point ", missing);
        return result;
    }
    const GLFWFunctions& glfw = glfwBinding().functions;

    // GLFW keeps one error callback per process, across glfwTerminate: a host
    // that uses GLFW itself gets its own back, and GLFW keeps no pointer into
    // this library once it is unloaded.
    const glfw::GLFWerrorfun hostCallback = glfw.glfwSetErrorCallback(glfwErrorCallback);
    ScopeExit restore([&glfw, hostCallback] { glfw.glfwSetErrorCallback(hostCallback); });
    if (glfw.glfwInit() == glfw::GLFW_FALSE) {
        log(site, Priority::WARNING, "53 ", "Failed to initialize GLFW");
        return result;
    }
    ScopeExit terminate(glfw.glfwTerminate);

    // An OpenGL 1.0 context in a window that is never shown.
    glfw.glfwWindowHint(glfw::GLFW_CONTEXT_VERSION_MAJOR, 1);
    glfw.glfwWindowHint(glfw::GLFW_CONTEXT_VERSION_MINOR, 0);
    glfw.glfwWindowHint(glfw::GLFW_VISIBLE, glfw::GLFW_FALSE);

    int count = 0;
    glfw::GLFWmonitor** monitors = glfw.glfwGetMonitors(&count);
    // GLFW reports an error as a null list; never walk a list that is not there.
    if (!monitors || count < 0)
        count = 0;
    if (count == 0) {
        log(site, Priority::CRITICAL, "70 ", "Could not find a suitable monitor to enumerate");
        return result;
    }
    log(site, Priority::TRACE, "74 ", "Monitors found: ", count);

    for (int i = 0; i < count; ++i) {
        glfw::GLFWmonitor* monitor = monitors[i];
        log(site, Priority::TRACE, "77 ", "Monitor ", i);
        log(site, Priority::TRACE, "78 ", "  Name: ",
            logging::deferred([&glfw, monitor] { return glfw.glfwGetMonitorName(monitor); }));

        glfw::GLFWwindow* window = glfw.glfwCreateWindow(1, 1, "", nullptr, nullptr);
        if (!window) {
            log(site, Priority::CRITICAL, "84 ", "Failed to create window on monitor ", i);
            continue;
        }
        ScopeExit destroy([&glfw, window] { glfw.glfwDestroyWindow(window); });

        // At the monitor's top-left corner, the window belongs to the GPU driving it.
        int x = 0;
        int y = 0;
        glfw.glfwGetMonitorPos(monitor, &x, &y);
        glfw.glfwSetWindowPos(window, x, y);

        void* const first = window;
        void* const second = monitor;
        auto records = queryAllMonitorGPUs(monitorQueriers, first, second);
        log(site, Priority::TRACE, "98 ", "Found ", records.size(), " from vendor query");
        result.insert(result.end(), records.begin(), records.end());
    }
    return result;
}

} // namespace libKestrel
