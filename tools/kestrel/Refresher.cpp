#include "Refresher.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <mutex>
#include <utility>

#include "Prometheus.h"
#include "Serve.h"

namespace kestrel {

struct Refresher::Shared {
    mutable std::mutex mutex;
    std::condition_variable changed;
    bool stopping = false;
    bool ended = false;
    std::shared_ptr<const std::string> latest = std::make_shared<const std::string>();

    void publish(std::string exposition)
    {
        auto text = std::make_shared<const std::string>(std::move(exposition));
        const std::lock_guard<std::mutex> lock(mutex);
        latest = std::move(text);
        changed.notify_all();
    }
};

using Clock = std::chrono::steady_clock;

Refresher::Refresher(std::vector<libKestrel::GPUQuerier> sources, const libKestrel::SessionOptions& options,
                     std::chrono::duration<double> interval, std::function<void()> beforeRefresh)
    : shared_(std::make_shared<Shared>())
{
    const auto period = std::chrono::duration_cast<Clock::duration>(interval);
    // The thread holds the shared state itself: it may outlive this object when
    // a vendor call never returns.
    thread_ = std::thread([shared = shared_, sources = std::move(sources), options, period,
                           beforeRefresh = std::move(beforeRefresh)] {
        try {
            libKestrel::Session session(sources, options);
            shared->publish(prometheusExposition(session));
            auto rescanned = Clock::now();
            auto next = rescanned + period;
            for (;;) {
                {
                    std::unique_lock<std::mutex> lock(shared->mutex);
                    if (shared->changed.wait_until(lock, next, [&] { return shared->stopping; }))
                        break;
                }
                // A refresh that took longer than the interval delays the next
                // one; refreshes never pile up.
                const auto start = Clock::now();
                next = std::max(next + period, start + period / 2);
                try {
                    beforeRefresh();
                    if (start - rescanned >= rescanInterval) {
                        session.rescan();
                        rescanned = start;
                    } else {
                        session.refresh();
                    }
                    shared->publish(prometheusExposition(session));
                } catch (const std::exception& error) {
                    // The last exposition stays; the next interval tries again.
                    std::fprintf(stderr, "kestrel: the GPUs could not be read: %s\n", error.what());
                }
            }
        } catch (const std::exception& error) {
            std::fprintf(stderr, "kestrel: the GPUs could not be read: %s\n", error.what());
        }
        const std::lock_guard<std::mutex> lock(shared->mutex);
        shared->ended = true;
        shared->changed.notify_all();
    });
}

Refresher::~Refresher()
{
    bool ended = false;
    {
        const std::lock_guard<std::mutex> lock(shared_->mutex);
        shared_->stopping = true;
        ended = shared_->ended;
        shared_->changed.notify_all();
    }
    if (ended)
        thread_.join();
    else
        thread_.detach();
}

std::shared_ptr<const std::string> Refresher::latest() const
{
    const std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->latest;
}

void Refresher::awaitFirst(std::chrono::milliseconds patience, const std::function<bool()>& stopping) const
{
    const auto until = Clock::now() + patience;
    std::unique_lock<std::mutex> lock(shared_->mutex);
    while (shared_->latest->empty() && !shared_->ended && Clock::now() < until && !stopping())
        shared_->changed.wait_for(lock, std::chrono::milliseconds(100));
}

bool Refresher::stop(std::chrono::milliseconds patience)
{
    std::unique_lock<std::mutex> lock(shared_->mutex);
    shared_->stopping = true;
    shared_->changed.notify_all();
    return shared_->changed.wait_for(lock, patience, [&] { return shared_->ended; });
}

} // namespace kestrel
