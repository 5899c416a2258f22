#include "ipc/FinishBatch.h"

#include "ipc/SharedMemNodeImpl.h"

namespace Vantel::Orbel {

namespace {

constinit thread_local FinishBatch* innermost = nullptr;

}  // namespace

FinishBatch::FinishBatch(SharedMemNodeImpl& node) : mNode(node), mOuter(innermost) {
    innermost = this;
}

FinishBatch::~FinishBatch() {
    innermost = mOuter;
    flush();
}

FinishBatch* FinishBatch::of(const SharedMemNodeImpl& node) {
    FinishBatch* batch = innermost;
    while (batch != nullptr && &batch->mNode != &node) {
        batch = batch->mOuter;
    }
    return batch;
}

void FinishBatch::add(const PipeMessage& message) {
    if (mCount == mMessages.size()) {
        flush();
    }
    mMessages[mCount++] = message;
}

void FinishBatch::flush() {
    size_t begin = 0;
    while (begin < mCount) {
        size_t end = begin + 1;
        while (end < mCount && mMessages[end].writerId == mMessages[begin].writerId) {
            ++end;
        }
        mNode.sendToWriter(mMessages[begin].writerId, &mMessages[begin], end - begin);
        begin = end;
    }
    mCount = 0;
}

}  // namespace Vantel::Orbel
