#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace sim {

// The events the simulated modules record, oldest first. A program that runs
// for days records a few dozen with every refresh, so the journal keeps only the
// newest events that fit in 'capacity' bytes (about 40000 calls; a test, which
// clears the journal with its scenario, records at most some 17000) and drops
// older ones. Its room is taken whole with the first event, so the memory it
// holds stays the same however long the program runs.
class Journal {
public:
    static constexpr std::size_t capacity = std::size_t(1) << 20; // bytes, line ends included

    void add(const char* event);
    void clear();
    // One event per line, oldest first, after a line "journal: <n> older events
    // dropped" when some were.
    std::string text() const;

private:
    std::vector<char> ring_;
    std::size_t oldest_ = 0; // where the oldest event starts in ring_
    std::size_t size_ = 0;   // how many bytes of ring_ the events fill
    unsigned long long dropped_ = 0;

    void dropOldest();
};

} // namespace sim
