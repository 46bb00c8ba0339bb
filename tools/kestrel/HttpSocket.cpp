#include "HttpSocket.h"

#include <memory>
#include <utility>

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

namespace kestrel::http {
namespace {

#if defined(_WIN32)
using PollEntry = WSAPOLLFD;
constexpr int sendFlags = 0;
constexpr int stopSendingHow = SD_SEND;

void closeHandle(SocketHandle handle) { closesocket(handle); }
bool wouldBlock() { return WSAGetLastError() == WSAEWOULDBLOCK; }
bool interruptedCall() { return WSAGetLastError() == WSAEINTR; }
int pollEntries(PollEntry* entries, std::size_t count, int milliseconds)
{
    return WSAPoll(entries, static_cast<ULONG>(count), milliseconds);
}

// Non-blocking, and kept from the child processes this one may start.
void prepare(SocketHandle handle)
{
    u_long nonBlocking = 1;
    ioctlsocket(handle, FIONBIO, &nonBlocking);
    SetHandleInformation(reinterpret_cast<HANDLE>(handle), HANDLE_FLAG_INHERIT, 0);
}

SocketHandle openSocket(int family, int type, int protocol)
{
    const SOCKET handle =
        WSASocketW(family, type, protocol, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (handle != INVALID_SOCKET)
        prepare(handle);
    return handle;
}

SocketHandle acceptHandle(SocketHandle listener)
{
    const SOCKET handle = accept(listener, nullptr, nullptr);
    if (handle != INVALID_SOCKET)
        prepare(handle);
    return handle;
}
#else
using PollEntry = pollfd;
// A peer that went away must not end the program with SIGPIPE.
constexpr int sendFlags = MSG_NOSIGNAL;
constexpr int stopSendingHow = SHUT_WR;

void closeHandle(SocketHandle handle) { close(handle); }
bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }
bool interruptedCall() { return errno == EINTR; }
int pollEntries(PollEntry* entries, std::size_t count, int milliseconds)
{
    return poll(entries, count, milliseconds);
}

SocketHandle openSocket(int family, int type, int protocol)
{
    return socket(family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol);
}

SocketHandle acceptHandle(SocketHandle listener)
{
    return accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
}
#endif

} // namespace

Socket::~Socket()
{
    if (valid())
        closeHandle(handle_);
}

Socket::Socket(Socket&& other) noexcept : handle_(std::exchange(other.handle_, invalidSocket)) {}

Socket& Socket::operator=(Socket&& other) noexcept
{
    Socket old(std::exchange(handle_, std::exchange(other.handle_, invalidSocket)));
    return *this;
}

SocketSystem::SocketSystem()
{
#if defined(_WIN32)
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
#endif
}

SocketSystem::~SocketSystem()
{
#if defined(_WIN32)
    WSACleanup();
#endif
}

Socket listenOn(const std::string& host, int port)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
        return {};
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(found, freeaddrinfo);
    for (const addrinfo* address = addresses.get(); address; address = address->ai_next) {
        Socket listener(openSocket(address->ai_family, address->ai_socktype, address->ai_protocol));
        if (!listener.valid())
            continue;
#if !defined(_WIN32)
        // A restarted server takes its port back from connections still closing
        // (Windows would instead let another program share the port).
        const int reuse = 1;
        setsockopt(listener.handle(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
#endif
        if (bind(listener.handle(), address->ai_addr, static_cast<socklen_t>(address->ai_addrlen)) == 0 &&
            listen(listener.handle(), SOMAXCONN) == 0)
            return listener;
    }
    return {};
}

Socket acceptFrom(const Socket& listener)
{
    Socket connection(acceptHandle(listener.handle()));
    if (connection.valid()) {
        // A response is one write: sent at once, not held back until the
        // client acknowledges the previous one.
        const int noDelay = 1;
        setsockopt(connection.handle(), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&noDelay),
                   sizeof noDelay);
    }
    return connection;
}

Transfer receiveSome(const Socket& socket, char* buffer, std::size_t size)
{
    for (;;) {
        const auto received = recv(socket.handle(), buffer, static_cast<int>(size), 0);
        if (received > 0)
            return {Transfer::Moved, static_cast<std::size_t>(received)};
        if (received < 0 && interruptedCall())
            continue;
        return {received < 0 && wouldBlock() ? Transfer::WouldBlock : Transfer::Ended, 0};
    }
}

Transfer sendSome(const Socket& socket, const char* data, std::size_t size)
{
    for (;;) {
        const auto sent = send(socket.handle(), data, static_cast<int>(size), sendFlags);
        if (sent >= 0)
            return {Transfer::Moved, static_cast<std::size_t>(sent)};
        if (interruptedCall())
            continue;
        return {wouldBlock() ? Transfer::WouldBlock : Transfer::Ended, 0};
    }
}

void stopSending(const Socket& socket) { shutdown(socket.handle(), stopSendingHow); }

void waitForSockets(std::vector<Wait>& waits, std::chrono::milliseconds timeout)
{
    std::vector<PollEntry> entries(waits.size());
    for (std::size_t i = 0; i < waits.size(); ++i) {
        entries[i].fd = waits[i].socket;
        entries[i].events = static_cast<short>((waits[i].read ? POLLIN : 0) | (waits[i].write ? POLLOUT : 0));
    }
    if (pollEntries(entries.data(), entries.size(), static_cast<int>(timeout.count())) <= 0)
        return;
    for (std::size_t i = 0; i < waits.size(); ++i)
        waits[i].ready = entries[i].revents != 0;
}

} // namespace kestrel::http
