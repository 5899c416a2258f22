// The other side of a connection, to be killed. The address is "host:port" or "unix:path".
//     send ADDRESS     sends half of a message, prints "sent"
//     serve ADDRESS    listens, prints "ready", accepts all and answers nothing

#include <cstdio>
#include <cstring>
#include <string>

#include "tests/net/StreamTestSupport.h"

using namespace OrbelTest;

namespace {

InetAddress parse(const std::string& text) {
    if (text.rfind("unix:", 0) == 0) {
        return InetAddress::createUnix(text.substr(5));
    }
    const size_t colon = text.rfind(':');
    return InetAddress::createIPv4(static_cast<uint16_t>(std::stoi(text.substr(colon + 1))),
                                   text.substr(0, colon));
}

int say(const char* word) {
    printf("%s\n", word);
    fflush(stdout);
    return pause();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    const InetAddress addr = parse(argv[2]);
    if (strcmp(argv[1], "send") == 0) {
        Peer peer(addr);
        return peer.send("half of a mess") ? say("sent") : 1;
    }
    PeerListener listener(addr);
    return listener.valid() ? say("ready") : 1;
}
