#include "tova/DynamicLibrary.h"

#include "Platform.h"

namespace tova {

// One loaded module; the last holder to let go of it closes it.
struct DynamicLibrary::Module {
    explicit Module(void* handle) : handle(handle) {}
    ~Module() { platform::closeModule(handle); }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;
    void* handle;
};

DynamicLibrary::DynamicLibrary() = default;
DynamicLibrary::DynamicLibrary(const char* path) : path_(path) {}
DynamicLibrary::DynamicLibrary(const String& path) : path_(path) {}
DynamicLibrary::DynamicLibrary(const DynamicLibrary& other) = default;
DynamicLibrary& DynamicLibrary::operator=(const DynamicLibrary& other) = default;
DynamicLibrary::~DynamicLibrary() = default;

bool DynamicLibrary::load()
{
    if (module_)
        return true;
    if (path_.empty()) {
        lastError_ = "no module name given";
        return false;
    }
    std::string error;
    void* handle = platform::openModule(path_.str(), error);
    if (!handle) {
        lastError_ = error;
        return false;
    }
    module_ = std::make_shared<Module>(handle);
    return true;
}

bool DynamicLibrary::unload()
{
    const bool held = module_ != nullptr;
    module_.reset();
    return held;
}

void* DynamicLibrary::getSymbol(const char* name) const
{
    return module_ && name ? platform::findSymbol(module_->handle, name) : nullptr;
}

bool DynamicLibrary::isLoaded() const { return module_ != nullptr; }

} // namespace tova
