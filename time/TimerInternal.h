#pragma once

#include <cstdint>
#include <memory>

#include "Vantel/Orbel/TDelegate.h"

namespace Vantel::Orbel {

class CTimerThread;

using TimerProc = TDelegate<void, unsigned long>;

/// The state of a CTimer. The manager's mutex guards all of it.
class TimerInternal {
public:
    uint64_t usedUs = 0;     // spent in the callback while `stat` is set
    uint64_t nextMs = 0;     // due, in the manager's time
    uint64_t startedMs = 0;  // when the last run was handed out
    uint32_t periodMs = 0;   // 0: one-shot
    uint32_t timeoutMs = 0;  // of one run; 0: none
    // Shared with the thread that runs it, so that a run copies no delegate: the count inside a
    // delegate is a plain integer, and the caller may be using a copy of his own just now.
    std::shared_ptr<const TimerProc> proc;
    uint64_t param = 0;
    char name[32] = {};
    bool started = false;  // in the list
    bool called = false;   // one-shot, and has fired
    TimerInternal* prev = nullptr;
    TimerInternal* next = nullptr;
    CTimerThread* thread = nullptr;  // that runs the callback; null when idle
    bool stat = false;
};

}  // namespace Vantel::Orbel
