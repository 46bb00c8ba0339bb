#pragma once

#include <chrono>
#include <map>
#include <string>
#include <string_view>

namespace kestrel::test {

// A response as a client reads it: status 0 when none came whole.
struct HttpResponse {
    int status = 0;
    std::map<std::string, std::string> headers; // names in lower case
    std::string body;

    // A header's value, empty when there is none.
    std::string header(const std::string& lowerCaseName) const
    {
        const auto found = headers.find(lowerCaseName);
        return found == headers.end() ? "" : found->second;
    }
};

// One TCP connection to a server on loopback, which writes requests as given,
// byte for byte, and reads responses (Linux).
class HttpClient {
public:
    explicit HttpClient(int port);
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    bool connected() const { return socket_ >= 0; }
    // Sends all of 'bytes'; false when the connection broke.
    bool send(std::string_view bytes);
    // The next response, which must come whole within 'deadline' (without a
    // body for an answer to HEAD).
    HttpResponse receive(std::chrono::milliseconds deadline, bool toHead = false);
    // Whether the server ends the connection within 'deadline'; what it still
    // sends is kept in received().
    bool endsWithin(std::chrono::milliseconds deadline);
    const std::string& received() const { return received_; }

private:
    // Waits up to 'until' for more bytes; false once the connection ended or the time is up.
    bool readMore(std::chrono::steady_clock::time_point until);

    int socket_ = -1;
    std::string received_; // read, and not yet part of a response
    bool ended_ = false;
};

// GET 'path' on a new connection, which must be answered within 'deadline'.
HttpResponse httpGet(int port, const std::string& path, std::chrono::milliseconds deadline);

// A GET of 'path' as Prometheus asks for it, on a connection kept alive.
std::string scrapeRequest(const std::string& path = "/metrics");

} // namespace kestrel::test
