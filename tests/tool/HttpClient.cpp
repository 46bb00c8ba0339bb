#include "HttpClient.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrel::test {

using Clock = std::chrono::steady_clock;

HttpClient::HttpClient(int port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (socket_ >= 0 && connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(socket_);
        socket_ = -1;
    }
}

HttpClient::~HttpClient()
{
    if (socket_ >= 0)
        close(socket_);
}

bool HttpClient::send(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

bool HttpClient::readMore(Clock::time_point until)
{
    if (ended_)
        return false;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
    pollfd entry{socket_, POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(std::max<long long>(left.count(), 0))) <= 0)
        return false;
    char buffer[64 * 1024];
    const ssize_t read = recv(socket_, buffer, sizeof buffer, 0);
    if (read <= 0) {
        ended_ = true;
        return false;
    }
    received_.append(buffer, static_cast<size_t>(read));
    return true;
}

HttpResponse HttpClient::receive(std::chrono::milliseconds deadline, bool toHead)
{
    const auto until = Clock::now() + deadline;
    size_t headEnd;
    while ((headEnd = received_.find("\r\n\r\n")) == std::string::npos)
        if (!readMore(until))
            return {};
    HttpResponse response;
    size_t lineStart = received_.find("\r\n") + 2;
    if (received_.compare(0, 9, "HTTP/1.1 ") == 0)
        response.status = std::atoi(received_.c_str() + 9);
    while (lineStart < headEnd) {
        const size_t lineEnd = received_.find("\r\n", lineStart);
        const size_t colon = received_.find(':', lineStart);
        std::string name = received_.substr(lineStart, colon - lineStart);
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
        response.headers[name] = received_.substr(colon + 2, lineEnd - colon - 2);
        lineStart = lineEnd + 2;
    }
    const auto length = response.headers.find("content-length");
    const size_t bodyLength = toHead || length == response.headers.end() ? 0 : std::stoul(length->second);
    while (received_.size() < headEnd + 4 + bodyLength)
        if (!readMore(until))
            return {};
    response.body = received_.substr(headEnd + 4, bodyLength);
    received_.erase(0, headEnd + 4 + bodyLength);
    return response;
}

bool HttpClient::endsWithin(std::chrono::milliseconds deadline)
{
    const auto until = Clock::now() + deadline;
    while (readMore(until)) {
    }
    return ended_;
}

HttpResponse httpGet(int port, const std::string& path, std::chrono::milliseconds deadline)
{
    HttpClient client(port);
    client.send("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    return client.receive(deadline);
}

std::string scrapeRequest(const std::string& path)
{
    return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: text/plain\r\n\r\n";
}

} // namespace kestrel::test
