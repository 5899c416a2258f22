#include "memory/share/ProcessMutex.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frame/base/Require.h"

namespace Vantel::Memory {

namespace {

constinit ShareMutex* records[kMutexCount] = {};

int32_t lockRecord(ShareMutex* thiz) {
    ORBEL_REQUIRE(thiz != nullptr, "thiz != osNullptr\n");
    ORBEL_REQUIRE(thiz->internal != nullptr, "thiz->internal != osNullptr\n");
    int error = pthread_mutex_lock(thiz->internal);
    while (error == EOWNERDEAD) {  // again if whoever came in between died in it, too
        ORBEL_LOG_ERROR("process exit with lock.[%d]\n", error);
        pthread_mutex_consistent(thiz->internal);
        pthread_mutex_unlock(thiz->internal);
        error = pthread_mutex_lock(thiz->internal);
    }
    if (error != 0) {
        ORBEL_LOG_ERROR("process mutex lock failed cased by %s.\n", std::strerror(error));
    }
    return 0;  // in every case, as it stands
}

int32_t unlockRecord(ShareMutex* thiz) {
    ORBEL_REQUIRE(thiz != nullptr, "thiz != osNullptr\n");
    ORBEL_REQUIRE(thiz->internal != nullptr, "thiz->internal != osNullptr\n");
    pthread_mutex_unlock(thiz->internal);
    return 0;
}

void setUp(pthread_mutex_t& mutex) {
    pthread_mutexattr_t attribute;
    pthread_mutexattr_init(&attribute);
    pthread_mutexattr_setpshared(&attribute, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setprotocol(&attribute, PTHREAD_PRIO_INHERIT);
    pthread_mutexattr_setrobust(&attribute, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&mutex, &attribute);
    pthread_mutexattr_destroy(&attribute);
}

}  // namespace

int32_t initProcessMutex(ZoneHead* head) {
    ORBEL_REQUIRE(head != nullptr, "head != osNullptr\n");
    if (head->size < kMutexZoneSize) {  // a creator that is not done with the zones yet
        ORBEL_LOG_ERROR("process mutex zone of [%u] bytes.\n", head->size);
        return -1;
    }
    auto* const zone = reinterpret_cast<MutexZone*>(head);
    if (!zoneReady(head)) {
        ORBEL_LOG_INFO(" >>>>>>>> init process mutex\n");
        for (pthread_mutex_t& mutex : zone->mutexes) {
            setUp(mutex);
        }
        setZoneReady(head);
    }
    for (uint32_t i = 0; i < kMutexCount; ++i) {
        if (records[i] == nullptr) {
            records[i] = static_cast<ShareMutex*>(std::malloc(sizeof(ShareMutex)));
        }
        if (records[i] == nullptr) {
            ORBEL_LOG_ERROR("malloc process mutex failed!\n");
            return -1;
        }
        *records[i] = ShareMutex{lockRecord, unlockRecord, &zone->mutexes[i]};
    }
    return 0;
}

ShareMutex* getProcessMutex(uint32_t index) {
    if (index >= kMutexCount) {
        ORBEL_LOG_ERROR("get process mutex failed, id:%d > 3!\n", static_cast<int>(index));
        return nullptr;
    }
    return records[index];
}

ProcessMutex::ProcessMutex(ProcessMutexIndex index) : mMutex(getProcessMutex(index)) {
    ORBEL_REQUIRE(mMutex != nullptr, "get process mutex failed\n");
}

}  // namespace Vantel::Memory
