#pragma once

#include <string>
#include <vector>

namespace kestrel::test {

struct ProcessResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs a program to its end and collects its exit code and output. 'program' is
// a path; the arguments are passed as they are, without a shell.
ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments);

} // namespace kestrel::test
