#pragma once

#include <memory>

#include "tova/Export.h"
#include "tova/String.h"

namespace tova {

// A loadable module (LoadLibraryW / dlopen). Constructing names the module without
// loading it. Copies share the loaded module: it stays mapped until every holder
// has called unload or been destroyed.
class TOVA_API DynamicLibrary {
public:
    DynamicLibrary();
    explicit DynamicLibrary(const char* path);
    explicit DynamicLibrary(const String& path);
    DynamicLibrary(const DynamicLibrary& other);
    DynamicLibrary& operator=(const DynamicLibrary& other);
    ~DynamicLibrary();

    // Loads the module named at construction; true when it is loaded afterwards.
    bool load();
    // Releases this holder's share of the module; false when it held none.
    bool unload();
    // The exported symbol, or null when it is missing or nothing is loaded.
    void* getSymbol(const char* name) const;

    bool isLoaded() const;
    const String& path() const { return path_; }
    // The loader's explanation of the last failed load, for diagnostics.
    const String& lastError() const { return lastError_; }

private:
    struct Module;
    String path_;
    String lastError_;
    std::shared_ptr<Module> module_;
};

} // namespace tova
