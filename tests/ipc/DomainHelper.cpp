#include <json/json.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <string>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/IThreadPool.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemNodeImpl.h"
#include "ipc/SharedMemPool.h"

/// One more process of a domain: DomainHelper DOMAIN BLOCKS. Each line of standard input is a
/// command, answered by one line of standard output. BLOCKS above 0: one pool of that many blocks.
namespace {

using namespace Vantel::Orbel;

class CallTask : public IThreadTask {
public:
    CallTask(SharedDomainImpl& domain, std::function<void()> call)
        : mDomain(domain), mCall(std::move(call)) {}
    ~CallTask() override { mDomain.onAsyncTaskDone(); }
    void run() override { mCall(); }

private:
    SharedDomainImpl& mDomain;
    std::function<void()> mCall;
};

/// What an ordinary user has: no first-in-first-out scheduling.
void dropPrivileges() {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_RTPRIO, &none);
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    syscall(SYS_capset, &header, data);
}

std::string poolText(SharedDomainImpl& domain) {
    const auto pool = domain.getPool(0);
    return pool ? std::to_string(pool->blockCount()) : "none";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    const auto domain =
        std::static_pointer_cast<SharedDomainImpl>(SharedMemDomain::instance(argv[1]));
    if (const int blocks = std::atoi(argv[2]); blocks > 0) {
        domain->setPoolConfigs({{"pool", 256, 64, static_cast<unsigned int>(blocks)}});
    }
    const auto leave = [&] { domain->deInit(); };
    const std::map<std::string, std::function<std::string(const std::string&)>> commands = {
        {"init", [&](auto&) { return std::to_string(domain->init(Json::objectValue)); }},
        {"realtime",
         [&](auto&) {
             Json::Value config;
             config["realtime"] = true;
             return std::to_string(domain->init(config));
         }},
        {"drop", [](auto&) { return dropPrivileges(), std::string("done"); }},
        {"pool", [&](auto&) { return poolText(*domain); }},
        {"node",
         [&](auto& name) {
             const auto node = domain->createNode(name);
             return std::to_string(node && node->init() ? node->nodeId() : 0);
         }},
        {"claim",  // a node that stays without init()
         [&](auto& name) { return std::to_string(domain->createNode(name)->nodeId()); }},
        {"leave-in-loop",
         [&](auto&) { return domain->getEventLoop()->queueInLoop(leave), std::string("posted"); }},
        {"leave-in-callback",
         [&](auto&) {
             return std::to_string(domain->postAsyncTask(new CallTask(*domain, leave)));
         }},
        {"exit-in-loop",
         [&](auto&) {
             return domain->getEventLoop()->queueInLoop([] { std::exit(0); }),
                    std::string("posted");
         }},
        {"exit-in-callback",
         [&](auto&) {
             return std::to_string(
                 domain->postAsyncTask(new CallTask(*domain, [] { std::exit(0); })));
         }},
    };
    std::string command;
    while (std::cin >> command) {
        std::string argument;
        std::getline(std::cin, argument);
        argument.erase(0, argument.find_first_not_of(" "));
        const auto found = commands.find(command);
        std::cout << (found == commands.end() ? "unknown" : found->second(argument)) << std::endl;
    }
    return 0;  // with everything alive
}
