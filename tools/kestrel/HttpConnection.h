#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "Http.h"
#include "HttpMessage.h"
#include "HttpSocket.h"

namespace kestrel::http {

using Clock = std::chrono::steady_clock;

// What a request is answered with: a status, and for 200 the content.
struct Answer {
    int status;
    Content content;
};
using Answerer = std::function<Answer(const RequestHead&)>;

// One client's connection: reads its requests one after another, has each
// answered, and writes the answers, within the server's limits. It reads
// nothing while an answer is being written, so a client that sends without
// reading holds no more than its socket's buffers.
class Connection {
public:
    Connection(Socket socket, const Limits& limits, Clock::time_point now);

    SocketHandle socket() const { return socket_.handle(); }
    bool wantsToRead() const { return phase_ != Phase::Writing; }
    bool wantsToWrite() const { return phase_ == Phase::Writing; }
    Clock::time_point deadline() const { return deadline_; }

    // Whether the server may close it to make room: not while it writes an
    // answer. Among those that may go, the one with the earliest 'unservedSince'
    // goes first: one already closing, then the one that has waited longest for
    // a request or for a request's end.
    bool evictable() const { return phase_ != Phase::Writing; }
    Clock::time_point unservedSince() const;

    // Reads or writes what the socket is ready for and answers each request
    // that is complete; false when the connection has ended.
    bool onReady(Clock::time_point now, const Answerer& answer);
    // The deadline has passed; false when the connection has ended.
    bool onDeadline(Clock::time_point now);

private:
    enum class Phase {
        Waiting, // for a request's first byte
        Reading, // a request, until its head is whole
        Writing, // an answer
        Lingering, // answered and closing: drains what the client still sends, so that
                   // closing with unread bytes does not reset the connection under the answer
    };

    bool answerRequests(Clock::time_point now, const Answerer& answer);
    bool respond(std::string bytes, bool keepAlive, Clock::time_point now);
    bool flush(Clock::time_point now);
    bool linger();

    Socket socket_;
    const Limits& limits_;
    Phase phase_ = Phase::Waiting;
    std::string received_; // not yet part of an answered request
    std::string answer_;
    std::size_t sent_ = 0;
    bool keepAlive_ = true;
    std::size_t drained_ = 0;
    Clock::time_point since_;
    Clock::time_point deadline_;
};

} // namespace kestrel::http
