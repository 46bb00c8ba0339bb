#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace libKestrel::isolation {

// How a child ended, and what it wrote to its standard output.
struct ChildEnd {
    enum class How {
        exited,     // 'code' is its exit code
        crashed,    // 'code' is the signal (Linux) or the exception code (Windows)
        overdue,    // still running at the deadline: killed
        notStarted, // 'problem' says why
    };
    How how = How::notStarted;
    long code = 0;
    std::string output;
    std::string problem;
};

// Runs every command (a program's path and its arguments) as a child process,
// side by side, collecting each one's standard output, until each has ended or
// the deadline has passed, when those still running are killed. Every child is
// waited for and every pipe closed before this returns, a short while after the
// deadline at most.
std::vector<ChildEnd> runChildren(const std::vector<std::vector<std::string>>& commands,
                                  std::chrono::milliseconds deadline);

} // namespace libKestrel::isolation
