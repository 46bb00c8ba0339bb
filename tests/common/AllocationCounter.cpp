#include "common/AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "state/SimulatorState.h"

namespace {
std::atomic<bool> counting{false};
std::atomic<int> allocations{0};
std::atomic<int> failing{0}; // the allocation that fails, counted from 1; 0: none
} // namespace

void* operator new(std::size_t size)
{
    // A simulated driver's own allocations are neither counted nor failed: a real
    // driver is written in C, and says so through its return codes.
    if (counting.load(std::memory_order_relaxed) && kestrelSimCallDepth(0) == 0 &&
        allocations.fetch_add(1, std::memory_order_relaxed) + 1 == failing.load(std::memory_order_relaxed))
        throw std::bad_alloc();
    if (void* block = std::malloc(size ? size : 1))
        return block;
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }

namespace kestrel::test {

void startCountingAllocations()
{
    allocations = 0;
    failing = 0;
    counting = true;
}

int stopCountingAllocations()
{
    counting = false;
    failing = 0;
    return allocations.load();
}

void failNthAllocation(int n)
{
    startCountingAllocations();
    failing = n;
}

} // namespace kestrel::test
