#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kestrel::http {

// TCP sockets as the HTTP server uses them, the same on Linux and Windows:
// non-blocking, not inherited by child processes, waited on together.
#if defined(_WIN32)
using SocketHandle = std::uintptr_t; // SOCKET
constexpr SocketHandle invalidSocket = ~SocketHandle(0); // INVALID_SOCKET
#else
using SocketHandle = int;
constexpr SocketHandle invalidSocket = -1;
#endif

// A socket this process owns, closed when it goes.
class Socket {
public:
    Socket() = default;
    explicit Socket(SocketHandle handle) : handle_(handle) {}
    ~Socket();
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    bool valid() const { return handle_ != invalidSocket; }
    SocketHandle handle() const { return handle_; }

private:
    SocketHandle handle_ = invalidSocket;
};

// Winsock, started while one of these lives (nothing on Linux).
class SocketSystem {
public:
    SocketSystem();
    ~SocketSystem();
    SocketSystem(const SocketSystem&) = delete;
    SocketSystem& operator=(const SocketSystem&) = delete;
};

// A socket listening on 'host' (an address or a name) and 'port', invalid when
// none of the host's addresses can be bound.
Socket listenOn(const std::string& host, int port);

// The next connection waiting on 'listener', invalid when none waits. It
// sends each write at once, without waiting to fill a packet.
Socket acceptFrom(const Socket& listener);

// What a read or write on a non-blocking socket did: moved 'bytes' (above 0),
// would have had to wait, or found the connection ended (closed by the peer,
// or broken).
struct Transfer {
    enum Outcome { Moved, WouldBlock, Ended } outcome;
    std::size_t bytes;
};
Transfer receiveSome(const Socket& socket, char* buffer, std::size_t size);
Transfer sendSome(const Socket& socket, const char* data, std::size_t size);

// Tells the peer that nothing more will be sent, while still reading from it.
void stopSending(const Socket& socket);

// One socket to wait for, and whether it became ready (readable, writable,
// or in error: the next transfer says which).
struct Wait {
    SocketHandle socket;
    bool read;
    bool write;
    bool ready = false;
};

// Waits until one of 'waits' is ready, or 'timeout' passes.
void waitForSockets(std::vector<Wait>& waits, std::chrono::milliseconds timeout);

} // namespace kestrel::http
