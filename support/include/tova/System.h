#pragma once

#include "tova/Export.h"
#include "tova/String.h"

namespace tova {

class TOVA_API System {
public:
    // True when a file or folder exists at 'path'.
    static bool exists(const String& path);
    // The variable's value, empty when it is unset.
    static String getEnvironmentVariable(const String& name);
};

} // namespace tova
