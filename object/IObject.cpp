#include "Vantel/Object/IObject.h"

#include <atomic>

namespace Vantel::Object {

struct IObject::Internal {
    std::atomic<uint8_t> referenced{0};  // whether anybody ever took a reference
    std::atomic<uint32_t> count{0};
};

IObject::IObject() : mInternal(new Internal) {}

IObject::~IObject() {
    delete mInternal;
}

// Sequentially consistent, as told to those who derive: no cheaper order is worth a question here.
uint32_t IObject::addRef() {
    mInternal->referenced.exchange(1);
    return mInternal->count.fetch_add(1) + 1;
}

uint32_t IObject::release() {
    const uint32_t left = mInternal->count.fetch_sub(1) - 1;
    if (left == 0) {
        destroy();  // the object may be gone
    }
    return left;
}

}  // namespace Vantel::Object
