#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace kestrel::http {

// What the server takes from its clients. A request past a size limit is
// answered at once (414, 431, 413) and its connection closed without reading
// the rest; a deadline that passes closes the connection (after a 408 when a
// request was under way).
struct Limits {
    std::size_t requestLine = 8 * 1024; // bytes, without its CR LF
    std::size_t headers = 16 * 1024; // bytes of all header lines together
    std::size_t body = 64 * 1024; // bytes; no resource takes one, so a body is never kept
    std::size_t connections = 64; // open at once; one more closes the longest unserved
    std::chrono::milliseconds idle{5000}; // for a connection's next request to start
    std::chrono::milliseconds request{5000}; // for a whole request, from its first byte
    std::chrono::milliseconds response{5000}; // for the client to take a whole response
};

// A resource's representation, built afresh for each request.
struct Content {
    std::string type; // its media type
    std::string body;
};
using Resource = std::function<Content()>;

// An HTTP/1.1 server of a few resources, each at its path, which answer GET and
// HEAD (other methods get 405, other paths 404). One thread serves every
// connection, waiting on all of them at once, so connections that are idle,
// slow or hostile hold nothing but their own slot.
class Server {
public:
    explicit Server(std::map<std::string, Resource> resources, const Limits& limits = {});
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Listens on 'host' (an address or a name) and 'port'; false when it cannot.
    bool listen(const std::string& host, int port);

    // Answers clients until 'stopping' returns true, which it asks at least
    // every tenth of a second; then closes every connection. A resource that
    // throws answers 500.
    void run(const std::function<bool()>& stopping);

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace kestrel::http
