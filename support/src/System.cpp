#include "tova/System.h"

#include "Platform.h"

namespace tova {

bool System::exists(const String& path) { return !path.empty() && platform::pathExists(path.str()); }

String System::getEnvironmentVariable(const String& name) { return platform::environmentVariable(name.str()); }

} // namespace tova
