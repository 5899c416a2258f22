#pragma once

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "Vantel/Config/IConfigManager.h"
#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/CReadWriteMutex.h"
#include "Vantel/Orbel/CSemaphore.h"
#include "Vantel/Orbel/TSignal.h"

namespace Vantel::Config {

/// The manager. Its locks from the first to the last: mStartMutex, mObserversLock (held while
/// observers run), mConfigsLock (held while documents are called), a document's own, mQueueMutex.
class ConfigManagerImpl : public IConfigManager {
public:
    static ConfigManagerImpl& get();

    bool deInitial() override;
    IConfig* getConfigObject(const char* name) override;
    bool attach(const char* name, const Observer& proc) override;
    bool detach(const char* name, const Observer& proc) override;
    bool initial(const Json::Value& config) override;
    bool importConfig(const char* userId, const Json::Value& list) override;
    bool exportConfig(Json::Value& out, const Json::Value& names) override;
    bool recoveryConfigs(const char* userId, const Json::Value& names) override;
    bool recovery(const char* userId, const Json::Value& except) override;

    void processEvents();

    /// The periodic sync, if it is due.
    void syncInterval();

    /// False if there is a document of that name.
    bool registerConfig(const std::string& name, IConfig* config);

    /// A document that another of its name kept out takes nobody away.
    void unregisterConfig(const std::string& name, const IConfig* config);

    /// Queues a notification of the observers of `name`. False, and it is lost, if the queue is
    /// full. `userId` may be null.
    bool notify(const char* userId, const std::string& name, const Json::Value& attach);

    std::string configPath();
    std::string defConfigPath();
    bool lowPower() const { return mLowPower.load(std::memory_order_relaxed); }

private:
    using Signal = Orbel::TSignal<const char*, const char*, const Json::Value&>;

    static constexpr int kDefaultIntervalMs = 2000;
    static constexpr int kTooShortMs = 199;
    static constexpr uint32_t kIdleMs = 50;

    void start(const Json::Value& config);
    void dropEvents();
    bool takeEvent(Json::Value& event);
    void syncAll();
    void tellObservers(const Json::Value& event);
    void recoverAll(const char* userId, const Json::Value& except);

    /// Under mConfigsLock. Null if there is none, and for a `name` that is no string.
    IConfig* find(const Json::Value& name) const;

    std::atomic<bool> mStarted{false};
    std::atomic<bool> mLowPower{false};
    std::atomic<int> mIntervalMs{kDefaultIntervalMs};
    std::atomic<uint64_t> mNextSyncMs{0};
    std::string mDefConfigPath;
    std::string mConfigPath;
    const uint64_t mQueueLimit = 64;
    Orbel::CMutex mQueueMutex;
    Orbel::CSemaphore mQueueSem{0};
    std::deque<Json::Value> mQueue;
    std::map<std::string, IConfig*> mConfigs;
    Orbel::CReadWriteMutex mConfigsLock;
    Orbel::CMutex mStartMutex;  // guards mStarted and the paths
    std::map<std::string, std::unique_ptr<Signal>> mObservers;
    Orbel::CReadWriteMutex mObserversLock;
};

}  // namespace Vantel::Config
