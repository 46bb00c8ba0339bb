#include "libKestrel/internal/isolation/ChildProcess.h"

#include <algorithm>
#include <cstring>

#if defined(_WIN32)
#include <windows.h>
#else
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
extern char** environ;
#endif

namespace libKestrel::isolation {
namespace {

using Clock = std::chrono::steady_clock;

// No source writes this much; a child that does is misbehaving and is stopped.
constexpr std::size_t mostOutput = 64u << 20;

#if defined(_WIN32)

std::wstring widened(const std::string& text)
{
    if (text.empty())
        return {};
    const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
    return wide;
}

// One argument quoted as the C runtime splits a command line.
std::wstring quoted(const std::string& argument)
{
    std::wstring result = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t c : widened(argument)) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        result.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
        backslashes = 0;
        result += c;
    }
    result.append(backslashes * 2, L'\\');
    return result + L"\"";
}

struct Child {
    HANDLE process = nullptr;
    HANDLE output = nullptr; // the read end of its standard output
    ChildEnd end;
    bool finished = false;
};

void start(Child& child, const std::vector<std::string>& command)
{
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inheritable, 0)) {
        child.end.problem = "cannot make a pipe";
        child.finished = true;
        return;
    }
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    std::wstring line;
    for (const std::string& argument : command)
        line += (line.empty() ? L"" : L" ") + quoted(argument);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = writeEnd;
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION info{};
    const BOOL started = CreateProcessW(widened(command.front()).c_str(), line.data(), nullptr, nullptr, TRUE,
                                        CREATE_NO_WINDOW, nullptr, nullptr, &startup, &info);
    CloseHandle(writeEnd);
    if (!started) {
        CloseHandle(readEnd);
        child.end.problem = "cannot start " + command.front() + " (error " + std::to_string(GetLastError()) + ")";
        child.finished = true;
        return;
    }
    CloseHandle(info.hThread);
    child.process = info.hProcess;
    child.output = readEnd;
}

// Takes what the pipe holds now; false once it is closed.
bool drain(Child& child)
{
    DWORD available = 0;
    if (!PeekNamedPipe(child.output, nullptr, 0, nullptr, &available, nullptr))
        return false;
    while (available > 0) {
        char buffer[65536];
        DWORD got = 0;
        if (!ReadFile(child.output, buffer, std::min<DWORD>(available, sizeof buffer), &got, nullptr) || got == 0)
            return false;
        child.end.output.append(buffer, got);
        available -= got;
    }
    return true;
}

void finish(Child& child, bool overdue)
{
    if (overdue)
        TerminateProcess(child.process, 1);
    WaitForSingleObject(child.process, INFINITE);
    while (drain(child) && child.end.output.size() < mostOutput) {
        DWORD available = 0;
        if (!PeekNamedPipe(child.output, nullptr, 0, nullptr, &available, nullptr) || available == 0)
            break;
    }
    DWORD code = 0;
    GetExitCodeProcess(child.process, &code);
    // An unhandled exception ends a process with its NTSTATUS code (0xC0000005 for
    // an access violation); a program's own exit codes are small.
    child.end.how = overdue ? ChildEnd::How::overdue
                    : code >= 0xC0000000u ? ChildEnd::How::crashed
                                          : ChildEnd::How::exited;
    child.end.code = static_cast<long>(code);
    CloseHandle(child.output);
    CloseHandle(child.process);
    child.finished = true;
}

std::vector<ChildEnd> run(const std::vector<std::vector<std::string>>& commands, Clock::time_point deadline)
{
    std::vector<Child> children(commands.size());
    for (std::size_t i = 0; i < commands.size(); ++i)
        start(children[i], commands[i]);
    for (;;) {
        bool waiting = false;
        for (Child& child : children) {
            if (child.finished)
                continue;
            const bool open = drain(child);
            if (child.end.output.size() > mostOutput || WaitForSingleObject(child.process, 0) == WAIT_OBJECT_0 ||
                !open)
                finish(child, child.end.output.size() > mostOutput);
            else
                waiting = true;
        }
        if (!waiting)
            break;
        if (Clock::now() >= deadline) {
            for (Child& child : children)
                if (!child.finished)
                    finish(child, true);
            break;
        }
        Sleep(2);
    }
    std::vector<ChildEnd> ends;
    for (Child& child : children)
        ends.push_back(std::move(child.end));
    return ends;
}

#else

struct Child {
    pid_t pid = -1;
    int output = -1; // the read end of its standard output, -1 once closed
    ChildEnd end;
    bool finished = false;
};

void start(Child& child, const std::vector<std::string>& command)
{
    int ends[2];
    // Close-on-exec, so that children started meanwhile do not hold this pipe.
    if (pipe2(ends, O_CLOEXEC) != 0) {
        child.end.problem = std::string("cannot make a pipe: ") + std::strerror(errno);
        child.finished = true;
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    std::vector<char*> argv;
    for (const std::string& argument : command)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const int failed = posix_spawn(&child.pid, command.front().c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (failed != 0) {
        close(ends[0]);
        child.end.problem = "cannot start " + command.front() + ": " + std::strerror(failed);
        child.finished = true;
        return;
    }
    child.output = ends[0];
}

void closeOutput(Child& child)
{
    if (child.output >= 0)
        close(child.output);
    child.output = -1;
}

// Says how the child ended, from waitpid's status.
void ended(Child& child, int status)
{
    closeOutput(child);
    child.end.how = WIFSIGNALED(status) ? ChildEnd::How::crashed : ChildEnd::How::exited;
    child.end.code = WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
    child.finished = true;
}

// Kills the child, still running at the deadline or misbehaving, and waits for it.
void stop(Child& child)
{
    kill(child.pid, SIGKILL);
    int status = 0;
    while (waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
    }
    ended(child, status);
    child.end.how = ChildEnd::How::overdue;
}

std::vector<ChildEnd> run(const std::vector<std::vector<std::string>>& commands, Clock::time_point deadline)
{
    std::vector<Child> children(commands.size());
    for (std::size_t i = 0; i < commands.size(); ++i)
        start(children[i], commands[i]);
    for (;;) {
        std::vector<pollfd> watched;
        std::vector<Child*> owners;
        bool running = false;
        for (Child& child : children) {
            if (child.finished)
                continue;
            if (child.output >= 0) {
                watched.push_back({child.output, POLLIN, 0});
                owners.push_back(&child);
            } else {
                // Its output is closed: it has ended, or is about to.
                int status = 0;
                if (waitpid(child.pid, &status, WNOHANG) == child.pid) {
                    ended(child, status);
                    continue;
                }
            }
            running = true;
        }
        if (!running)
            break;
        const auto now = Clock::now();
        if (now >= deadline) {
            for (Child& child : children)
                if (!child.finished)
                    stop(child);
            break;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count();
        const int timeout = static_cast<int>(std::min<long long>(left + 1, watched.empty() ? 5 : 50));
        if (poll(watched.data(), watched.size(), timeout) < 0 && errno != EINTR)
            continue;
        for (std::size_t i = 0; i < watched.size(); ++i) {
            if (!(watched[i].revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            Child& child = *owners[i];
            char buffer[65536];
            const ssize_t got = read(child.output, buffer, sizeof buffer);
            if (got > 0)
                child.end.output.append(buffer, static_cast<std::size_t>(got));
            else if (got == 0 || errno != EINTR)
                closeOutput(child);
            if (child.end.output.size() > mostOutput)
                stop(child);
        }
    }
    std::vector<ChildEnd> ends;
    for (Child& child : children)
        ends.push_back(std::move(child.end));
    return ends;
}

#endif

} // namespace

std::vector<ChildEnd> runChildren(const std::vector<std::vector<std::string>>& commands,
                                  std::chrono::milliseconds deadline)
{
    return run(commands, Clock::now() + deadline);
}

} // namespace libKestrel::isolation
