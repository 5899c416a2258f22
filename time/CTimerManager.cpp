#include "Vantel/Orbel/CTimerManager.h"

#include "frame/base/Guard.h"
#include "time/TimerManagerInternal.h"

namespace Vantel::Orbel {

CTimerManager* CTimerManager::instance() {
    static auto* const manager = new CTimerManager;  // never destroyed
    return manager;
}

void CTimerManager::printTimers() {
    TimerManagerInternal::instance()->printTimers();
}

void CTimerManager::limitIdlePooled(int limit) {
    TimerManagerInternal& manager = *TimerManagerInternal::instance();
    Guard<CRecursiveMutex> guard(manager.mutex);
    manager.idleLimit = limit;
}

bool CTimerManager::setCPUAffinity(int core) {
    if (core < 0) {
        return false;
    }
    TimerManagerInternal& manager = *TimerManagerInternal::instance();
    Guard<CRecursiveMutex> guard(manager.mutex);
    manager.cpuCoreId = core;
    return true;
}

}  // namespace Vantel::Orbel
