#include "libKestrel/internal/multi/GLFW/glfwWrapper.h"

#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/Lookup.h"

namespace libKestrel {
namespace {

logging::LogSite site("libKestrel.GLFWWrapper", "libKestrel/src/multi/GLFW/glfwWrapper.cpp");

#if defined(_WIN32)
const char* const glfwModuleName = "glfw3.dll";
#else
const char* const glfwModuleName = "libglfw.so.3";
#endif

// The twelve look-ups, in order.
template <class Visit>
void listEntries(GLFWFunctions& f, Visit visit)
{
    visit("glfwInit", &f.glfwInit);
    visit("glfwTerminate", &f.glfwTerminate);
    visit("glfwMakeContextCurrent", dropped);
    visit("glfwWindowHint", &f.glfwWindowHint);
    visit("glfwGetMonitors", &f.glfwGetMonitors);
    visit("glfwGetMonitorName", &f.glfwGetMonitorName);
    visit("glfwSetErrorCallback", &f.glfwSetErrorCallback);
    visit("glfwCreateWindow", &f.glfwCreateWindow);
    visit("glfwDestroyWindow", &f.glfwDestroyWindow);
    visit("glfwGetMonitorPos", &f.glfwGetMonitorPos);
    visit("glfwSetWindowPos", &f.glfwSetWindowPos);
    visit("glfwGetWindowMonitor", dropped);
}

} // namespace

GLFWBinding& glfwBinding()
{
    static GLFWBinding binding;
    return binding;
}

bool initializeGLFWLibrary()
{
    auto trace = site.trace("initializeGLFWLibrary", 43);
    tova::DynamicLibrary candidate{tova::String(glfwModuleName)};
    if (!candidate.load())
        return false;

    GLFWBinding& binding = glfwBinding();
    binding.library = candidate;
    resolveEntries(binding.library, [&binding](auto visit) { listEntries(binding.functions, visit); });
    binding.loaded.exchange(true);
    return true;
}

void releaseGLFWLibrary()
{
    GLFWBinding& binding = glfwBinding();
    binding.functions = GLFWFunctions();
    binding.loaded.exchange(false);
}

const char* missingGLFWFunction()
{
    return firstMissingEntry([](auto visit) { listEntries(glfwBinding().functions, visit); });
}

} // namespace libKestrel
