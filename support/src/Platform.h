#pragma once

#include <string>

// The operating-system layer of the support library: one implementation per OS
// (platform/Posix.cpp, platform/Windows.cpp), chosen by the build.
namespace tova::platform {

// Opens a module by path or bare name; null and a readable reason on failure.
void* openModule(const std::string& path, std::string& error);
void closeModule(void* module);
void* findSymbol(void* module, const char* name);

bool pathExists(const std::string& path);
// Empty when the variable is unset.
std::string environmentVariable(const std::string& name);

} // namespace tova::platform
