#include "ServedKestrel.h"

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <csignal>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "HttpClient.h"

namespace kestrel::test {
namespace {

using Clock = std::chrono::steady_clock;

// A loopback port no one listens on now: one the system chose, let go again.
int freePort()
{
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    close(probe);
    return ntohs(address.sin_port);
}

int exitCodeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

} // namespace

ServedKestrel::ServedKestrel(const std::string& program, const std::string& scenario,
                             const std::vector<std::string>& options)
{
    // Another program may take the chosen port first: then kestrel ends, and
    // another port is tried.
    for (int attempt = 0; attempt < 5; ++attempt) {
        port_ = freePort();
        std::vector<std::string> arguments = {program, "serve", "--simulate", scenario,
                                              "--listen", "127.0.0.1:" + std::to_string(port_)};
        arguments.insert(arguments.end(), options.begin(), options.end());
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ < 0)
            throw std::runtime_error("cannot start " + program);
        if (pid_ == 0) {
            // It ends with the test, however the test ends.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() == parent)
                execv(program.c_str(), argv.data());
            _exit(127);
        }
        for (const auto until = Clock::now() + std::chrono::seconds(30); Clock::now() < until;) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                break;
            }
            if (HttpClient(port_).connected())
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    throw std::runtime_error("kestrel serve never answered");
}

ServedKestrel::~ServedKestrel()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

long ServedKestrel::residentBytes() const
{
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6)) * 1024;
    return -1;
}

int ServedKestrel::openSockets() const
{
    // The TCP sockets of its network namespace, by inode; the pipes and
    // socket pairs to its helpers are not among them.
    std::set<std::string> tcp;
    for (const char* table : {"tcp", "tcp6"}) {
        std::ifstream file("/proc/" + std::to_string(pid_) + "/net/" + table);
        std::string line;
        std::getline(file, line); // the column names
        while (std::getline(file, line)) {
            std::istringstream fields(line);
            std::string field;
            for (int column = 0; column < 10 && fields >> field; ++column) {
            }
            tcp.insert("socket:[" + field + "]");
        }
    }
    int sockets = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/fd", error))
        if (tcp.count(std::filesystem::read_symlink(entry.path(), error).string()))
            ++sockets;
    return sockets;
}

std::vector<int> ServedKestrel::children() const
{
    // Each thread lists the children it started.
    std::vector<int> children;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/task", error)) {
        std::ifstream file(task.path() / "children");
        for (int child = 0; file >> child;)
            children.push_back(child);
    }
    return children;
}

int ServedKestrel::stop(std::chrono::milliseconds deadline)
{
    kill(pid_, SIGTERM);
    for (const auto until = Clock::now() + deadline; Clock::now() < until;) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return exitCodeOf(status);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return -1;
}

} // namespace kestrel::test
