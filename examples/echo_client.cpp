// An echo client: sends a line to an echo server on this machine and prints what comes back.
//     echo_client 7777 "hello robot"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/TcpClient.h"

using namespace Vantel::Orbel;

int main(int argc, char** argv) {
    const auto port = static_cast<uint16_t>(argc > 1 ? atoi(argv[1]) : 7777);
    const std::string text = argc > 2 ? argv[2] : "hello";
    std::string answer;

    EventLoop loop;
    loop.setMode(kLoopTimed);  // give up after two seconds
    loop.setTimeout(2000);
    TcpClient client(&loop, "echo");
    client.setConnectionCallback([&](const StreamConnectionPtr& server) { server->send(text); });
    client.setMessageCallback([&](const StreamConnectionPtr&, NetBuffer* input) {
        answer.append(reinterpret_cast<const char*>(input->data()), input->size());
        input->consume(input->size());
        if (answer.size() >= text.size()) {
            client.disconnect();
        }
    });
    client.setCloseCallback([&](const StreamConnectionPtr&) { loop.quit(); });

    if (!client.connect("127.0.0.1", port, 1000, false)) {
        perror("echo_client");
        return 1;
    }
    loop.loop();
    printf("%s\n", answer.c_str());
    return answer == text ? 0 : 1;
}
