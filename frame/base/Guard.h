#pragma once

namespace Vantel::Orbel {

/// Holds a lock that has enter() and leave() for the length of a scope.
template <class Lock>
class Guard {
public:
    explicit Guard(Lock& lock) : mLock(lock) { mLock.enter(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    ~Guard() { mLock.leave(); }

private:
    Lock& mLock;
};

/// Holds a read-write lock for reading.
template <class Lock>
class ReadGuard {
public:
    explicit ReadGuard(Lock& lock) : mLock(lock) { mLock.enterReading(); }
    ReadGuard(const ReadGuard&) = delete;
    ReadGuard& operator=(const ReadGuard&) = delete;
    ~ReadGuard() { mLock.leave(); }

private:
    Lock& mLock;
};

/// Holds a read-write lock for writing.
template <class Lock>
class WriteGuard {
public:
    explicit WriteGuard(Lock& lock) : mLock(lock) { mLock.enterWriting(); }
    WriteGuard(const WriteGuard&) = delete;
    WriteGuard& operator=(const WriteGuard&) = delete;
    ~WriteGuard() { mLock.leave(); }

private:
    Lock& mLock;
};

}  // namespace Vantel::Orbel
