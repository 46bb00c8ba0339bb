#pragma once

#include <utility>

namespace libKestrel {

// Runs a callable when the scope that holds it is left, by any path. Several
// actions in one scope run in reverse order of their creation.
template <class Action>
class ScopeExit {
public:
    explicit ScopeExit(Action action) : action_(std::move(action)) {}
    ~ScopeExit() { action_(); }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;

private:
    Action action_;
};

template <class Action>
ScopeExit(Action) -> ScopeExit<Action>;

} // namespace libKestrel
