#include "Platform.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>

namespace tova::platform {

void* openModule(const std::string& path, std::string& error)
{
    // RTLD_LOCAL keeps a vendor module's symbols out of the global namespace, so
    // two modules exporting the same names (as vendor libraries do) cannot collide.
    void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module) {
        const char* reason = dlerror();
        error = reason ? reason : "dlopen failed";
    }
    return module;
}

void closeModule(void* module) { dlclose(module); }

void* findSymbol(void* module, const char* name) { return dlsym(module, name); }

bool pathExists(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

std::string environmentVariable(const std::string& name)
{
    const char* value = std::getenv(name.c_str());
    return value ? value : "";
}

} // namespace tova::platform
