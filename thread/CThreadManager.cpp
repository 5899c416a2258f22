#include "Vantel/Orbel/CThreadManager.h"

#include "thread/ThreadManagerInternal.h"

namespace Vantel::Orbel {

CThreadManager* CThreadManager::instance() {
    static auto* const manager = new CThreadManager;  // never destroyed
    return manager;
}

void CThreadManager::registerMainThread() {
    ThreadManagerInternal::instance()->registerMainThread();
}

void CThreadManager::printThreads() {
    ThreadManagerInternal::instance()->dumpThreads();
}

bool CThreadManager::getThreadNameById(int tid, std::string& name) {
    return ThreadManagerInternal::instance()->getThreadNameById(tid, name);
}

bool CThreadManager::getTimeoutThreadName(std::vector<std::string>& names) {
    return ThreadManagerInternal::instance()->getTimeoutThreadName(names);
}

bool CThreadManager::hasThread(int tid) {
    return ThreadManagerInternal::instance()->getThread(tid) != nullptr;
}

}  // namespace Vantel::Orbel
