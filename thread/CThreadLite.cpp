#include "Vantel/Orbel/CThreadLite.h"

#include <utility>

namespace Vantel::Orbel {

CThreadLite::CThreadLite(Proc proc, const char* name, int priority, int policy, int stackSize)
    : CThread(name, priority, policy, stackSize), mInternal(new Proc(std::move(proc))) {}

CThreadLite::~CThreadLite() {
    if (!isThreadOver()) {
        destroyThread();
        while (!isThreadOver()) {  // asked before by somebody else, or just past its last post
            sleep(1);
        }
    }
    delete mInternal;
}

void CThreadLite::threadProc() {
    setCurrentThreadName(getThreadName());
    if (!mInternal->empty()) {
        (*mInternal)(*this);
    }
}

}  // namespace Vantel::Orbel
