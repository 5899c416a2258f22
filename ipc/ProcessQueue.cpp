#include "Vantel/Orbel/ProcessQueue.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>

#include "Vantel/Orbel/CThread.h"
#include "frame/base/Log.h"
#include "frame/base/Require.h"

namespace Vantel::Orbel {

namespace {

constexpr int kLargest = 1023;
constexpr int kStepUs = 10000;
constexpr uint64_t kStepNs = 10000000;
constexpr uint64_t kInterruptedNs = 2000000;

struct Message {
    long type;
    char text[kLargest + 1];
};

}  // namespace

class ProcessQueue::Internal {
public:
    /// Calls `attempt(flags)` until it returns no -1. `notYet` is the errno that stands for
    /// "try again"; any other but EINTR ends it. -1, with a line in the log, without success.
    template <class Attempt>
    static long repeat(int timeoutUs, int notYet, const char* direction, Attempt&& attempt);

    int mQueueId = -1;
};

template <class Attempt>
long ProcessQueue::Internal::repeat(int timeoutUs, int notYet, const char* direction,
                                    Attempt&& attempt) {
    const int flags = timeoutUs > 0 ? IPC_NOWAIT : 0;
    long leftUs = timeoutUs;
    for (;; leftUs -= kStepUs) {
        const long result = attempt(flags);
        if (result != -1) {
            return result;
        }
        if (errno == EINTR) {
            CThread::interruptWait(kInterruptedNs);
        } else if (errno != notYet) {
            // In these words on the receiving side and while waiting, too.
            ORBEL_LOG_ERROR("send message with no wait failed: %s\n", std::strerror(errno));
            return -1;
        } else if (leftUs <= 0) {
            ORBEL_LOG_ERROR("%s message %s\n", direction,
                            flags == IPC_NOWAIT ? "timeout" : "failed");
            return -1;
        }
        CThread::interruptWait(kStepNs);
    }
}

ProcessQueue::ProcessQueue(unsigned long key) : mInternal(std::make_unique<Internal>()) {
    mInternal->mQueueId = msgget(static_cast<key_t>(key), IPC_CREAT | 0666);
    ORBEL_REQUIRE(mInternal->mQueueId >= 0, "process msg queue msgget failed:%s\n",
                  std::strerror(errno));
}

ProcessQueue::~ProcessQueue() {
    msgctl(mInternal->mQueueId, IPC_RMID, nullptr);
}

bool ProcessQueue::send(int type, const char* data, int size, int timeoutUs) {
    if (size < 1 || size > kLargest || data == nullptr) {
        return false;
    }
    Message message{};
    message.type = type;
    std::memcpy(message.text, data, static_cast<size_t>(size));
    return Internal::repeat(timeoutUs, EAGAIN, "send", [&](int flags) -> long {
               return msgsnd(mInternal->mQueueId, &message, static_cast<size_t>(size), flags);
           }) != -1;
}

int ProcessQueue::recv(int type, char* data, int size, int timeoutUs) {
    if (size < 1 || size > kLargest || data == nullptr) {
        return -1;
    }
    Message message{};
    const long got = Internal::repeat(timeoutUs, ENOMSG, "recv", [&](int flags) -> long {
        return msgrcv(mInternal->mQueueId, &message, static_cast<size_t>(size), type, flags);
    });
    if (got > 0) {
        std::memcpy(data, message.text, static_cast<size_t>(got));
    }
    return static_cast<int>(got);
}

}  // namespace Vantel::Orbel
