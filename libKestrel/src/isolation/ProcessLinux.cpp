#if !defined(_WIN32)
#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <mutex>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/isolation/Process.h"

extern char** environ;

namespace libKestrel::isolation {
namespace {

// The child's answer pipe, the first descriptor after the standard three, then
// its request pipe when it takes requests.
constexpr int answerDescriptor = 3;
constexpr int requestDescriptor = 4;

// Everything the child uses between its creation and exec, made beforehand: in
// a copy of a process that may have other threads it makes system calls only.
struct Setup {
    const char* path;
    char* const* argv;
    char* const* environment;
    pid_t parent;
    int input;   // /dev/null
    int output;  // the host's standard error
    int answer;  // the write end of the answer pipe
    int request; // the read end of the request pipe, or -1
    int failure; // carries exec's error to the parent; closed by a successful exec
    long openMost; // descriptors to close one by one where close_range is missing
};

// Moves a descriptor to 5 or above, so that the child's moves onto 0 to 4 never
// overwrite one it has still to move. -1 stays -1.
int liftedAboveChilds(int descriptor)
{
    if (descriptor < 0 || descriptor > requestDescriptor)
        return descriptor;
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, requestDescriptor + 1);
    close(descriptor);
    return moved;
}

// Closes every descriptor from 'first' on but 'kept'.
void closeAllFrom(int first, int kept, long openMost)
{
    if (close_range(static_cast<unsigned>(first), static_cast<unsigned>(kept - 1), 0) == 0 &&
        close_range(static_cast<unsigned>(kept + 1), UINT_MAX, 0) == 0)
        return;
    for (int descriptor = first; descriptor < openMost; ++descriptor)
        if (descriptor != kept)
            close(descriptor);
}

[[noreturn]] void becomeChild(const Setup& setup)
{
    // A one-shot helper dies with the thread that made it. A session's helper
    // outlives that thread (a host may refresh from short-lived threads) and
    // ends when its request pipe hangs up instead. A parent that ended before
    // this was set has left it to another process already: it ends at once.
    if ((setup.request < 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) || getppid() != setup.parent)
        _exit(127);
    // A session and process group of its own: what it starts is stopped with
    // it, and a terminal's job control leaves it alone.
    setsid();
    dup2(setup.input, STDIN_FILENO);
    dup2(setup.output, STDOUT_FILENO);
    dup2(setup.output, STDERR_FILENO);
    dup2(setup.answer, answerDescriptor);
    if (setup.request >= 0)
        dup2(setup.request, requestDescriptor);
    closeAllFrom(setup.request >= 0 ? requestDescriptor + 1 : answerDescriptor + 1, setup.failure, setup.openMost);
    // Default actions: the host's handlers are not in the program about to
    // run, and signals it ignores (SIGCHLD, SIGPIPE) would stay ignored.
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal)
        sigaction(signal, &standard, nullptr); // SIGKILL, SIGSTOP and the C library's own are refused: fine
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(setup.path, setup.argv, setup.environment);
    const int error = errno;
    [[maybe_unused]] const ssize_t told = write(setup.failure, &error, sizeof error);
    _exit(127);
}

// Starts a copy of this process, its process descriptor made with it: no other
// process can ever stand behind that descriptor. Until exec (which makes the
// end signalled as usual) its end is signalled to no one, so a host's
// waitpid(-1) or ignored SIGCHLD never takes a failed exec's status.
pid_t startChild(int& descriptor)
{
    struct {
        std::uint64_t flags, pidfd, childTid, parentTid, exitSignal, stack, stackSize, tls;
    } arguments{};
    arguments.flags = CLONE_PIDFD;
    arguments.pidfd = reinterpret_cast<std::uintptr_t>(&descriptor);
    long pid = syscall(SYS_clone3, &arguments, sizeof arguments);
    // Some container filters refuse clone3; the older call puts the descriptor
    // where its third argument points (x86-64, arm64).
    if (pid < 0 && errno == ENOSYS)
        pid = syscall(SYS_clone, CLONE_PIDFD, nullptr, &descriptor, nullptr, nullptr);
    return static_cast<pid_t>(pid);
}

// waitid on a process descriptor; 'info' says nothing (si_pid 0) while the
// child runs. Children of every kind, since these signal no end.
bool waitOn(int descriptor, int options, siginfo_t& info)
{
    info = {};
    return waitid(P_PIDFD, static_cast<id_t>(descriptor), &info, options | WEXITED | WNOHANG | __WALL) == 0;
}

// Kills the child's process group through its process descriptor, which names
// that group whoever collected the child and whatever process its id is given
// to later (Linux 6.9 on); before that, by the group's id, and only while the
// child is not collected, so that the id is still its own.
void killGroup(int descriptor, pid_t group)
{
    constexpr unsigned processGroup = 1u << 2; // PIDFD_SIGNAL_PROCESS_GROUP
    if (syscall(SYS_pidfd_send_signal, descriptor, SIGKILL, nullptr, processGroup) == 0 || errno != EINVAL)
        return;
    siginfo_t info;
    if (waitOn(descriptor, WNOWAIT, info))
        kill(-group, SIGKILL);
}

std::string failure(const char* what, int error) { return std::string(what) + ": " + std::strerror(error); }

// The children that did not end when stopped, by their process descriptors.
struct Abandoned {
    std::mutex mutex;
    std::vector<int> descriptors;
};

Abandoned& abandoned()
{
    static Abandoned list;
    return list;
}

} // namespace

Process::Process(const std::vector<std::string>& command, std::string& problem, bool requests)
{
    std::vector<std::string> arguments(command);
    arguments.insert(arguments.end(), {"--answer-pipe", std::to_string(answerDescriptor)});
    if (requests)
        arguments.insert(arguments.end(), {"--request-pipe", std::to_string(requestDescriptor)});
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    int answerEnds[2] = {-1, -1};
    int requestEnds[2] = {-1, -1};
    int failureEnds[2] = {-1, -1};
    int input = -1;
    int output = -1;
    ScopeExit closeTemporaries([&] {
        for (const int descriptor : {answerEnds[1], requestEnds[1], failureEnds[0], failureEnds[1], input, output})
            if (descriptor >= 0)
                close(descriptor);
    });
    // Requests go through a socket, which a write to a child that is gone
    // answers with an error instead of SIGPIPE.
    if (pipe2(answerEnds, O_CLOEXEC) != 0 || pipe2(failureEnds, O_CLOEXEC) != 0 ||
        (requests && socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, requestEnds) != 0)) {
        problem = failure("cannot make a pipe", errno);
        return;
    }
    answer_ = answerEnds[0];
    fcntl(answer_, F_SETFL, O_NONBLOCK);
    requests_ = requestEnds[0];
    if (requests_ >= 0)
        fcntl(requests_, F_SETFL, O_NONBLOCK);
    input = liftedAboveChilds(open("/dev/null", O_RDWR | O_CLOEXEC));
    output = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, requestDescriptor + 1);
    if (output < 0 && input >= 0)
        output = fcntl(input, F_DUPFD_CLOEXEC, requestDescriptor + 1); // a host without standard error
    answerEnds[1] = liftedAboveChilds(answerEnds[1]);
    requestEnds[1] = liftedAboveChilds(requestEnds[1]);
    failureEnds[1] = liftedAboveChilds(failureEnds[1]);
    if (input < 0 || output < 0 || answerEnds[1] < 0 || (requests && requestEnds[1] < 0) || failureEnds[1] < 0) {
        problem = failure("cannot prepare its descriptors", errno);
        return;
    }

    const Setup setup{command.front().c_str(), argv.data(), environ, getpid(), input, output,
                      answerEnds[1], requestEnds[1], failureEnds[1], sysconf(_SC_OPEN_MAX)};
    // No handler of the host's may run in the child before exec.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    int descriptor = -1;
    const pid_t pid = startChild(descriptor);
    if (pid == 0)
        becomeChild(setup);
    const int startError = errno;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (pid < 0) {
        problem = failure(("cannot start " + command.front()).c_str(), startError);
        return;
    }
    pid_ = pid;
    descriptor_ = descriptor;
    running_ = true;

    // Our write end closed, the read ends at exec: empty when exec succeeded.
    close(failureEnds[1]);
    failureEnds[1] = -1;
    int error = 0;
    ssize_t got = 0;
    while ((got = ::read(failureEnds[0], &error, sizeof error)) < 0 && errno == EINTR) {
    }
    if (got == static_cast<ssize_t>(sizeof error)) {
        problem = failure(("cannot start " + command.front()).c_str(), error);
        closeAnswer();
        waitForAny({this}, Clock::now() + stopMargin);
        if (!ended())
            abandon();
    }
}

bool Process::read(std::string& answer, std::size_t most)
{
    while (answer_ >= 0 && answer.size() < most) {
        char buffer[65536];
        const ssize_t got = ::read(answer_, buffer, std::min(sizeof buffer, most - answer.size()));
        if (got > 0)
            answer.append(buffer, static_cast<std::size_t>(got));
        else if (got == 0 || errno != EINTR)
            return got < 0 && errno == EAGAIN;
    }
    return answer_ >= 0;
}

void Process::closeAnswer()
{
    if (answer_ >= 0)
        close(answer_);
    answer_ = -1;
}

bool Process::reading() const { return answer_ >= 0; }

bool Process::request(const std::string& line)
{
    for (std::size_t sent = 0; requests_ >= 0 && sent < line.size();) {
        const ssize_t got = send(requests_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        sent += static_cast<std::size_t>(got);
    }
    return requests_ >= 0;
}

void Process::closeRequests()
{
    if (requests_ >= 0)
        close(requests_);
    requests_ = -1;
}

std::optional<ProcessEnd> Process::ended()
{
    if (!running_)
        return std::nullopt;
    siginfo_t info;
    const bool ours = waitOn(descriptor_, WNOWAIT, info);
    if (ours && info.si_pid == 0)
        return std::nullopt;
    killGroup(descriptor_, pid_); // whatever it started and left running
    const bool collected = ours && waitOn(descriptor_, 0, info) && info.si_pid != 0;
    running_ = false;
    close(descriptor_);
    descriptor_ = -1;
    // A host that ignores SIGCHLD, or collects its children itself, may have
    // taken it: how it ended is not known then.
    if (!collected)
        return ProcessEnd{false, 0, false};
    const bool crashed = info.si_code == CLD_KILLED || info.si_code == CLD_DUMPED;
    return ProcessEnd{crashed, info.si_status, true};
}

void Process::kill()
{
    if (!running_)
        return;
    killGroup(descriptor_, pid_);
    syscall(SYS_pidfd_send_signal, descriptor_, SIGKILL, nullptr, 0);
}

void Process::abandon()
{
    if (!running_)
        return;
    Abandoned& list = abandoned();
    std::lock_guard<std::mutex> lock(list.mutex);
    list.descriptors.push_back(descriptor_);
    descriptor_ = -1;
    running_ = false;
}

void Process::waitForAny(const std::vector<Process*>& processes, Clock::time_point until)
{
    std::vector<pollfd> watched;
    for (const Process* process : processes) {
        if (process->answer_ >= 0)
            watched.push_back({process->answer_, POLLIN, 0});
        if (process->running_)
            watched.push_back({process->descriptor_, POLLIN, 0});
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    const int timeout = static_cast<int>(std::clamp<decltype(left)>(left, 0, 1000));
    if (watched.empty())
        usleep(static_cast<useconds_t>(timeout) * 1000);
    else
        poll(watched.data(), watched.size(), timeout);
}

void Process::collectAbandoned()
{
    Abandoned& list = abandoned();
    std::lock_guard<std::mutex> lock(list.mutex);
    auto& descriptors = list.descriptors;
    descriptors.erase(std::remove_if(descriptors.begin(), descriptors.end(),
                                     [](int descriptor) {
                                         siginfo_t info;
                                         if (waitOn(descriptor, 0, info) && info.si_pid == 0)
                                             return false;
                                         close(descriptor);
                                         return true;
                                     }),
                      descriptors.end());
}

bool Process::isProgram(const std::string& path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
}

} // namespace libKestrel::isolation
#endif
