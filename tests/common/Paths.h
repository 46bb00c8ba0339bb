#pragma once

#include <string>

namespace kestrel::test {

// The folder of the running test executable, with a trailing separator.
std::string executableDirectory();

// A file name made unique for this process, in the system's temporary folder.
std::string temporaryPath(const std::string& name);

} // namespace kestrel::test
