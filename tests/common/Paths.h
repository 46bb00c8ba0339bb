#pragma once

#include <string>

namespace kestrel::test {

// The folder of the running test executable, with a trailing separator.
std::string executableDirectory();

// A file name made unique for this process, in the system's temporary folder.
std::string temporaryPath(const std::string& name);
// The whole content of a file (UTF-8 path), empty when it cannot be read.
std::string fileText(const std::string& path);

} // namespace kestrel::test
