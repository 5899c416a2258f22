// An echo server: sends back what each client sends, until it is ended with Ctrl-C.
//     echo_server 7777

#include <cstdio>
#include <cstdlib>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/TcpServer.h"

using namespace Vantel::Orbel;

int main(int argc, char** argv) {
    const auto port = static_cast<uint16_t>(argc > 1 ? atoi(argv[1]) : 7777);

    EventLoop loop;  // one per thread; everything below happens in this one
    TcpServer server(&loop, "echo");
    server.setMessageCallback([](const StreamConnectionPtr& connection, NetBuffer* input) {
        connection->send(input->data(), input->size());
        input->consume(input->size());  // what is left comes again with the next bytes
    });

    if (!server.initial(InetAddress::createLoopback4(port), "", false) || !server.start()) {
        perror("echo_server");
        return 1;
    }
    printf("listening on %s\n", server.listenAddr().toIpPort().c_str());
    fflush(stdout);
    loop.loop();
}
