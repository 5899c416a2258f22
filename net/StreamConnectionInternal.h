#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Vantel/Orbel/Any.h"
#include "Vantel/Orbel/Channel.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/StreamConnection.h"
#include "Vantel/Orbel/StreamTransport.h"
#include "net/StreamCallbacks.h"

namespace Vantel::Orbel {

/// An operation that a signal cut short is tried again.
inline bool interrupted(const TransportResult& result) {
    return result.status == TransportStatus::kError && result.error == EINTR;
}

/// The inside of a connection. Everything below happens in the loop's thread; what other threads
/// read is atomic, stored by the loop's thread alone, and only a snapshot for them.
///
/// Each event runs under one shared pointer to the connection, `self`, so that no callback can
/// destroy what the code after it still uses. After each callback the state is asked anew.
class StreamConnection::Internal {
public:
    Internal(StreamConnection& owner, EventLoop* loop, const std::string& name,
             std::unique_ptr<StreamTransport> transport);

    // StreamConnection.cpp
    StreamConnectionPtr self() { return mOwner.shared_from_this(); }
    bool isInLoopThread() const { return mLoop->isInLoopThread(); }
    State state() const { return static_cast<State>(mState.load(std::memory_order_acquire)); }
    /// Release: who sees the new state sees what led to it.
    void setState(State state) { mState.store(state, std::memory_order_release); }
    /// At once in the loop's thread, otherwise queued; holds the connection until it has run.
    template <class Action>
    void runInLoop(Action action) {
        const StreamConnectionPtr held = self();
        if (isInLoopThread()) {
            action();
        } else {
            mLoop->runInLoop([held, action] { action(); });
        }
    }
    void setReading(bool on);
    void setWriting(bool on);
    void clearInterest();

    // StreamConnectionState.cpp
    void connectEstablished();
    void connectDestroyed();
    void enterConnected(const StreamConnectionPtr& self);
    void handleHandshake(const StreamConnectionPtr& self);
    void waitOrEnd(const StreamConnectionPtr& self, const TransportResult& result);
    void shutdown(const StreamConnectionPtr& self);
    void shutdownInLoop(const StreamConnectionPtr& self);
    void forceClose(const StreamConnectionPtr& self);
    void handleClose(const StreamConnectionPtr& self);
    void handleError(const StreamConnectionPtr& self, int error);
    /// The end is under way, but the peer has not been heard to the end.
    bool draining() const { return state() == kDisconnecting && !mCloseHandled; }

    // StreamConnectionRead.cpp
    void handleRead();
    void readMessages(const StreamConnectionPtr& self);
    void drainInput(const StreamConnectionPtr& self);
    TransportResult readIntoInput(size_t length);
    void waitOrEndReading(const StreamConnectionPtr& self, const TransportResult& result);
    bool deliver(const StreamConnectionPtr& self);
    bool makeRoom(const StreamConnectionPtr& self, bool& pending);
    size_t maxInput() const { return mMaxInputBufferSize.load(std::memory_order_relaxed); }

    // StreamConnectionWrite.cpp
    void handleWrite();
    ssize_t sendInLoop(const iovec* vectors, int count, int flags);
    bool fitsOutput(size_t length) const;
    void flushOutput(const StreamConnectionPtr& self);
    void postWriteComplete(const StreamConnectionPtr& self);
    void waitToWrite();
    void publishOutputSize() { mOutputSize.store(mOutputBuffer.size(), std::memory_order_relaxed); }

    EventLoop* const mLoop;
    const std::string mName;
    std::atomic<int32_t> mState{kConnecting};
    const std::unique_ptr<StreamTransport> mTransport;
    Channel mChannel;  // dies before the transport closes its descriptor
    StreamCallbacks mCallbacks;
    NetBuffer mInputBuffer{0};  // both without storage until the first byte
    NetBuffer mOutputBuffer{0};
    Any mContext;
    std::atomic<size_t> mMaxInputBufferSize{kDefaultMaxBufferSize};
    std::atomic<size_t> mMaxOutputBufferSize{kDefaultMaxBufferSize};
    bool mCloseHandled = false;     // the close callback has run, or must not
    bool mReadWantsWrite = false;   // the last read waits for a writable descriptor
    bool mWriteWantsRead = false;   // the last write waits for a readable one
    bool mShutdownPending = false;  // the transport's shutdown needs another event

    StreamConnection& mOwner;
    std::atomic<bool> mReading{false};  // the channel's interest
    std::atomic<bool> mWriting{false};
    std::atomic<size_t> mOutputSize{0};

private:
    static constexpr size_t kDefaultMaxBufferSize = 0x4000000;
};

/// What one event may cost, so that a busy connection does not hold up its loop: descriptors are
/// polled level-triggered, and what is left over comes again.
class EventBudget {
public:
    explicit EventBudget(unsigned operations) : mOperations(operations) {}

    bool left() const { return mOperations > 0 && mBytes > 0; }
    size_t bytes() const { return mBytes; }
    void spendOperation() { --mOperations; }
    void spendBytes(size_t bytes) { mBytes -= std::min(bytes, mBytes); }

private:
    unsigned mOperations;
    size_t mBytes = 0x400000;
};

}  // namespace Vantel::Orbel
