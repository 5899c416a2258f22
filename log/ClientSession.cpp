#include "log/ClientSession.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "log/LogCodec.h"
#include "log/SessionMgr.h"

namespace Vantel::Log {

namespace {

constexpr size_t kMaxQueued = 1024;  // and the packet at hand
constexpr int kRecvBufferSize = 4096;

}  // namespace

void ClientSession::setTransport(std::shared_ptr<ITransportLayer> transport) {
    const std::lock_guard guard(mMutex);
    if (mTransport != nullptr) {
        SessionMgr::instance().remove(mTransport->fd());
        mTransport->close();
    }
    if (!mSendQueue.empty()) {
        mSendQueue.front().seek(0, SEEK_SET);  // the new server has seen nothing of it
    }
    mState.store(kConnected, std::memory_order_relaxed);
    mTransport = std::move(transport);
}

std::shared_ptr<ITransportLayer> ClientSession::takeTransport() {
    const std::lock_guard guard(mMutex);
    return std::exchange(mTransport, nullptr);
}

std::shared_ptr<ITransportLayer> ClientSession::getTransport() {
    const std::lock_guard guard(mMutex);
    return mTransport;
}

int ClientSession::fd() {
    const std::lock_guard guard(mMutex);
    return mTransport == nullptr ? -1 : mTransport->fd();
}

void ClientSession::setReconnect(std::function<int(int)> reconnect) {
    const std::lock_guard guard(mMutex);
    mReconnect = std::move(reconnect);
}

/// Sets the mode of the present transport. The lock is held.
void ClientSession::watch(int mode) {
    SessionMgr::instance().modify(mTransport->fd(), mode);
}

int ClientSession::send(const Orbel::Buffer& packet) {
    return send(reinterpret_cast<const char*>(packet.data()), packet.size(), &packet);
}

int ClientSession::send(const char* bytes, int size, const Orbel::Buffer* packet) {
    const std::lock_guard guard(mMutex);
    if (mTransport == nullptr || mTransport->fd() < 0 || bytes == nullptr || size <= 0) {
        return -1;
    }
    if (!mSendQueue.empty() || mState.load(std::memory_order_relaxed) == kLost) {
        // Behind what waits; and a lost server gets it when it is back.
        if (mSendQueue.size() > kMaxQueued) {
            mSendQueue.pop_back();  // the newest: the oldest lines and this one survive
        }
        return enqueue(bytes, size, packet, 0);
    }
    const int written = mTransport->write(bytes, size);
    if (written < 0 || written == size) {
        return written;
    }
    const int result = enqueue(bytes, size, packet, written);
    watch(SessionMgr::kInput | SessionMgr::kOutput);
    return result;
}

/// Appends a packet of which `written` bytes are out. The lock is held.
int ClientSession::enqueue(const char* bytes, int size, const Orbel::Buffer* packet, int written) {
    Orbel::Buffer queued;
    if (packet != nullptr) {
        queued = *packet;
    } else {
        if (queued.resize(size) < 0) {
            return -1;
        }
        std::memcpy(queued.data(), bytes, static_cast<size_t>(size));
    }
    queued.seek(written, SEEK_SET);
    mSendQueue.push_back(queued);
    return size;
}

/// Writes the rest of the front packet; whether anything moved. The lock is held.
bool ClientSession::writeFront() {
    Orbel::Buffer& front = mSendQueue.front();
    const int written = mTransport->write(front.offset(), front.remain());
    if (written < 0 || written == front.remain()) {
        mSendQueue.pop_front();  // lost if it failed, as told by the transport
        return true;
    }
    front.seek(written, SEEK_CUR);
    return written > 0;
}

void ClientSession::onWritable() {
    const std::lock_guard guard(mMutex);
    if (mTransport == nullptr) {
        return;
    }
    if (mSendQueue.empty() || mState.load(std::memory_order_relaxed) != kConnected) {
        watch(SessionMgr::kInput);  // of a lost link, too: the next read finds that again
        return;
    }
    writeFront();
}

bool ClientSession::waitUntilSent(int timeoutMs) {
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (const std::unique_lock lock(mMutex, std::try_to_lock); lock.owns_lock()) {
            while (!mSendQueue.empty() && mTransport != nullptr &&
                   mState.load(std::memory_order_relaxed) == kConnected && writeFront()) {
            }
            if (mSendQueue.empty()) {
                return true;
            }
        }
        if (steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

/// The server is gone: what comes from now on waits for its return.
void ClientSession::lose() {
    const std::lock_guard guard(mMutex);
    mRecvBuffer.reset();  // the next server does not finish the packet of this one
    mState.store(kLost, std::memory_order_relaxed);
    if (mTransport != nullptr) {
        watch(SessionMgr::kDead);
    }
}

void ClientSession::onReadable() {
    const std::shared_ptr<ITransportLayer> transport = getTransport();
    if (transport == nullptr) {
        return;
    }
    if (mRecvBuffer.capability() == 0 && mRecvBuffer.resize(kRecvBufferSize) < 0) {
        return;
    }
    const int count = transport->read(mRecvBuffer.offset(), bytesWanted());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count <= 0) {
        if (count == 0) {
            std::printf("logClient server close socket\n");
        } else {
            std::printf("logClient read failed %d errors:%s \n", count, strerror(errno));
        }
        lose();
        return;
    }
    if (mRecvBuffer.tell() == 0 && !acceptHeader(count)) {
        mRecvBuffer.reset();  // the connection stays: what follows is read as a new header
        return;
    }
    mRecvBuffer.seek(count, SEEK_CUR);
    if (mRecvBuffer.remain() <= 0) {
        finishPacket();
    }
}

/// A header at once, then the rest of its packet at once.
int ClientSession::bytesWanted() {
    return mRecvBuffer.tell() < LogCodec::kHeaderSize ? LogCodec::kHeaderSize
                                                      : mRecvBuffer.remain();
}

/// Checks the first `count` bytes of a packet, and makes room for all of it.
bool ClientSession::acceptHeader(int count) {
    LogPacketHeader header = {};
    std::memcpy(&header, mRecvBuffer.data(),
                static_cast<size_t>(std::min(count, LogCodec::kHeaderSize)));
    if (count != LogCodec::kHeaderSize || header.magic != kLogPacketMagic || header.size < 0 ||
        header.size > kMaxLogPayload) {
        std::printf("Log Client receive Invalid packet buffer %d, magic = 0x%x\n", count,
                    header.magic);
        return false;
    }
    const int size = LogCodec::kHeaderSize + header.size;
    if (mRecvBuffer.resize(size + 1) < 0) {
        return false;
    }
    *mRecvBuffer.data(size) = 0;
    mRecvBuffer.resize(size);
    return true;
}

void ClientSession::finishPacket() {
    LogPacketHeader header;
    std::memcpy(&header, mRecvBuffer.data(), sizeof header);
    mOnPacket(header, reinterpret_cast<const char*>(mRecvBuffer.data(LogCodec::kHeaderSize)));
    mRecvBuffer.reset();
}

void ClientSession::onTimer() {
    std::function<int(int)> reconnect;
    {
        const std::lock_guard guard(mMutex);
        if (mState.load(std::memory_order_relaxed) != kLost || mTransport == nullptr) {
            return;
        }
        watch(0);
        reconnect = mReconnect;
    }
    if (reconnect == nullptr || reconnect(-1) < 0) {
        const std::lock_guard guard(mMutex);
        mState.store(kLost, std::memory_order_relaxed);
        watch(SessionMgr::kDead);
    }
}

}  // namespace Vantel::Log
