#pragma once

#include <pthread.h>

namespace Vantel::Orbel {

/// Owner of a pthread_attr_t with what a CThread asks of it. Each step that the system refuses
/// writes its line to the log and is false.
class ThreadAttributes {
public:
    ThreadAttributes() = default;
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;
    ~ThreadAttributes();

    bool init();
    /// In bytes; 0 or less keeps the system's default, less than 16384 becomes that.
    bool setStackSize(int stackSize);
    /// Policy 0 or 1; any other one is warned of and changes nothing.
    bool setSchedule(int policy, int priority);
    bool destroy();

    const pthread_attr_t* get() const { return &mAttributes; }

private:
    bool setRealtime(int priority);

    pthread_attr_t mAttributes;
    bool mInitialised = false;
};

}  // namespace Vantel::Orbel
