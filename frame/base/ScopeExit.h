#pragma once

#include <utility>

namespace Vantel::Orbel {

/// Runs a piece of clean-up at the end of the scope, unless dismissed.
template <class Action>
class ScopeExit {
public:
    explicit ScopeExit(Action action) : mAction(std::move(action)) {}
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;
    ~ScopeExit() {
        if (mArmed) {
            mAction();
        }
    }

    void dismiss() noexcept { mArmed = false; }

private:
    Action mAction;
    bool mArmed = true;
};

}  // namespace Vantel::Orbel
