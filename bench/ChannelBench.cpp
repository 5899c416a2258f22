#include <benchmark/benchmark.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "Vantel/Orbel/SharedMemBuffer.h"
#include "Vantel/Orbel/SharedMemDomain.h"
#include "Vantel/Orbel/SharedMemNode.h"
#include "Vantel/Orbel/SharedMemWriteChannel.h"
#include "tests/support/IpcCleanup.h"

namespace {

using namespace Vantel::Orbel;

/// allocate, commit without a reader, drop; `range(0)` pools in the domain.
void publishToNobody(benchmark::State& state) {
    OrbelTest::IpcCleanup cleanup;
    const auto domain = SharedMemDomain::instance(cleanup.domain("bench"));
    std::vector<SharedMemDomain::PoolConfig> pools;
    for (unsigned int i = 0; i < static_cast<unsigned int>(state.range(0)); ++i) {
        pools.push_back({"pool" + std::to_string(i), 4096 * (i + 1), 64, 16});
    }
    domain->setPoolConfigs(pools);
    const bool joined = domain->init(Json::objectValue);
    const auto node = domain->createNode("writer");
    node->init();
    const auto channel = node->newWriteChannel(cleanup.channel("bench"));
    if (!joined || !channel->init() || !channel->create({}, {})) {
        state.SkipWithError("no channel");
        return;
    }
    for (auto _ : state) {
        auto sample = channel->allocate(64, 8);
        if (!sample || !channel->commit(sample)) {
            state.SkipWithError("not published");
            break;
        }
    }
    domain->deInit();
}
BENCHMARK(publishToNobody)->Arg(1)->Arg(2)->Arg(32);

}  // namespace
