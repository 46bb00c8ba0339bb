#include "state/Journal.h"

#include <algorithm>
#include <cstring>

namespace sim {

void Journal::add(const char* event)
{
    if (ring_.empty())
        ring_.assign(capacity, '\0');
    // An event longer than the whole journal keeps its start.
    const std::size_t length = std::min(std::strlen(event), capacity - 1);
    while (size_ + length + 1 > capacity)
        dropOldest();
    std::size_t end = (oldest_ + size_) % capacity;
    for (std::size_t i = 0; i < length; ++i, end = (end + 1) % capacity)
        ring_[end] = event[i];
    ring_[end] = '\n';
    size_ += length + 1;
}

void Journal::dropOldest()
{
    std::size_t length = 1;
    while (ring_[(oldest_ + length - 1) % capacity] != '\n')
        ++length;
    oldest_ = (oldest_ + length) % capacity;
    size_ -= length;
    ++dropped_;
}

void Journal::clear()
{
    oldest_ = 0;
    size_ = 0;
    dropped_ = 0;
}

std::string Journal::text() const
{
    std::string text;
    if (dropped_ > 0)
        text = "journal: " + std::to_string(dropped_) + " older events dropped\n";
    if (size_ == 0)
        return text;
    const std::size_t first = std::min(size_, capacity - oldest_);
    text.reserve(text.size() + size_);
    text.append(ring_.data() + oldest_, first);
    text.append(ring_.data(), size_ - first);
    return text;
}

} // namespace sim
