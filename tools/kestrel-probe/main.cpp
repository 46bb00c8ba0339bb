// kestrel-probe: runs one of the library's GPU sources and answers its records,
// its status bits and its log lines on its answer pipe, for a host that keeps
// vendor libraries out of its own process (queryAllGPUsIsolated). Given a
// request pipe, it serves an isolated session instead, until the requests end
// (libKestrel/internal/isolation/ProbeSession.h). The format is described in
// libKestrel/internal/isolation/ProbeFormat.h.
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "libKestrel/internal/SourceTable.h"
#include "libKestrel/internal/isolation/ProbeFormat.h"
#include "libKestrel/internal/isolation/ProbeSession.h"
#include "tova/LogFactory.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#endif

namespace {

#if defined(_WIN32)
using Pipe = HANDLE;
#else
using Pipe = int;
#endif

int usage(const char* problem)
{
    std::fprintf(stderr,
                 "kestrel-probe: %s\nusage: kestrel-probe SOURCE [--log-level N] [--answer-pipe N] "
                 "[--request-pipe N]   (SOURCE:",
                 problem);
    for (const auto* source = libKestrel::ownSourcesBegin(); source != libKestrel::ownSourcesEnd(); ++source)
        std::fprintf(stderr, " %s", source->name);
    std::fprintf(stderr, ")\n");
    return 2;
}

// The pipe named by "--answer-pipe N" or "--request-pipe N" (a descriptor, or a
// handle's value), kept from the processes a vendor library may start;
// 'otherwise' without one.
bool namedPipe(const char* named, Pipe otherwise, Pipe& pipe)
{
    pipe = otherwise;
    if (!named)
        return true;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(named, &end, 10);
    if (*end != '\0' || end == named)
        return false;
#if defined(_WIN32)
    pipe = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(value));
    return SetHandleInformation(pipe, HANDLE_FLAG_INHERIT, 0);
#else
    pipe = static_cast<int>(value);
    return value <= INT_MAX && fcntl(pipe, F_SETFD, FD_CLOEXEC) == 0;
#endif
}

Pipe answer{};
Pipe requests{};

// Straight to the pipe, unbuffered: each line is with the host before the
// source goes on, so a crash loses nothing it said.
void write(const std::string& text)
{
    for (std::size_t done = 0; done < text.size();) {
#if defined(_WIN32)
        DWORD written = 0;
        if (!WriteFile(answer, text.data() + done, static_cast<DWORD>(text.size() - done), &written, nullptr))
            return;
#else
        const ssize_t written = ::write(answer, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return;
#endif
        done += static_cast<std::size_t>(written);
    }
}

// The next request line, without its end; false when the requests end.
bool nextRequest(std::string& line)
{
    static std::string pending;
    line.clear();
    for (;;) {
        if (const auto end = pending.find('\n'); end != std::string::npos) {
            line = pending.substr(0, end);
            pending.erase(0, end + 1);
            return true;
        }
        char buffer[4096];
#if defined(_WIN32)
        DWORD got = 0;
        if (!ReadFile(requests, buffer, sizeof buffer, &got, nullptr) || got == 0)
            return false;
#else
        const ssize_t got = ::read(requests, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
#endif
        pending.append(buffer, static_cast<std::size_t>(got));
    }
}

#if !defined(_WIN32)
// A session's helper is not tied to the thread that started it, which a host
// may end long before the session: it watches the host's end of its request
// pipe instead. Once that is gone, the requests have ended and the session
// loop lets its vendor go and returns; a helper stuck in a vendor call is ended
// here a moment later.
void endWithHost()
{
    std::thread([] {
        pollfd host{requests, 0, 0}; // a hang-up is reported whatever is asked for
        while (poll(&host, 1, -1) < 0 && errno == EINTR) {
        }
        std::this_thread::sleep_for(std::chrono::seconds(2));
        _exit(0);
    }).detach();
}
#endif

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc % 2 != 0)
        return usage("expected a source, and optionally --log-level N and --answer-pipe N");
    const libKestrel::OwnSource* source = libKestrel::findOwnSource(argv[1]);
    if (!source)
        return usage((std::string("unknown source '") + argv[1] + "'").c_str());
    int level = tova::LoggerPriority::CRITICAL;
    const char* pipe = nullptr;
    const char* requestPipe = nullptr;
    for (int i = 2; i < argc; i += 2) {
        char* end = nullptr;
        if (std::strcmp(argv[i], "--answer-pipe") == 0) {
            pipe = argv[i + 1];
            continue;
        }
        if (std::strcmp(argv[i], "--request-pipe") == 0) {
            requestPipe = argv[i + 1];
            continue;
        }
        level = static_cast<int>(std::strtol(argv[i + 1], &end, 10));
        if (std::strcmp(argv[i], "--log-level") != 0 || *end != '\0' || level < tova::LoggerPriority::ALL ||
            level > tova::LoggerPriority::OFF)
            return usage("--log-level takes a priority from 0 to 5");
    }
#if defined(_WIN32)
    const Pipe output = GetStdHandle(STD_OUTPUT_HANDLE);
#else
    const Pipe output = STDOUT_FILENO;
#endif
    if (!namedPipe(pipe, output, answer) || !namedPipe(requestPipe, Pipe{}, requests))
        return usage("--answer-pipe and --request-pipe take an open descriptor or handle");
    tova::LogFactory::setPriority(static_cast<tova::LoggerPriority::LOGGER_PRIORITY>(level));
    tova::LogFactory::setSink([](const std::string& logger, tova::LoggerPriority::LOGGER_PRIORITY priority,
                                 const std::string& text) { write(libKestrel::probe::logLine(logger, priority, text)); });
    if (requestPipe) {
#if !defined(_WIN32)
        endWithHost();
#endif
        libKestrel::probe::serveSession(*source, nextRequest, [](const std::string& text) { write(text); });
        return 0;
    }
    write(libKestrel::probe::header());
    std::bitset<4> status;
    const auto records = source->query(status);
    write(libKestrel::probe::records(records, status));
    // The answer is complete and the host has stopped reading: what is logged
    // from here on (vendors' unloading) goes to standard error.
    tova::LogFactory::setSink(nullptr);
    return 0;
}
