#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <string>
#include <vector>

#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemNodeImpl.h"
#include "ipc/SharedMemPool.h"
#include "tests/support/IpcCleanup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

namespace OrbelTest {

using namespace Vantel::Orbel;

/// A domain under a name of its own, and what this process logs. Each object of the domain stands
/// for a process: the first to join makes the segment and is the master.
class DomainFixture : public testing::Test {
protected:
    using Configs = std::vector<SharedMemDomain::PoolConfig>;

    void TearDown() override {
        for (const auto& domain : mJoined) {
            domain->deInit();
        }
    }

    std::shared_ptr<SharedDomainImpl> make() const {
        return std::make_shared<SharedDomainImpl>(mDomainName);
    }
    /// Left again at the end of the test, if not before.
    std::shared_ptr<SharedDomainImpl> joined(const Configs& configs = {}) {
        return join(make(), configs);
    }
    template <class Domain>
    std::shared_ptr<Domain> join(std::shared_ptr<Domain> domain, const Configs& configs) {
        domain->setPoolConfigs(configs);
        EXPECT_TRUE(domain->init(Json::objectValue));
        mJoined.push_back(domain);
        return domain;
    }

    static std::shared_ptr<SharedMemNodeImpl> newNode(SharedDomainImpl& domain,
                                                      const std::string& name) {
        return std::static_pointer_cast<SharedMemNodeImpl>(domain.createNode(name));
    }
    static std::shared_ptr<SharedMemNodeImpl> aliveNode(SharedDomainImpl& domain,
                                                        const std::string& name) {
        auto node = newNode(domain, name);
        EXPECT_TRUE(node != nullptr && node->init());
        return node;
    }
    std::shared_ptr<DomainSegment> segment() const { return DomainSegment::open(mDomainName); }
    unsigned int usedSlots() const {
        const auto table = segment();
        unsigned int used = 0;
        for (unsigned int slot = 0; slot < kMaxNodes; ++slot) {
            used += table->node(slot).state.load() == NodeState::Free ? 0 : 1;
        }
        return used;
    }

    LogCapture mLog;
    IpcCleanup mCleanup;
    const std::string mDomainName = mCleanup.domain("domain_of_one_of_the_tests");
    std::vector<std::shared_ptr<SharedDomainImpl>> mJoined;
};

}  // namespace OrbelTest
