#pragma once

#include <pthread.h>

#include "Vantel/Orbel/CMutex.h"
#include "memory/cache/RecordArena.h"
#include "memory/cache/ThreadCache.h"

namespace Vantel::Memory {

/// What a thread has before its first allocation: a cache that is empty and full at once.
extern constinit ThreadCacheNode noNode;

/// The calling thread's node, never null. Initial-exec: read by two loads, without a call, also
/// from the shared library, which is small enough for it.
extern constinit thread_local ThreadCacheNode* currentNode
    __attribute__((tls_model("initial-exec")));

/// Makes a node for each thread that allocates, and retires it when the thread ends.
class ThreadCacheManager {
public:
    ThreadCacheManager();
    static ThreadCacheManager& instance();

    /// The calling thread's node, made if need be; noNode if there is no memory.
    ThreadCacheNode* node();

    /// At the end of the process, by the thread that exits: its lists go back and all nodes are
    /// unmapped. False, with nothing done, if other threads have nodes: they may still run.
    bool shutDown();

private:
    static void retire(void* node);

    ThreadCacheNode* findLocked(pthread_t thread);
    ThreadCacheNode* makeLocked(pthread_t thread);

    Orbel::CMutex mMutex;
    ThreadCacheNode* mNodes = nullptr;
    pthread_key_t mKey{};
    bool mKeyMade = false;
    RecordArena<ThreadCacheRecord, 32> mArena;
};

}  // namespace Vantel::Memory
