#include "Http.h"

#include <algorithm>
#include <exception>
#include <vector>

#include "HttpConnection.h"
#include "HttpSocket.h"

namespace kestrel::http {
namespace {

// The longest wait for sockets, so that the stop request is seen soon.
constexpr std::chrono::milliseconds stopCheckPeriod{100};

// Connections accepted at most between two waits, so that a flood of new ones
// does not keep the others waiting.
constexpr int acceptsPerWait = 64;

} // namespace

struct Server::State {
    std::map<std::string, Resource> resources;
    Limits limits;
    SocketSystem system;
    Socket listener;
    std::vector<std::unique_ptr<Connection>> connections;

    Answer answer(const RequestHead& head) const;
    void acceptWaiting(Clock::time_point now);
    bool makeRoom();
};

Answer Server::State::answer(const RequestHead& head) const
{
    const auto found = resources.find(head.path);
    if (found == resources.end())
        return {404, {}};
    if (head.method != "GET" && head.method != "HEAD")
        return {405, {}};
    try {
        return {200, found->second()};
    } catch (const std::exception&) {
        return {500, {}};
    }
}

void Server::State::acceptWaiting(Clock::time_point now)
{
    for (int i = 0; i < acceptsPerWait; ++i) {
        Socket socket = acceptFrom(listener);
        if (!socket.valid())
            return;
        // With no room to make, the new connection is closed at once.
        if (connections.size() < limits.connections || makeRoom())
            connections.push_back(std::make_unique<Connection>(std::move(socket), limits, now));
    }
}

// Closes the connection that has waited longest without being served, so that
// idle and slow clients cannot keep a new one out.
bool Server::State::makeRoom()
{
    auto oldest = connections.end();
    for (auto each = connections.begin(); each != connections.end(); ++each)
        if ((*each)->evictable() &&
            (oldest == connections.end() || (*each)->unservedSince() < (*oldest)->unservedSince()))
            oldest = each;
    if (oldest == connections.end())
        return false;
    connections.erase(oldest);
    return true;
}

Server::Server(std::map<std::string, Resource> resources, const Limits& limits)
    : state_(new State{std::move(resources), limits, {}, {}, {}})
{
}

Server::~Server() = default;

bool Server::listen(const std::string& host, int port)
{
    state_->listener = listenOn(host, port);
    return state_->listener.valid();
}

void Server::run(const std::function<bool()>& stopping)
{
    State& state = *state_;
    const Answerer answer = [&state](const RequestHead& head) { return state.answer(head); };
    std::vector<Wait> waits;
    while (!stopping()) {
        waits.assign(1, Wait{state.listener.handle(), true, false});
        Clock::time_point wake = Clock::now() + stopCheckPeriod;
        for (const auto& connection : state.connections) {
            waits.push_back({connection->socket(), connection->wantsToRead(), connection->wantsToWrite()});
            wake = std::min(wake, connection->deadline());
        }
        const auto timeout = std::chrono::ceil<std::chrono::milliseconds>(wake - Clock::now());
        waitForSockets(waits, std::max(timeout, std::chrono::milliseconds(0)));

        const Clock::time_point now = Clock::now();
        for (std::size_t i = 0; i < state.connections.size(); ++i) {
            Connection& connection = *state.connections[i];
            bool open = !waits[i + 1].ready || connection.onReady(now, answer);
            if (open && connection.deadline() <= now)
                open = connection.onDeadline(now);
            if (!open)
                state.connections[i].reset();
        }
        state.connections.erase(std::remove(state.connections.begin(), state.connections.end(), nullptr),
                                state.connections.end());
        if (waits.front().ready)
            state.acceptWaiting(now);
    }
    state.connections.clear();
}

} // namespace kestrel::http
