#include "ipc/AsyncReadTask.h"

#include <utility>

#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemReadChannelImpl.h"

namespace Vantel::Orbel {

AsyncReadTask::AsyncReadTask(std::weak_ptr<SharedMemReadChannelImpl> channel,
                             std::shared_ptr<SharedMemBuffer> buffer, SharedDomainImpl& domain)
    : mChannel(std::move(channel)), mBuffer(std::move(buffer)), mDomain(domain) {}

AsyncReadTask::~AsyncReadTask() {
    mBuffer.reset();
    mDomain.onAsyncTaskDone();
}

void AsyncReadTask::run() {
    if (const auto channel = mChannel.lock()) {
        channel->dispatchBuffer(std::move(mBuffer));
    }
}

}  // namespace Vantel::Orbel
