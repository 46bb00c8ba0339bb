#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace libKestrel::isolation {

using Clock = std::chrono::steady_clock;

// How long a stopped child has to end before it is left to be collected later.
constexpr std::chrono::milliseconds stopMargin(250);

// How a child process ended.
struct ProcessEnd {
    bool crashed = false; // 'code' is the signal (Linux) or the exception code (Windows)
    long code = 0;        // else its exit code
    bool known = true;    // false: the host collected it itself, and how it ended is lost
};

// One child process, the group of processes it starts, and the pipe it answers
// on. The child gets exactly these descriptors: an empty standard input, the
// host's standard error as its standard output and error (so that what a vendor
// library prints never mixes with the answer), the write end of its answer
// pipe, named by the arguments "--answer-pipe <n>" added after the command's own
// (a descriptor on Linux, a handle value on Windows), and, for a child that
// takes requests, the read end of its request pipe, named by "--request-pipe
// <n>" after those. It ends with its host, and
// whatever it starts is stopped with it. A child that has ended is collected
// through a process descriptor (Linux) or handle (Windows), never by a process
// id that may have been given to another process since.
//
// Linux: the child is made by the calling thread and ends when that thread
// ends (the parent-death signal follows the creating thread), so a thread that
// starts a child must outlive it. Its end is seen through its descriptor, so a
// host that ignores SIGCHLD or collects its children itself loses this object
// nothing but how the child ended.
class Process {
public:
    // Starts 'command' (a program's path, then its arguments), with a request
    // pipe when 'requests'. 'problem' says why it could not be started, and is
    // left empty when it was.
    Process(const std::vector<std::string>& command, std::string& problem, bool requests = false);
    // A child still running is stopped and left to be collected later.
    ~Process()
    {
        if (running_) {
            kill();
            if (!ended())
                abandon();
        }
        closeAnswer();
        closeRequests();
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Appends what the answer pipe holds now to 'answer', without waiting and
    // never past 'most' bytes in all; false once no process holds the write end.
    bool read(std::string& answer, std::size_t most);
    // Stops reading: the answer is complete, or no longer wanted.
    void closeAnswer();
    bool reading() const;

    // Writes 'line' to the request pipe, without waiting for the child to read
    // it; false when it cannot (no request pipe, or the child has let go of it).
    bool request(const std::string& line);
    // Closes the request pipe: a child that reads its requests sees their end.
    void closeRequests();

    // Its end once it has ended, else nothing; never waits. Whatever it started
    // and left running is stopped then.
    std::optional<ProcessEnd> ended();
    // Stops it and whatever it started, without waiting for the end.
    void kill();
    // Hands a child that does not end after kill() (stuck in a driver, in the
    // kernel) to a list of the whole process, which collect() looks at later.
    void abandon();

    // Waits until one of 'processes' has something to read or has ended, or
    // until 'until' has come.
    static void waitForAny(const std::vector<Process*>& processes, Clock::time_point until);
    // Collects the abandoned children that have ended since, without waiting.
    static void collectAbandoned();

    // Whether 'path' names a regular file (not a link) that this process may run.
    static bool isProgram(const std::string& path);

private:
    bool running_ = false; // started, and not seen to end
#if defined(_WIN32)
    void* process_ = nullptr;
    void* job_ = nullptr; // the child and everything it starts
    void* answer_ = nullptr;
    void* requests_ = nullptr;
#else
    int pid_ = -1; // also the id of its process group
    int descriptor_ = -1;
    int answer_ = -1;
    int requests_ = -1;
#endif
};

} // namespace libKestrel::isolation
