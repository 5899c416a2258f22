// Serves "hello" on a loopback port and prints the port. Then obeys its standard input: "hoard"
// takes every descriptor up to a low limit, "free" gives them back, both answer with a line that
// says what became of the connections so far.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Vantel/Orbel/Acceptor.h"
#include "tests/net/StreamTestSupport.h"
#include "tests/support/LogCapture.h"

using namespace OrbelTest;
using Vantel::Orbel::Acceptor;
using Vantel::Orbel::UniqueFd;

namespace {

void takeAllDescriptors(std::vector<UniqueFd>& hoard) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 40;
    setrlimit(RLIMIT_NOFILE, &limit);
    do {
        hoard.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    } while (hoard.back().valid());
}

}  // namespace

int main() {
    LogCapture log;
    LoopThread loop;
    std::atomic<int> accepted{0};
    std::unique_ptr<Acceptor> acceptor;
    std::vector<UniqueFd> hoard;
    loop.run([&] {
        acceptor = std::make_unique<Acceptor>(loop.get());
        acceptor->setNewConnectionCallback([&](int fd, const InetAddress&) {
            const UniqueFd owned(fd);
            ++accepted;
            if (::send(fd, "hello", 5, MSG_NOSIGNAL) != 5) {
                perror("send");
            }
        });
        acceptor->initial(InetAddress::createLoopback4(0), "", false);
        acceptor->listen();
    });
    printf("%d\n", acceptor->listenAddr().toPort());  // no stream: the sanitizer needs a descriptor
    fflush(stdout);
    for (std::string line; std::getline(std::cin, line);) {
        loop.run([&] {  // after whatever the acceptor does just now
            line == "hoard" ? takeAllDescriptors(hoard) : hoard.clear();
        });
        printf("dropped %d accepted %d\n",
               log.count("]Acceptor::handleRead - file descriptor exhausted"), accepted.load());
        fflush(stdout);
    }
    acceptor.reset();
}
