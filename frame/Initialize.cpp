#include "Vantel/Orbel/Initialize.h"

#include <json/json.h>
#include <signal.h>
#include <sys/mman.h>

#include <cstdio>
#include <ios>

#include "Vantel/Memory/ShareMemoryManager.h"
#include "Vantel/Orbel/CThreadManager.h"
#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/CTimerManager.h"
#include "Vantel/Orbel/ErrorState.h"
#include "file/FileCacheImpl.h"
#include "file/FileDefaultOpt.h"
#include "frame/base/Assert.h"
#include "ipc/DomainRegistry.h"
#include "memory/cache/CacheSingletons.h"
#include "time/TimerManagerInternal.h"

namespace Vantel::Orbel {

namespace {

/// What stands before any static object of the application is made and falls after the last of them
/// has gone, the last one here first. Each of these makes itself at first use as well; here is the
/// one place that says in which order, and so in which order they end.
struct LoadTime {
    LoadTime() {
        getLastErrno();  // its slot: before a process can have used up its thread-specific keys
        Json::Value::nullSingleton();
        // The default memory hooks are constants and need no making.
        Memory::makeCacheSingletons();
        static const std::ios_base::Init streamsBefore;
        Memory::ShareMemoryManager::instance();
        static const std::ios_base::Init streamsAfter;
        DomainRegistry::instance();
        CTime::getDateFormat();
        TimerManagerInternal::instance();
    }
};

[[gnu::init_priority(101), maybe_unused]] const LoadTime loadTime;

/// The value of `key`, null if it is missing.
const Json::Value* find(const Json::Value& config, const char* key) {
    return config.isObject() && config.isMember(key) ? &config[key] : nullptr;
}

/// The value of `key`, null if it is missing. The program ends if it is not of the right type.
const Json::Value* findTyped(const Json::Value& config, const char* key,
                             bool (Json::Value::*isRight)() const, const char* message) {
    const Json::Value* const value = find(config, key);
    const bool typeIsRight = value == nullptr || (value->*isRight)();
    if (!typeIsRight) {
        std::fputs(message, stderr);
    }
    ORBEL_ASSERT(typeIsRight);
    return value;
}

bool wantsLock(const Json::Value* realtime) {
    const Json::Value* const enable = realtime == nullptr ? nullptr : find(*realtime, "enable");
    return enable != nullptr && enable->isBool() && enable->asBool();
}

void ignoreBrokenPipes() {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    sigemptyset(&action.sa_mask);
    sigaction(SIGPIPE, &action, nullptr);
}

}  // namespace

bool initialize(const Json::Value& config) {
    const Json::Value* const timerPoolSize = findTyped(config, "timerPoolSize", &Json::Value::isInt,
                                                       "timer pool size params type error\n");
    const Json::Value* const fileIOBuffer = findTyped(config, "fileIOBuffer", &Json::Value::isInt,
                                                      "file io buffer params type error\n");
    const Json::Value* const realtime =
        findTyped(config, "realtime", &Json::Value::isObject, "real time params type error\n");

    if (wantsLock(realtime) && mlockall(MCL_CURRENT | MCL_FUTURE) != 0) {
        std::fputs("process memory lock all failed\n", stderr);
        return false;
    }
    ignoreBrokenPipes();
    if (timerPoolSize != nullptr) {
        CTimerManager::instance()->limitIdlePooled(timerPoolSize->asInt());
    }
    if (fileIOBuffer != nullptr) {
        FileDefaultOpt::instance()->setFileBuffer(fileIOBuffer->asInt());
    }
    if (const Json::Value* const fileCache = find(config, "fileCache")) {
        FileCacheImpl::getInstance()->initialize(*fileCache);
    }
    CThreadManager::instance();
    return true;
}

}  // namespace Vantel::Orbel
