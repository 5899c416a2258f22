#include "Vantel/Orbel/ErrorState.h"

#include <cstdint>
#include <utility>

#include "Vantel/Orbel/CThreadSpecific.h"
#include "frame/ErrorTable.h"

namespace Vantel::Orbel {

namespace {

/// Never destroyed: threads that outlive main() still set their number.
CThreadSpecific& lastErrno() {
    static auto* slot = new CThreadSpecific;
    return *slot;
}

}  // namespace

void setLastErrno(int error) {
    // The number itself stands where others keep a pointer: nothing needs to be freed.
    lastErrno().setValue(reinterpret_cast<void*>(static_cast<intptr_t>(error)));
}

int getLastErrno() {
    void* value = nullptr;
    lastErrno().getValue(&value);
    if (value != nullptr) {
        lastErrno().setValue(nullptr);
    }
    return static_cast<int>(reinterpret_cast<intptr_t>(value));
}

void setErrorMsg(int error, const char* message) {
    ErrorTable::instance().enter(error, message);
}

void setModuleErrno(int error, const char* message) {
    setErrorMsg(error, message);
}

const char* getErrorMsg(int error) {
    return ErrorTable::instance().message(error);
}

const char* getModuleName(int error) {
    return ErrorTable::instance().module(error);
}

bool setErrorMsgProc(TDelegate<int, int, std::string&> proc) {
    return ErrorTable::instance().install(std::move(proc));
}

}  // namespace Vantel::Orbel
