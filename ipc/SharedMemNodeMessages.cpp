#include <cerrno>
#include <cstring>

#include "Vantel/Orbel/StreamConnection.h"
#include "Vantel/Orbel/UnixStreamSocket.h"
#include "frame/base/Log.h"
#include "frame/base/UniqueFd.h"
#include "ipc/FinishBatch.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemNodeImpl.h"
#include "ipc/SharedMemReadChannelImpl.h"
#include "ipc/SharedMemReaderProxy.h"
#include "ipc/SharedMemWriteChannelImpl.h"
#include "ipc/SharedMemWriterProxy.h"

/// The control traffic of a node. Everything in a message may be forged: ids are looked up, block
/// numbers are bound-checked by the pools, and the channels compare writer and sequence.
namespace Vantel::Orbel {

void SharedMemNodeImpl::onReadable(const std::shared_ptr<StreamConnection>& connection) {
    const int result = handleMessage(connection);
    if (result == 0) {
        connection->forceClose();
    } else if (result < 0 && errno != EAGAIN && errno != EINTR) {
        ORBEL_LOG_ERROR("SharedMemNode handleMessage failed: %s\n", std::strerror(errno));
        connection->forceClose();
    }
}

int SharedMemNodeImpl::handleMessage(const std::shared_ptr<StreamConnection>& connection) {
    int handledBytes = 0;
    for (;;) {
        PipeMessage messages[PipeReceiver::kBatch];
        const int count = recvMessage(connection, messages, PipeReceiver::kBatch);
        if (count < 1) {
            return handledBytes > 0 ? handledBytes : count;
        }
        {
            FinishBatch finishes(*this);
            for (int i = 0; i < count; ++i) {
                handleOne(messages[i]);
            }
        }
        handledBytes += count * static_cast<int>(sizeof(PipeMessage));
        if (count < static_cast<int>(PipeReceiver::kBatch)) {
            return handledBytes;  // the socket is drained: no call that could only say so
        }
    }
}

/// A descriptor that nobody asked for is closed: a peer could fill our table with them.
void SharedMemNodeImpl::handleOne(const PipeMessage& message) {
    switch (message.action()) {
        case PipeAction::DataReady:
            processDataReadyMessage(message);
            return;
        case PipeAction::DataFinish:
            processDataFinishMessage(message);
            break;
        default:
            ORBEL_LOG_ERROR("unkown msg action %d\n", static_cast<int>(message.action()));
            break;
    }
    UniqueFd unclaimed(message.fd);
}

int SharedMemNodeImpl::recvMessage(const std::shared_ptr<StreamConnection>& connection,
                                   PipeMessage* messages, unsigned int count) {
    const auto* const socket =
        connection == nullptr ? nullptr : dynamic_cast<UnixStreamSocket*>(connection->getSocket());
    if (socket == nullptr || socket->fd() < 0) {
        errno = ENOTCONN;
        return -1;
    }
    return mReceiver.receive(socket->fd(), messages, count);
}

template <class Impl>
std::shared_ptr<Impl> SharedMemNodeImpl::findChannel(const ChannelMap<Impl>& channels,
                                                     unsigned long channelId) {
    std::lock_guard<std::mutex> guard(mMutex);
    const auto found = channels.find(channelId);
    return found == channels.end() ? nullptr : found->second;
}

bool SharedMemNodeImpl::processDataReadyMessage(const PipeMessage& message) {
    const auto channel = findChannel(mReadChannels, message.channelId);
    if (channel != nullptr && channel->handleDataReady(message)) {
        return true;  // the descriptor is the reader buffer's now
    }
    UniqueFd refused(message.fd);
    return false;
}

bool SharedMemNodeImpl::processDataFinishMessage(const PipeMessage& message) {
    if (message.writerId != nodeId()) {
        return false;
    }
    const auto channel = findChannel(mWriteChannels, message.channelId);
    return channel != nullptr && channel->handleDataFinish(message);
}

bool SharedMemNodeImpl::notifyReader(unsigned long readerId, PipeMessage& message) {
    const auto domain = mDomain.lock();
    if (domain == nullptr) {
        return false;
    }
    const auto proxy = domain->getReaderProxy(readerId);
    if (proxy == nullptr) {
        ORBEL_LOG_ERROR("Failed to get reader proxy for readerId %lu\n", readerId);
        return false;
    }
    if (!proxy->writeMessage(message)) {
        const int error = errno;
        ORBEL_LOG_WARN(
            " Failed to notify reader [%s], readerId %lu for poll %u block %u (errno=%d: %s)\n",
            proxy->name(), readerId, message.poolId(), message.blockIndex(), error,
            std::strerror(error));
        return false;
    }
    return true;
}

bool SharedMemNodeImpl::notifyWriter(unsigned long writerId, PipeMessage& message) {
    if (FinishBatch* const batch = FinishBatch::of(*this)) {
        batch->add(message);
        return true;
    }
    return sendToWriter(writerId, &message, 1);
}

bool SharedMemNodeImpl::sendToWriter(unsigned long writerId, const PipeMessage* messages,
                                     size_t count) {
    const auto domain = mDomain.lock();
    if (domain == nullptr) {
        return false;
    }
    const auto proxy = domain->getWriterProxy(writerId);
    if (proxy == nullptr) {
        ORBEL_LOG_ERROR("Failed to get writer proxy for writerId %lu\n", writerId);
        return false;
    }
    if (proxy->writeMessages(messages, count)) {
        return true;
    }
    for (size_t i = 0; i < count; ++i) {
        ORBEL_LOG_ERROR("Failed to notify write [%s], writerId %lu for block %d\n", proxy->name(),
                        writerId, static_cast<int>(messages[i].blockIndex()));
    }
    return false;
}

}  // namespace Vantel::Orbel
