#include "HttpConnection.h"

#include <utility>

namespace kestrel::http {
namespace {

// How long a closing connection drains what its client still sends.
constexpr std::chrono::seconds lingerTime{1};

// What one read takes from a socket.
constexpr std::size_t readSize = 16 * 1024;

} // namespace

Connection::Connection(Socket socket, const Limits& limits, Clock::time_point now)
    : socket_(std::move(socket)), limits_(limits), since_(now), deadline_(now + limits.idle)
{
}

Clock::time_point Connection::unservedSince() const
{
    return phase_ == Phase::Lingering ? Clock::time_point::min() : since_;
}

bool Connection::onReady(Clock::time_point now, const Answerer& answer)
{
    if (phase_ == Phase::Writing)
        return flush(now) && answerRequests(now, answer);
    if (phase_ == Phase::Lingering)
        return linger();
    char buffer[readSize];
    const Transfer read = receiveSome(socket_, buffer, sizeof buffer);
    if (read.outcome == Transfer::Ended)
        return false;
    received_.append(buffer, read.bytes);
    return answerRequests(now, answer);
}

bool Connection::onDeadline(Clock::time_point now)
{
    // A request under way is told why it ends; a quiet connection just ends.
    return phase_ == Phase::Reading && respond(responseBytes(408, true, false), false, now);
}

// Answers the requests whose heads have come, in order, until one is
// incomplete or its answer waits to be written.
bool Connection::answerRequests(Clock::time_point now, const Answerer& answer)
{
    for (;;) {
        if (phase_ == Phase::Waiting) {
            // Blank lines between requests are allowed, and are no request.
            received_.erase(0, received_.find_first_not_of("\r\n"));
            if (received_.empty())
                return true;
            phase_ = Phase::Reading;
            deadline_ = now + limits_.request;
        }
        if (phase_ != Phase::Reading)
            return true;
        const HeadParse parse = parseRequestHead(received_, {limits_.requestLine, limits_.headers});
        if (parse.outcome == HeadParse::Incomplete)
            return true;
        if (parse.outcome == HeadParse::Refused) {
            if (!respond(responseBytes(parse.status, true, false), false, now))
                return false;
            continue;
        }
        const RequestHead& head = parse.head;
        received_.erase(0, parse.length);
        const bool withBody = head.method != "HEAD";
        // No resource takes a body: one that fits is left unread, and the
        // connection closed after the answer.
        const bool keepAlive = head.keepAlive && head.contentLength == 0 && !head.lengthUnknown;
        std::string bytes;
        if (head.lengthUnknown) {
            bytes = responseBytes(411, withBody, false);
        } else if (head.contentLength > limits_.body) {
            bytes = responseBytes(413, withBody, false);
        } else {
            const Answer answered = answer(head);
            bytes = answered.status == 200 ? responseBytes(200, answered.content.type, answered.content.body,
                                                           withBody, keepAlive)
                                           : responseBytes(answered.status, withBody, keepAlive);
        }
        if (!respond(std::move(bytes), keepAlive, now))
            return false;
    }
}

bool Connection::respond(std::string bytes, bool keepAlive, Clock::time_point now)
{
    answer_ = std::move(bytes);
    sent_ = 0;
    keepAlive_ = keepAlive;
    phase_ = Phase::Writing;
    deadline_ = now + limits_.response;
    return flush(now);
}

// Sends what the socket takes of the answer; once it is all sent, waits for the
// next request, or closes.
bool Connection::flush(Clock::time_point now)
{
    while (sent_ < answer_.size()) {
        const Transfer written = sendSome(socket_, answer_.data() + sent_, answer_.size() - sent_);
        if (written.outcome == Transfer::Ended)
            return false;
        if (written.outcome == Transfer::WouldBlock)
            return true;
        sent_ += written.bytes;
    }
    answer_.clear();
    since_ = now;
    if (keepAlive_) {
        phase_ = Phase::Waiting;
        deadline_ = now + limits_.idle;
    } else {
        stopSending(socket_);
        phase_ = Phase::Lingering;
        deadline_ = now + lingerTime;
        received_.clear();
    }
    return true;
}

// Drains what the client still sends, up to the largest body a request may
// have; false once the client has closed too, or has sent more.
bool Connection::linger()
{
    char buffer[readSize];
    const Transfer read = receiveSome(socket_, buffer, sizeof buffer);
    drained_ += read.bytes;
    return read.outcome != Transfer::Ended && drained_ <= limits_.body;
}

} // namespace kestrel::http
