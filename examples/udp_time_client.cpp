// Asks a time server on this machine and prints its answer. A datagram may be lost, and so the
// question is repeated every 200 ms, for two seconds.
//     udp_time_client 7778

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/UdpClient.h"

using namespace Vantel::Orbel;

int main(int argc, char** argv) {
    const auto port = static_cast<uint16_t>(argc > 1 ? atoi(argv[1]) : 7778);
    std::string answer;

    EventLoop loop;
    loop.setMode(kLoopTimed);  // give up after two seconds
    loop.setTimeout(2000);
    UdpClient client(&loop, "time");
    client.setMessageCallback([&](UdpClient*, NetBuffer* datagram, const InetAddress&) {
        answer.assign(reinterpret_cast<const char*>(datagram->data()), datagram->size());
        loop.quit();
    });
    // Where nobody listens, the kernel says so. That ends nothing: a server may still come.
    client.setErrorCallback(
        [](UdpClient*, int error) { fprintf(stderr, "no answer: %s\n", strerror(error)); });

    if (!client.initial("127.0.0.1", port, false) || !client.start()) {
        perror("udp_time_client");
        return 1;
    }
    const auto ask = [&] { client.send("time?", 5, 0); };
    ask();
    loop.addTimer(ask, 200, true);
    loop.loop();
    printf("%s\n", answer.c_str());
    return answer.empty() ? 1 : 0;
}
