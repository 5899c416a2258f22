#pragma once

#include <memory>

#include "Vantel/Orbel/IThreadPool.h"

namespace Vantel::Orbel {

class SharedDomainImpl;
class SharedMemBuffer;
class SharedMemReadChannelImpl;

/// Carries one sample to the callback worker.
class AsyncReadTask : public IThreadTask {
public:
    /// `domain` counts its tasks and waits for them before it ends: it outlives them all.
    AsyncReadTask(std::weak_ptr<SharedMemReadChannelImpl> channel,
                  std::shared_ptr<SharedMemBuffer> buffer, SharedDomainImpl& domain);
    /// Lets go of the sample first, then reports: with no task pending no task holds a block.
    ~AsyncReadTask() override;

    void run() override;

private:
    std::weak_ptr<SharedMemReadChannelImpl> mChannel;
    std::shared_ptr<SharedMemBuffer> mBuffer;
    SharedDomainImpl& mDomain;
};

}  // namespace Vantel::Orbel
