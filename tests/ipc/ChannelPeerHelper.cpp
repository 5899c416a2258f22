// The other process of the publish and subscribe tests.
//
//     ChannelPeerHelper write DOMAIN CHANNEL   has a sample at hand; each line commits it
//     ChannelPeerHelper read DOMAIN CHANNEL    prints every sample
//     ChannelPeerHelper keep DOMAIN CHANNEL    and keeps it
//
// Prints "ready" first; leaves in good order at the end of its input.
#include <json/json.h>

#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include "Vantel/Orbel/SharedMemBuffer.h"
#include "Vantel/Orbel/SharedMemNode.h"
#include "Vantel/Orbel/SharedMemReadChannel.h"
#include "Vantel/Orbel/SharedMemWriteChannel.h"
#include "tests/ipc/ConnectTo.h"

using namespace Vantel::Orbel;

namespace {

void say(const std::string& line) {
    const std::string text = line + "\n";
    if (write(1, text.data(), text.size()) < 0) {
        _exit(1);
    }
}

int runWriter(SharedDomainImpl& domain, SharedMemNode& node, const char* name) {
    const auto channel = node.newWriteChannel(name);
    if (!channel->init() || !channel->create({}, {})) {
        return 1;
    }
    const auto fresh = [&] {
        auto sample = channel->allocate(4, 0);
        std::memcpy(sample->data(), "peer", 4);
        return sample;
    };
    auto sample = fresh();
    say("ready");
    std::string line;
    while (std::getline(std::cin, line)) {
        OrbelTest::connectToAll(domain);
        say(channel->commit(sample) ? "committed" : "refused");
        sample = fresh();
    }
    return 0;
}

int runReader(SharedDomainImpl& domain, SharedMemNode& node, const char* name, bool keep) {
    std::mutex mutex;
    std::vector<std::shared_ptr<SharedMemBuffer>> kept;
    const auto channel = node.newReadChannel(name);
    const auto callback = [&](std::shared_ptr<SharedMemBuffer>& sample) {
        say("got " + std::string(static_cast<const char*>(sample->data()), sample->size()));
        if (keep) {
            std::lock_guard<std::mutex> guard(mutex);
            kept.push_back(sample);
        }
    };
    if (!channel->init() || !channel->open(callback)) {
        return 1;
    }
    OrbelTest::connectToAll(domain);
    say("ready");
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    channel->close();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    const std::string role = argv[1];
    const auto domain =
        std::static_pointer_cast<SharedDomainImpl>(SharedMemDomain::instance(argv[2]));
    if (!domain->init(Json::objectValue)) {
        return 1;
    }
    const auto node = domain->createNode(role + std::to_string(getpid()));
    if (!node->init()) {
        return 1;
    }
    const int result = role == "write" ? runWriter(*domain, *node, argv[3])
                                       : runReader(*domain, *node, argv[3], role == "keep");
    domain->deInit();
    return result;
}
