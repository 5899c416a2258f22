#pragma once

#include <string>

#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemReaderProxy.h"
#include "ipc/SharedMemWriterProxy.h"
#include "tests/support/WaitFor.h"

namespace OrbelTest {

/// Makes the connections of this process to a node, in both directions. They are made with the
/// first message otherwise, which is lost if the machine is so busy that one takes longer than 100
/// ms.
inline void connectTo(Vantel::Orbel::SharedDomainImpl& domain, unsigned long nodeId) {
    using namespace Vantel::Orbel;
    const auto toNobody = PipeMessage::make(PipeAction::DataFinish, {}, 0, 0, 0);
    const auto connected = [&](const auto& proxy) {
        return proxy && proxy->writeMessage(toNobody);
    };
    waitFor([&] { return connected(domain.getReaderProxy(nodeId)); });
    waitFor([&] { return connected(domain.getWriterProxy(nodeId)); });
}

inline void connectToAll(Vantel::Orbel::SharedDomainImpl& domain) {
    using namespace Vantel::Orbel;
    const auto table = DomainSegment::open(domain.domainName());
    for (unsigned int slot = 0; slot < kMaxNodes; ++slot) {
        if (table->node(slot).state.load() == NodeState::Alive) {
            connectTo(domain, table->node(slot).nodeId.load());
        }
    }
}

}  // namespace OrbelTest
