// What the manager's worker does: the periodic sync, and the queue of notifications and resets.
#include "Vantel/Config/IConfig.h"
#include "Vantel/Orbel/CTime.h"
#include "Vantel/Utils/JsonText.h"
#include "config/ConfigManagerImpl.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"

// An event is an object with the members
//     "config"    name of the document that was changed
//     "attach"    what the writer attached for its observers; absent if that was empty
//     "recovery"  true for a reset of all documents
//     "exclude"   with "recovery": what to leave alone, an object or Null
//     "operator"  the user; absent if there was none

namespace Vantel::Config {

using Orbel::CTime;
using Orbel::Guard;
using Orbel::ReadGuard;
using Orbel::WriteGuard;

namespace {

Json::Value newEvent(const char* userId, bool recovery) {
    Json::Value event;
    event["recovery"] = recovery;
    if (userId != nullptr) {
        event["operator"] = userId;
    }
    return event;
}

/// Null if there is none.
const char* operatorOf(const Json::Value& event) {
    return event.isMember("operator") ? event["operator"].asCString() : nullptr;
}

}  // namespace

bool ConfigManagerImpl::attach(const char* name, const Observer& proc) {
    if (getConfigObject(name) == nullptr) {
        return false;
    }
    const WriteGuard writing(mObserversLock);
    std::unique_ptr<Signal>& signal = mObservers[name];
    if (signal == nullptr) {
        signal = std::make_unique<Signal>();
    }
    if (proc.empty() || signal->attach(proc) < 0) {
        ORBEL_LOG_ERROR("attach config(%s) proc failed", name);  // without a line end
        return false;
    }
    return true;
}

bool ConfigManagerImpl::detach(const char* name, const Observer& proc) {
    const ReadGuard reading(mObserversLock);
    const auto entry = name == nullptr ? mObservers.end() : mObservers.find(name);
    return entry != mObservers.end() && entry->second->detach(proc);
}

bool ConfigManagerImpl::notify(const char* userId, const std::string& name,
                               const Json::Value& attach) {
    Json::Value event = newEvent(userId, false);
    event["config"] = name;
    if (!attach.empty()) {
        event["attach"] = attach;
    }
    {
        const Guard queueing(mQueueMutex);
        if (mQueue.size() >= mQueueLimit) {
            return false;
        }
        mQueue.push_back(std::move(event));
    }
    mQueueSem.post(0);
    return true;
}

bool ConfigManagerImpl::recovery(const char* userId, const Json::Value& except) {
    if (!except.isNull() && !except.isObject()) {
        ORBEL_LOG_ERROR("except params error,%s\n", Utils::jsonToString(except, true).c_str());
        return false;
    }
    Json::Value event = newEvent(userId, true);
    event["exclude"] = except;
    {
        const Guard queueing(mQueueMutex);
        dropEvents();
        mQueue.push_back(std::move(event));
    }
    mQueueSem.post(0);
    return true;
}

/// Under mQueueMutex. The semaphore's units go with the events, or each would cut short a later
/// sleep of the worker.
void ConfigManagerImpl::dropEvents() {
    std::deque<Json::Value>().swap(mQueue);
    mQueueSem.clear();
}

bool ConfigManagerImpl::takeEvent(Json::Value& event) {
    const Guard queueing(mQueueMutex);
    if (mQueue.empty()) {
        return false;
    }
    event = std::move(mQueue.front());
    mQueue.pop_front();
    return true;
}

void ConfigManagerImpl::syncInterval() {
    const uint64_t now = CTime::getCurrentMilliSecond();
    if (now >= mNextSyncMs) {
        syncAll();
        mNextSyncMs = now + static_cast<uint64_t>(mIntervalMs);
    }
}

void ConfigManagerImpl::processEvents() {
    while (mStarted) {
        syncInterval();
        mQueueSem.pend(kIdleMs);
        Json::Value event;
        if (!takeEvent(event)) {
            return;
        }
        if (event["recovery"].asBool()) {
            recoverAll(operatorOf(event), event["exclude"]);
        } else {
            tellObservers(event);
        }
    }
}

void ConfigManagerImpl::tellObservers(const Json::Value& event) {
    const Json::Value attach = event.get("attach", Json::Value());
    const ReadGuard reading(mObserversLock);
    const auto entry = mObservers.find(event["config"].asString());
    if (entry != mObservers.end()) {
        (*entry->second)(operatorOf(event), entry->first.c_str(), attach);
    }
}

}  // namespace Vantel::Config
