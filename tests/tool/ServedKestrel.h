#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace kestrel::test {

// `kestrel serve --simulate SCENARIO [OPTIONS]` as a child of this process, listening on
// a free loopback port, and answering by the time the constructor returns
// (Linux). Killed, if still running, when this goes.
class ServedKestrel {
public:
    ServedKestrel(const std::string& program, const std::string& scenario,
                  const std::vector<std::string>& options = {});
    ~ServedKestrel();
    ServedKestrel(const ServedKestrel&) = delete;
    ServedKestrel& operator=(const ServedKestrel&) = delete;

    int port() const { return port_; }
    // Its resident memory (VmRSS), in bytes.
    long residentBytes() const;
    // How many TCP sockets it has open, its listening one included.
    int openSockets() const;
    // Its child processes (its helpers), by process ID.
    std::vector<int> children() const;
    // Sends SIGTERM and waits up to 'deadline' for it to end: its exit code,
    // or -1 when it had not ended (it is then killed).
    int stop(std::chrono::milliseconds deadline);

private:
    int pid_ = -1;
    int port_ = 0;
};

} // namespace kestrel::test
