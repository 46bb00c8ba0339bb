#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace libKestrel::isolation {

// How a child ended, and what it answered.
struct ChildEnd {
    enum class How {
        exited,     // 'code' is its exit code
        crashed,    // 'code' is the signal (Linux) or the exception code (Windows)
        overdue,    // still running at the deadline: stopped
        tooLong,    // it answered more than an answer may hold: stopped
        notStarted, // 'problem' says why
        unknown,    // it ended, and the host collected it itself: how is lost
    };
    How how = How::notStarted;
    long code = 0;
    std::string answer; // what it wrote on its answer pipe
    std::string problem;
};

// 'deadline' from now, saturated: a deadline past what the clock can count
// waits for as long as it counts.
std::chrono::steady_clock::time_point deadlineAfter(std::chrono::milliseconds deadline);

// What became of a child, as a log line says it ("crashed with signal 11"); a
// child that answered what does not parse says 'problem'. 'overdue' is the
// words for a child stopped at its deadline.
std::string describe(const ChildEnd& end, const std::string& problem,
                     const char* overdue = "did not end by the deadline and was stopped");

// What an answer is: at most 'most' bytes, and complete once 'complete' says so.
struct AnswerRules {
    std::size_t most;
    bool (*complete)(std::string_view answer);
};

// Runs every command (a program's path and its arguments) as a child process
// (isolation/Process.h), side by side, collecting each one's answer, until each
// has ended or the deadline has passed; those still running then are stopped.
// A child's answer is read until it is complete, not until the pipe's end (a
// process the child started may hold that open). Returns a short while after
// the deadline at most: a child that does not end once stopped is collected by
// a later call. The deadline saturates: the longest waits for every child.
std::vector<ChildEnd> runChildren(const std::vector<std::vector<std::string>>& commands,
                                  std::chrono::milliseconds deadline, const AnswerRules& rules);

} // namespace libKestrel::isolation
