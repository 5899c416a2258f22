// A time server: answers each UDP datagram with the local time, until it is ended with Ctrl-C.
//     udp_time_server 7778

#include <cstdio>
#include <cstdlib>

#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/UdpServer.h"

using namespace Vantel::Orbel;

int main(int argc, char** argv) {
    const auto port = static_cast<uint16_t>(argc > 1 ? atoi(argv[1]) : 7778);

    EventLoop loop;
    UdpServer server(&loop, "time");
    // Whatever the question is. An answer that cannot be sent is lost: who wants it asks again.
    server.setMessageCallback([](UdpServer* self, NetBuffer*, const InetAddress& client) {
        const CTime now = CTime::getCurrentTime();
        char text[64];
        const int size =
            snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", now.year, now.month,
                     now.day, now.hour, now.minute, now.second, now.millisecond);
        self->sendTo(text, static_cast<size_t>(size), client, 0);
    });

    if (!server.initial(InetAddress::createLoopback4(port), "", false) || !server.start()) {
        perror("udp_time_server");
        return 1;
    }
    printf("listening on %s\n", server.listenAddr().toIpPort().c_str());
    fflush(stdout);
    loop.loop();
}
