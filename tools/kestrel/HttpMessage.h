#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kestrel::http {

// HTTP/1.x messages as the server reads and writes them: the head of a
// request, from the bytes a client sent, and the bytes of a response.

// The largest request line, and header section, a client may send.
struct HeadLimits {
    std::size_t requestLine;
    std::size_t headers;
};

struct RequestHead {
    std::string method;
    std::string path; // the target's path, without its query
    bool keepAlive = true; // the client will send another request on this connection
    std::uint64_t contentLength = 0; // the body that follows the head (the largest number when it is larger)
    bool lengthUnknown = false; // a body in a transfer coding, whose end only that coding tells
};

// What the bytes received so far hold: not yet a whole head, a head of
// 'length' bytes (its blank line included), or a request refused, with the
// status to answer.
struct HeadParse {
    enum Outcome { Incomplete, Complete, Refused } outcome = Incomplete;
    RequestHead head;
    std::size_t length = 0;
    int status = 0;
};

// Reads the head at the start of 'bytes'. A head past the limits is refused
// as soon as the bytes show it (414 for the request line, 431 for the
// headers), without waiting for its end.
HeadParse parseRequestHead(std::string_view bytes, const HeadLimits& limits);

// A whole response: status line, headers and, when 'withBody' (not for HEAD),
// the body. A 405 names the methods every resource here allows.
std::string responseBytes(int status, std::string_view contentType, std::string_view body, bool withBody,
                          bool keepAlive);
// A response whose body is its status in words ("404 Not Found"), for the
// statuses that carry no representation.
std::string responseBytes(int status, bool withBody, bool keepAlive);

} // namespace kestrel::http
