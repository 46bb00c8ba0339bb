#pragma once

#include <string>
#include <vector>

namespace kestrel {

// The folder of the running program.
std::string executableDirectory();

// Makes "ProgramW6432" name 'folder', where NVIDIA's management library is
// looked for on Windows (a no-op elsewhere).
void pointProgramFilesAt(const std::string& folder);

// Makes "KESTREL_SYSFS_ROOT" name 'folder', where the Linux sysfs source looks
// for the kernel's PCI devices (a no-op on Windows, which has no such source).
void pointSysfsAt(const std::string& folder);

// Sets an environment variable of this process, for itself and its children.
void setEnvironment(const std::string& name, const std::string& value);

// Puts 'folders' before the module search path that child processes inherit
// (LD_LIBRARY_PATH, PATH on Windows). Every entry of the result is an absolute
// path: relative ones (the inherited path's too) are made absolute against the
// current folder, and empty ones, which the Linux loader reads as the current
// folder, are left out.
void prependSearchPath(const std::vector<std::string>& folders);

// Lets Ctrl-C (or SIGTERM) end a --watch loop or a server cleanly; true once it came.
void catchInterrupt();
bool interrupted();

} // namespace kestrel
