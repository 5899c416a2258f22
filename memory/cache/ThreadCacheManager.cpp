#include "memory/cache/ThreadCacheManager.h"

#include "frame/base/Guard.h"

namespace Vantel::Memory {

using Orbel::CMutex;
using Orbel::Guard;

constinit ThreadCacheNode noNode;
constinit thread_local ThreadCacheNode* currentNode = &noNode;

ThreadCacheManager::ThreadCacheManager()
    : mKeyMade(pthread_key_create(&mKey, &ThreadCacheManager::retire) == 0) {}

ThreadCacheNode* ThreadCacheManager::node() {
    if (currentNode == &noNode) {
        Guard<CMutex> guard(mMutex);
        const pthread_t self = pthread_self();
        ThreadCacheNode* found = findLocked(self);
        if (found != nullptr) {
            // Left by an ended thread of the same id that allocated in its last destructors. The
            // key is not set yet in this one, which would never give the node back.
            pthread_setspecific(mKey, found);
        }
        currentNode = found != nullptr ? found : makeLocked(self);
    }
    return currentNode;
}

ThreadCacheNode* ThreadCacheManager::findLocked(pthread_t thread) {
    for (ThreadCacheNode* node = mNodes; node != nullptr; node = node->next) {
        if (pthread_equal(node->threadId, thread) != 0) {
            return node;
        }
    }
    return nullptr;
}

ThreadCacheNode* ThreadCacheManager::makeLocked(pthread_t thread) {
    void* memory = mKeyMade ? mArena.take() : nullptr;
    if (memory == nullptr) {
        return &noNode;
    }
    if (pthread_setspecific(mKey, memory) != 0) {
        mArena.give(memory);
        return &noNode;
    }
    ThreadCacheNode* node = ThreadCacheRecord::construct(memory);
    node->threadId = thread;
    node->next = mNodes;
    if (mNodes != nullptr) {
        mNodes->prev = node;
    }
    mNodes = node;
    return node;
}

/// The key's destructor, in the thread that ends. Later destructors of that thread may allocate
/// again: they get a new node, and this is called once more.
void ThreadCacheManager::retire(void* memory) {
    auto* node = static_cast<ThreadCacheNode*>(memory);
    currentNode = &noNode;
    node->cache.releaseAll();

    ThreadCacheManager& manager = instance();
    Guard<CMutex> guard(manager.mMutex);
    (node->prev != nullptr ? node->prev->next : manager.mNodes) = node->next;
    if (node->next != nullptr) {
        node->next->prev = node->prev;
    }
    manager.mArena.give(node);
}

bool ThreadCacheManager::shutDown() {
    Guard<CMutex> guard(mMutex);
    for (const ThreadCacheNode* node = mNodes; node != nullptr; node = node->next) {
        if (node != currentNode) {
            return false;
        }
    }
    if (currentNode != &noNode) {
        currentNode->cache.releaseAll();
        currentNode = &noNode;
        mNodes = nullptr;
    }
    if (mKeyMade) {
        pthread_key_delete(mKey);
        mKeyMade = false;
    }
    mArena.unmapAll();
    return true;
}

}  // namespace Vantel::Memory
