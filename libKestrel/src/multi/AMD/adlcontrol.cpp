#include "libKestrel/internal/multi/AMD/adlcontrol.h"

#include "libKestrel/internal/Assert.h"

namespace libKestrel::adlcontrol {
namespace {

struct Control {
    std::mutex calls;
    unsigned int shares = 0; // guarded by 'calls'
};

Control& control()
{
    // Never destroyed: the device classes' table gives its share back while the
    // process ends, after other static objects may be gone.
    static Control* instance = new Control();
    return *instance;
}

} // namespace

std::unique_lock<std::mutex> lockCalls() { return std::unique_lock<std::mutex>(control().calls); }

bool acquire(const std::unique_lock<std::mutex>& calls, const std::function<bool()>& start)
{
    Control& c = control();
    KESTREL_ASSERT(calls.mutex() == &c.calls && calls.owns_lock());
    if (c.shares == 0 && !start())
        return false;
    ++c.shares;
    return true;
}

void release(const std::unique_lock<std::mutex>& calls, const std::function<void()>& end)
{
    Control& c = control();
    KESTREL_ASSERT(calls.mutex() == &c.calls && calls.owns_lock());
    if (c.shares == 0 || --c.shares > 0)
        return;
    end();
}

} // namespace libKestrel::adlcontrol
