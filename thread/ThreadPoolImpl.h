#pragma once

#include <memory>

#include "Vantel/Orbel/IThreadPool.h"

namespace Vantel::Orbel {

class ThreadPoolImpl : public IThreadPool {
public:
    explicit ThreadPoolImpl(const char* name);
    ThreadPoolImpl(const ThreadPoolImpl&) = delete;
    ThreadPoolImpl& operator=(const ThreadPoolImpl&) = delete;
    ~ThreadPoolImpl() override;

    bool initial(int threadCount, int maxQueue, int reserved, int cpuCoreId) override;
    bool deInitial() override;
    bool postTask(IThreadTask* task) override;

private:
    class Internal;

    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Orbel
