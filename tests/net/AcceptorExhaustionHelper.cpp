// Listens on a loopback port with every descriptor up to a limit (argument) in use. Prints the
// port; then answers "report" and "free" (the descriptors) on its standard input.

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

        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = static_cast<rlim_t>(argc > 1 ? atoi(argv[1]) : 64);
        setrlimit(RLIMIT_NOFILE, &limit);
        for (int fd = 0; fd >= 0;) {
            fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            hoard.emplace_back(fd);
        }
        acceptor->listen();
    });
    printf("%d\n", acceptor->listenAddr().toPort());
    fflush(stdout);
    for (std::string line; std::getline(std::cin, line);) {
        if (line == "free") {
            loop.run([&] { hoard.clear(); });
            printf("freed\n");
        } else {
            loop.run([] {});  // after what it does just now
            printf("dropped %d accepted %d\n",
                   log.count("]Acceptor::handleRead - file descriptor exhausted"), accepted.load());
        }
        fflush(stdout);
    }
    acceptor.reset();
}
