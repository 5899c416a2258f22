// The other process of the publish and subscribe tests.
//
//     ChannelPeerHelper write DOMAIN CHANNEL   allocates a block, fills it for ever
//     ChannelPeerHelper keep DOMAIN CHANNEL    keeps every sample
//     ChannelPeerHelper read DOMAIN CHANNEL    prints every sample
//
// Prints "ready" first. A line on its input commits one sample (write) or drops all (keep).
#include <json/json.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include "Vantel/Orbel/SharedMemBuffer.h"
#include "Vantel/Orbel/SharedMemDomain.h"
#include "Vantel/Orbel/SharedMemNode.h"
#include "Vantel/Orbel/SharedMemReadChannel.h"
#include "Vantel/Orbel/SharedMemWriteChannel.h"

using namespace Vantel::Orbel;

namespace {

void say(const std::string& line) {
    const std::string text = line + "\n";
    if (write(1, text.data(), text.size()) < 0) {
        _exit(1);
    }
}

int runWriter(SharedMemNode& node, const char* name) {
    const auto channel = node.newWriteChannel(name);
    if (!channel->init() || !channel->create({}, {})) {
        return 1;
    }
    auto sample = channel->allocate(5, 0);
    std::memcpy(sample->data(), "peer\0", 5);
    say("ready");
    std::string line;
    while (std::getline(std::cin, line)) {
        say(channel->commit(sample) ? "committed" : "refused");
        sample = channel->allocate(5, 0);
        std::memcpy(sample->data(), "peer\0", 5);
    }
    return 0;
}

int runReader(SharedMemNode& node, const char* name, bool keep) {
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
    say("ready");
    std::string line;
    while (std::getline(std::cin, line)) {
        std::lock_guard<std::mutex> guard(mutex);
        kept.clear();
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
    const auto domain = SharedMemDomain::instance(argv[2]);
    if (!domain->init(Json::objectValue)) {
        return 1;
    }
    const auto node = domain->createNode(role + std::to_string(getpid()));
    if (!node->init()) {
        return 1;
    }
    const int result =
        role == "write" ? runWriter(*node, argv[3]) : runReader(*node, argv[3], role == "keep");
    domain->deInit();
    return result;
}
