#pragma once

#include <array>
#include <cstddef>

#include "ipc/PipeMessage.h"

namespace Vantel::Orbel {

class SharedMemNodeImpl;

/// The finish messages that a node owes while it handles one batch of control messages: they leave
/// together at its end, those to one writer in one send. A reader that keeps up with a writer so
/// wakes the writer's loop once a batch, not once a sample. On the stream they are the same records
/// in the same order.
///
/// Threads: lives on the stack of the loop thread; of() finds it from further down that stack only.
class FinishBatch {
public:
    explicit FinishBatch(SharedMemNodeImpl& node);
    FinishBatch(const FinishBatch&) = delete;
    FinishBatch& operator=(const FinishBatch&) = delete;
    ~FinishBatch();

    /// The batch that `node` collects in this thread at the moment, or null.
    static FinishBatch* of(const SharedMemNodeImpl& node);

    void add(const PipeMessage& message);

private:
    void flush();

    SharedMemNodeImpl& mNode;
    FinishBatch* const mOuter;
    size_t mCount = 0;
    std::array<PipeMessage, 16> mMessages;
};

}  // namespace Vantel::Orbel
