#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <libKestrel/Query.h>
#include <libKestrel/Session.h>

namespace kestrel {

// Keeps a session on a thread of its own: opened there, refreshed at every
// interval (enumerated again every rescanInterval), and its Prometheus
// exposition formatted after each update for readers to take. Whatever the
// vendors do, a reader never waits for more than a copy.
class Refresher {
public:
    // Starts the thread; 'beforeRefresh' runs on it before each refresh.
    Refresher(std::vector<libKestrel::GPUQuerier> sources, const libKestrel::SessionOptions& options,
              std::chrono::duration<double> interval, std::function<void()> beforeRefresh);
    // Waits for the thread when it has ended; otherwise lets it go (the process
    // is about to end).
    ~Refresher();
    Refresher(const Refresher&) = delete;
    Refresher& operator=(const Refresher&) = delete;

    // The exposition of the last update; empty before the first enumeration ended.
    std::shared_ptr<const std::string> latest() const;

    // Waits until the first enumeration ended, 'patience' passed or 'stopping'
    // returns true, which it asks every tenth of a second.
    void awaitFirst(std::chrono::milliseconds patience, const std::function<bool()>& stopping) const;

    // Asks the thread to close the session and end, and waits up to 'patience'
    // for it; false when it is still inside a call (a vendor's or a helper's).
    bool stop(std::chrono::milliseconds patience);

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
    std::thread thread_;
};

} // namespace kestrel
