#pragma once

namespace kestrel::test {

// Counts the heap allocations that this process makes between start and stop.
// Linking this file into a test replaces the global operator new.
void startCountingAllocations();
int stopCountingAllocations();

} // namespace kestrel::test
