// Serves "hello" on a loopback port and prints the port. Then obeys its standard input: "hoard"
// takes every descriptor up to a limit (argument), "free" gives them back, both answer with a
// line that says what became of the connections so far.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "StreamTestSupport.h"
#include "Vantel/Orbel/Acceptor.h"
#include "tests/support/LogCapture.h"

using namespace OrbelTest;
using Vantel::Orbel::Acceptor;
using Vantel::Orbel::UniqueFd;

namespace {

std::vector<UniqueFd> takeAllDescriptors(rlim_t limit) {
    rlimit soft = {};
    getrlimit(RLIMIT_NOFILE, &soft);
    soft.rlim_cur = limit;
    setrlimit(RLIMIT_NOFILE, &soft);
    std::vector<UniqueFd> hoard;
    for (int fd = 0; fd >= 0;) {
        fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        hoard.emplace_back(fd);
    }
    return hoard;
}

}  // namespace

int main(int argc, char** argv) {
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
    printf("%d\n", acceptor->listenAddr().toPort());
    fflush(stdout);
    for (std::string line; std::getline(std::cin, line);) {
        loop.run([&] {  // after whatever the acceptor does just now
            if (line == "hoard") {
                hoard = takeAllDescriptors(static_cast<rlim_t>(argc > 1 ? atoi(argv[1]) : 64));
            } else {
                hoard.clear();
            }
        });
        printf("dropped %d accepted %d\n",
               log.count("]Acceptor::handleRead - file descriptor exhausted"), accepted.load());
        fflush(stdout);
    }
    acceptor.reset();
}
