// Setting the clock of the machine: CTime::setCurrentTime() and its hooks.

#include <sys/time.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/ProcessServices.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "time/PrintClock.h"

namespace Vantel::Orbel {

namespace {

using SetProc = TDelegate<void, const CTime&, int>;
using ModifyProc = TDelegate<bool, SystemTime>;

void setClock(const CTime& time, int toleranceMs);

/// The hooks. Called through shared pointers, which are copied under the mutex: the count inside a
/// delegate is a plain integer.
struct Hooks {
    static Hooks& instance() {
        static auto* const hooks = new Hooks;  // never destroyed
        return *hooks;
    }

    CMutex mutex;
    std::shared_ptr<const SetProc> set = std::make_shared<const SetProc>(&setClock);
    std::vector<std::shared_ptr<const ModifyProc>> modified;
};

bool close(const CTime& time, int toleranceMs) {
    return toleranceMs > 0 && std::labs(time - CTime::getCurrentTime()) <= toleranceMs;
}

void tellModified(const CTime& time, bool hardwareSet) {
    Hooks& hooks = Hooks::instance();
    std::vector<std::shared_ptr<const ModifyProc>> procs;
    {
        Guard<CMutex> guard(hooks.mutex);
        procs = hooks.modified;
    }
    for (const auto& proc : procs) {
        (*proc)(time);
    }
    if (!procs.empty()) {
        return;
    }
    if (hardwareSet) {
        ORBEL_LOG_INFO(" CTime::setCurrentTime() success without callback function\n");
    } else {
        ORBEL_LOG_ERROR("CTime::setCurrentTime()  rtc time set function failed\n");
    }
}

/// The default setter.
void setClock(const CTime& wanted, int toleranceMs) {
    const CTime time = std::clamp(wanted, CTime::minTime, CTime::maxTime);
    if (close(time, toleranceMs)) {
        return;
    }
    ORBEL_LOG_TRACE("setCurrentTime to %04d-%02d-%02d %02d:%02d:%02d:%04d\n", time.year, time.month,
                    time.day, time.hour, time.minute, time.second, time.millisecond);
    const uint64_t ms = time.makeTime();
    const timeval value{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
    if (settimeofday(&value, nullptr) != 0) {
        return;  // without a word, so it is meant
    }
    const bool hardwareSet = systemCall("hwclock -w") == 0;
    if (!hardwareSet) {
        ORBEL_LOG_WARN(" CTime::setCurrentTime(): hwclock -w failed\n");
    }
    tellModified(time, hardwareSet);
}

}  // namespace

bool CTime::setCurrentTime(const CTime& time, int toleranceMs) {
    Hooks& hooks = Hooks::instance();
    std::shared_ptr<const SetProc> set;
    {
        Guard<CMutex> guard(hooks.mutex);
        set = hooks.set;
    }
    (*set)(time, toleranceMs);
    PrintClock::instance().clockChanged();
    return true;
}

SetProc CTime::attachSetCurrentTimeHook(SetProc proc) {
    auto set = std::make_shared<const SetProc>(proc.empty() ? SetProc(&setClock) : std::move(proc));
    Hooks& hooks = Hooks::instance();
    Guard<CMutex> guard(hooks.mutex);
    hooks.set.swap(set);
    return *set;
}

void CTime::attachModifyProc(ModifyProc proc) {
    if (proc.empty()) {
        return;
    }
    auto shared = std::make_shared<const ModifyProc>(std::move(proc));
    Hooks& hooks = Hooks::instance();
    Guard<CMutex> guard(hooks.mutex);
    hooks.modified.push_back(std::move(shared));
}

}  // namespace Vantel::Orbel
