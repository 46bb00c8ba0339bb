#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrel::test {

struct ProcessResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Where and with what a program runs, beyond this process's own.
struct RunOptions {
    std::string directory; // its current folder; this process's when empty
    // Variables set for it alone; one without a value is removed.
    std::vector<std::pair<std::string, std::optional<std::string>>> environment;
};

// Runs a program to its end and collects its exit code and output. 'program' is
// a path, of any length; the arguments are passed as they are, without a shell.
ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments,
                         const RunOptions& options = {});

// Sets an environment variable of this process, which the programs it starts inherit.
void setEnvironment(const std::string& name, const std::string& value);

#if !defined(_WIN32)
// The processes whose parent is 'parent', ended ones not yet collected included.
std::vector<int> childProcesses(int parent);
// The descriptors this process has open.
std::vector<int> openDescriptors();
#endif

} // namespace kestrel::test
