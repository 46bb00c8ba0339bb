#include "common/AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<bool> counting{false};
std::atomic<int> allocations{0};
} // namespace

void* operator new(std::size_t size)
{
    if (counting.load(std::memory_order_relaxed))
        allocations.fetch_add(1, std::memory_order_relaxed);
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
    counting = true;
}

int stopCountingAllocations()
{
    counting = false;
    return allocations.load();
}

} // namespace kestrel::test
