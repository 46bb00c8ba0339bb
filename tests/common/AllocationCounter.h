#pragma once

namespace kestrel::test {

// Counts the heap allocations that this process makes between start and stop,
// those of simulated drivers left out. Linking this file into a test replaces
// the global operator new.
void startCountingAllocations();
int stopCountingAllocations();
// Counts as start does, and makes the n-th allocation from now (1 for the next)
// throw std::bad_alloc, as an exhausted heap would; stop ends it.
void failNthAllocation(int n);

} // namespace kestrel::test
