#include "Vantel/Orbel/CThreadSpecific.h"

#include <pthread.h>

namespace Vantel::Orbel {

class CThreadSpecific::Internal {
public:
    pthread_key_t mKey{};
    bool mValid = pthread_key_create(&mKey, nullptr) == 0;
};

CThreadSpecific::CThreadSpecific() : mInternal(new Internal) {}

CThreadSpecific::~CThreadSpecific() {
    if (mInternal->mValid) {
        pthread_key_delete(mInternal->mKey);
    }
    delete mInternal;
}

bool CThreadSpecific::valid() const {
    return mInternal->mValid;
}

bool CThreadSpecific::setValue(const void* value) {
    return mInternal->mValid && pthread_setspecific(mInternal->mKey, value) == 0;
}

bool CThreadSpecific::getValue(void** value) const {
    if (value == nullptr || !mInternal->mValid) {
        return false;
    }
    *value = pthread_getspecific(mInternal->mKey);
    return true;
}

}  // namespace Vantel::Orbel
