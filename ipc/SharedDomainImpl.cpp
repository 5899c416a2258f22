#include "ipc/SharedDomainImpl.h"

#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/EventLoopThread.h"
#include "frame/base/Assert.h"
#include "frame/base/Log.h"
#include "frame/base/ScopeExit.h"
#include "ipc/ProcessLock.h"
#include "ipc/SharedMemNodeImpl.h"
#include "ipc/SharedMemPool.h"
#include "ipc/SharedMemReaderProxy.h"
#include "ipc/SharedMemWriterProxy.h"

namespace Vantel::Orbel {

namespace {

constexpr int64_t kCheckIntervalMs = 100;

/// Writing to the socket of a dead peer must give EPIPE and not end the process. A handler that the
/// application has set stays.
void ignoreSigalPipe() {
    struct sigaction action = {};
    if (sigaction(SIGPIPE, nullptr, &action) != 0) {
        ORBEL_LOG_ERROR("sigaction sigpipe failed:%s\n", std::strerror(errno));
        return;
    }
    if ((action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_DFL) {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigemptyset(&ignore.sa_mask);
        sigaction(SIGPIPE, &ignore, nullptr);
    }
}

}  // namespace

/// What init() reads of its configuration.
struct SharedDomainImpl::LoopSettings {
    bool realtime = false;
    int priority = -1;
    int attachCore = -1;

    /// False, with a line in the log, if a value has a wrong type.
    bool read(const Json::Value& config) {
        if (!config.isObject() && !config.isNull()) {
            ORBEL_LOG_ERROR("domain config is not an object\n");
            return false;
        }
        return readValue(config, "realtime", Json::booleanValue, realtime) &&
               readValue(config, "priority", Json::intValue, priority) &&
               readValue(config, "attachCore", Json::intValue, attachCore);
    }

private:
    template <class T>
    static bool readValue(const Json::Value& config, const char* key, Json::ValueType type,
                          T& value) {
        if (!config.isMember(key) || config[key].isNull()) {
            return true;  // the default stands
        }
        if (!config[key].isConvertibleTo(type)) {
            ORBEL_LOG_ERROR("domain config: %s has a wrong type\n", key);
            return false;
        }
        value = config[key].as<T>();
        return true;
    }
};

SharedDomainImpl::SharedDomainImpl(const std::string& name)
    : mDomainName(name),
      mPid(getpid()),
      mProcessMutex(("share_mem_domain/" + name).c_str()),
      mWorker(name),
      mPools(name, *this) {}

SharedDomainImpl::~SharedDomainImpl() {
    SharedDomainImpl::deInit();
}

void SharedDomainImpl::setPoolConfigs(const std::vector<PoolConfig>& configs) {
    mPoolConfigs = configs;
}

bool SharedDomainImpl::init(const Json::Value& config) {
    ignoreSigalPipe();
    LoopSettings settings;
    if (!settings.read(config)) {
        return false;
    }
    const ProcessLock lock(mProcessMutex);
    if (!lock.held()) {
        ORBEL_LOG_ERROR("process mutex of domain %s cannot be had: %s\n", mDomainName.c_str(),
                        std::strerror(errno));
        return false;
    }
    if (mInitialized) {
        return true;
    }
    if (mLeaving) {  // looked at second: deInit() sets it first
        ORBEL_LOG_ERROR("domain %s is just being left\n", mDomainName.c_str());
        return false;
    }
    return join(settings);
}

/// init() under the process mutex. What it made is left in place when a later step fails.
bool SharedDomainImpl::join(const LoopSettings& settings) {
    auto opened = DomainSegment::open(mDomainName);
    if (opened == nullptr) {
        return false;
    }
    {
        std::lock_guard<std::mutex> guard(mSegmentMutex);
        mSegment = opened;
    }
    if (!mPools.initPools(*opened, mPoolConfigs)) {
        ORBEL_LOG_ERROR("Failed to initialize pools\n");
        return false;
    }
    mReaderProxies.open();
    mWriterProxies.open();
    mWorker.accept(true);
    if (!startLoopThread(settings)) {
        mWorker.accept(false);
        return false;
    }
    checkNodes();
    mInitialized = true;
    return true;
}

bool SharedDomainImpl::startLoopThread(const LoopSettings& settings) {
    mLoopThread = std::make_unique<EventLoopThread>(
        [this](EventLoop* loop) {
            mCheckTimerId = loop->addTimer([this] { check(); }, kCheckIntervalMs, true);
        },
        mDomainName + "Thread");
    mLoopThread->setSchedulePolicy(settings.realtime, settings.priority, settings.attachCore);
    mLoop = mLoopThread->startLoop();
    if (mLoop == nullptr) {
        ORBEL_LOG_ERROR("Failed to start loop thread of domain %s\n", mDomainName.c_str());
        mLoopThread.reset();
        return false;
    }
    return true;
}

/// The order matters: callbacks hold blocks, and all control traffic runs on the loop.
bool SharedDomainImpl::deInit() {
    {
        std::lock_guard<std::mutex> guard(mMutex);
        if (!mInitialized) {
            return false;
        }
        ORBEL_ASSERT_TEXT(!isOwnThread(), "deInit not called in a thread of the domain");
        mLeaving = true;  // before mInitialized, see init()
        mInitialized = false;
    }
    const ScopeExit left([this] { mLeaving = false; });
    cancelCheckTimer();
    mWorker.accept(false);
    NodeMap nodes;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        nodes.swap(mNodes);
    }
    const auto readerProxies = mReaderProxies.shut();
    const auto writerProxies = mWriterProxies.shut();
    for (auto& [name, node] : nodes) {
        retire(*node);
    }
    mWorker.waitCallbackTaskDrain();
    nodes.clear();
    mReaderProxies.close(readerProxies);
    mWriterProxies.close(writerProxies);
    mPools.closeAll();
    stopLoopThread();
    mWorker.stop();
    std::lock_guard<std::mutex> guard(mSegmentMutex);
    mSegment.reset();  // unmapped with its last owner: nodes that the application holds need it
    return true;
}

/// The id is stored on the loop, maybe after init() has returned, so it is read there too. Once
/// this has returned, no check is under way and none follows.
void SharedDomainImpl::cancelCheckTimer() {
    EventLoop* const loop = mLoop;
    loop->runInLoopWithResult<bool>([this, loop] {
            loop->cancelTimer(std::exchange(mCheckTimerId, 0));
            return true;
        })
        .get();
}

void SharedDomainImpl::stopLoopThread() {
    {
        // From here on nobody builds a proxy on the loop, and those under way are done.
        std::unique_lock<std::shared_mutex> gate(mLoopGate);
        mLoop = nullptr;
    }
    mLoopThread->stop();
    mLoopThread.reset();
}

/// The server goes even where the table entry is not the node's own any more and deInit() refuses:
/// it must not outlive the loop.
void SharedDomainImpl::retire(SharedMemNodeImpl& node) {
    node.deInit();
    node.closeServer();
}

bool SharedDomainImpl::isOwnThread() const {
    EventLoop* const loop = mLoop;
    return (loop != nullptr && loop->isInLoopThread()) || mWorker.isOwnThread();
}

std::shared_ptr<DomainSegment> SharedDomainImpl::segment() const {
    std::lock_guard<std::mutex> guard(mSegmentMutex);
    return mSegment;
}

std::shared_ptr<SharedMemPool> SharedDomainImpl::createPool(const std::string& name,
                                                            unsigned int blockSize,
                                                            unsigned int extraSize,
                                                            unsigned int blockCount) {
    const auto held = segment();
    if (held == nullptr) {
        ORBEL_LOG_ERROR("no pool %s: domain %s is not joined\n", name.c_str(), mDomainName.c_str());
        return nullptr;
    }
    return mPools.create(*held, {name, blockSize, extraSize, blockCount});
}

std::shared_ptr<SharedMemPool> SharedDomainImpl::getPool(unsigned int poolId) {
    if (auto pool = mPools.attached(poolId)) {
        return pool;
    }
    const auto held = segment();
    return held == nullptr ? nullptr : mPools.get(*held, poolId);
}

std::shared_ptr<SharedMemPool> SharedDomainImpl::findPoolBySize(unsigned int size,
                                                                unsigned int extraSize) {
    return mPools.findBySize(size, extraSize);
}

PoolInfo* SharedDomainImpl::getPoolInfo(unsigned int poolId) {
    const auto held = segment();
    return held == nullptr || poolId >= kMaxPools ? nullptr : &held->pool(poolId);
}

NodeInfo* SharedDomainImpl::getNodeInfo(unsigned long nodeId) {
    const auto held = segment();
    const auto slot = held == nullptr ? std::nullopt : held->findNode(nodeId);
    return slot ? &held->node(*slot) : nullptr;
}

bool SharedDomainImpl::checkNodeAlive(unsigned long nodeId) {
    const auto held = segment();
    return held != nullptr && held->nodeAlive(nodeId);
}

bool SharedDomainImpl::checkNodeAlive(unsigned int slot, unsigned int tag) {
    const auto held = segment();
    return held != nullptr && held->nodeAlive(slot, tag);
}

}  // namespace Vantel::Orbel
