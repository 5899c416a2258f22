#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "Vantel/Log/LogPacket.h"
#include "Vantel/Orbel/Buffer.h"
#include "log/ISession.h"
#include "log/ITransportLayer.h"

namespace Vantel::Log {

/// The link to the log server: writes at once what the socket takes, queues the rest for the
/// poller, and keeps a bounded queue while the server is away.
///
/// Threads: send, fd, transports and waitUntilSent() from any, which never wait for the server;
/// onReadable(), onWritable(), onTimer() on the poller's. Locks: the session's, inside it the
/// manager's or the transport's. None is held over `onPacket` and the reconnection.
class ClientSession : public ISession {
public:
    /// A packet of the server; `payload` is followed by a zero byte. It goes with the call.
    using PacketProc = std::function<void(const LogPacketHeader& header, const char* payload)>;

    explicit ClientSession(PacketProc onPacket) : mOnPacket(std::move(onPacket)) {}

    void setTransport(std::shared_ptr<ITransportLayer> transport) override;
    std::shared_ptr<ITransportLayer> takeTransport() override;
    std::shared_ptr<ITransportLayer> getTransport() override;
    int fd() override;
    void setReconnect(std::function<int(int)> reconnect) override;
    void onReadable() override;
    void onWritable() override;
    void onTimer() override;

    /// Sends a whole packet. Returns its size if it was written or queued; -1 without a transport,
    /// or if the socket failed: the packet is lost then.
    int send(const char* bytes, int size) { return send(bytes, size, nullptr); }
    /// The same without a copy: a packet that must wait is queued as it is, so its giver must not
    /// touch it again.
    int send(const Orbel::Buffer& packet);

    /// Writes what is queued until nothing is left (true) or `timeoutMs` have passed. For a process
    /// that is about to end: takes the lock only if it is free, since who crashed may hold it, and
    /// does not count on the poller.
    bool waitUntilSent(int timeoutMs);

private:
    enum State { kNew = 0, kConnected = 1, kLost = -1 };

    int send(const char* bytes, int size, const Orbel::Buffer* packet);
    int enqueue(const char* bytes, int size, const Orbel::Buffer* packet, int written);
    bool writeFront();
    void watch(int mode);
    void lose();
    int bytesWanted();
    bool acceptHeader(int count);
    void finishPacket();

    std::mutex mMutex;
    std::atomic<int> mState{kNew};
    std::shared_ptr<ITransportLayer> mTransport;
    std::deque<Orbel::Buffer> mSendQueue;  // each with its cursor behind what was written
    std::function<int(int)> mReconnect;
    Orbel::Buffer mRecvBuffer;  // the poller's own
    const PacketProc mOnPacket;
};

}  // namespace Vantel::Log
