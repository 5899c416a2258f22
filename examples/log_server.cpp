// A log server: where the lines of a machine's processes meet. Start it first; whoever sets its
// logger up from then on sends its lines here. A process that runs already comes back by itself
// within seconds when a server is restarted.
//
//     log_server [--store DIR] [SOCKET]
//
// Prints each line, or appends it to DIR/<module>.log. Events go to standard error. Until SIGINT or
// SIGTERM. SOCKET is "/tmp/logServer.sock" if it is not given.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "Vantel/Log/LogPacket.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/UnixServer.h"

using namespace Vantel::Log;
using namespace Vantel::Orbel;

namespace {

// A subscriber that does not read loses lines, and nobody else does.
constexpr size_t kMaxUnreadBytes = 4 << 20;

// Files that are kept open, by module; standard output without a directory.
class Store {
public:
    explicit Store(std::string directory) : mDirectory(std::move(directory)) {}

    void append(const std::string& module, std::string_view line) {
        std::fwrite(line.data(), 1, line.size(), fileOf(module));
    }
    void flush(const std::string& module) { std::fflush(fileOf(module)); }
    void flushAll() { std::fflush(nullptr); }

private:
    using File = std::unique_ptr<FILE, int (*)(FILE*)>;

    FILE* fileOf(const std::string& module) {
        if (mDirectory.empty()) {
            return stdout;
        }
        std::string name = module;  // what a client calls itself must not leave the directory
        std::replace(name.begin(), name.end(), '/', '_');
        const auto found = mFiles.find(name);
        if (found != mFiles.end()) {
            return found->second.get();
        }
        const std::string path = mDirectory + "/" + name + ".log";
        File file(std::fopen(path.c_str(), "a"), &std::fclose);
        if (file == nullptr) {
            std::perror(path.c_str());
            return stdout;
        }
        return mFiles.emplace(name, std::move(file)).first->second.get();
    }

    const std::string mDirectory;
    std::map<std::string, File> mFiles;
};

// All of it in one loop's thread.
class LogServer {
public:
    LogServer(EventLoop* loop, const std::string& directory)
        : mServer(loop, "log"), mStore(directory) {
        mServer.setMaxOutputBufferSize(kMaxUnreadBytes);
        mServer.setConnectionCallback(
            [this](const StreamConnectionPtr& peer) { mClients[peer.get()].connection = peer; });
        mServer.setMessageCallback([this](const StreamConnectionPtr& peer, NetBuffer* input) {
            onBytes(mClients[peer.get()], *input);
        });
        mServer.setCloseCallback([this](const StreamConnectionPtr& peer) {
            std::fprintf(stderr, "%s has left\n", mClients[peer.get()].name().c_str());
            mStore.flushAll();
            // Later: a send that finds the peer gone may have brought us here.
            mServer.getLoop()->queueInLoop([this, peer] { mClients.erase(peer.get()); });
        });
    }

    bool start(const std::string& path) {
        return mServer.initial(InetAddress::createUnix(path), "", false) && mServer.start();
    }

private:
    struct Client {
        StreamConnectionPtr connection;
        std::string module = "unknown";
        int processId = 0;
        std::set<std::string> wanted;

        std::string name() const { return module + "(" + std::to_string(processId) + ")"; }
    };

    // A stream knows no packets: they come in pieces, or several at once.
    void onBytes(Client& client, NetBuffer& input) {
        LogPacketHeader header;
        while (input.size() >= sizeof header) {
            std::memcpy(&header, input.data(), sizeof header);
            if (header.magic != kLogPacketMagic || header.size < 0 ||
                header.size > kMaxLogPayload) {
                std::fprintf(stderr, "%s sends no packets\n", client.name().c_str());
                client.connection->forceClose();
                return;
            }
            const size_t whole = sizeof header + static_cast<size_t>(header.size);
            if (input.size() < whole) {
                break;
            }
            const auto* bytes = reinterpret_cast<const char*>(input.data());
            onPacket(client, header, std::string_view(bytes, whole));
            input.consume(whole);
        }
        std::fflush(stdout);
    }

    void onPacket(Client& client, const LogPacketHeader& header, std::string_view packet) {
        const std::string_view payload = packet.substr(sizeof header);
        switch (static_cast<LogCommand>(header.cmd)) {
            case LogCommand::Register:
                onRegister(client, payload);
                break;
            case LogCommand::Line:
                mStore.append(client.module, payload);
                forward(client.module, packet);
                break;
            case LogCommand::Flush:
                mStore.flush(client.module);
                break;
            case LogCommand::Subscribe:
                onSubscribe(client, payload);
                break;
            case LogCommand::Notify:
                std::fprintf(stderr, "%s notifies\n", client.name().c_str());
                break;
            case LogCommand::Text:
                std::fprintf(stderr, "%s says: %s\n", client.name().c_str(),
                             textOf(payload, sizeof(LogText::text)).c_str());
                break;
            default:
                std::fprintf(stderr, "%s sends command %u\n", client.name().c_str(), header.cmd);
        }
    }

    // A fixed field, of which the last byte may be part of the text.
    static std::string textOf(std::string_view payload, size_t fieldSize) {
        const std::string_view field = payload.substr(0, fieldSize);
        return std::string(field.substr(0, field.find('\0')));
    }

    static void onRegister(Client& client, std::string_view payload) {
        LogRegistration registration = {};
        std::memcpy(&registration, payload.data(), std::min(payload.size(), sizeof registration));
        client.module = textOf(payload, sizeof registration.moduleName);
        client.processId = registration.processId;
        std::fprintf(stderr, "%s is here\n", client.name().c_str());
    }

    static void onSubscribe(Client& client, std::string_view payload) {
        const std::string module = textOf(payload, sizeof(LogSubscription::moduleName));
        client.wanted.insert(module);
        LogText answer = {};
        std::snprintf(answer.text, sizeof answer.text, "subscribed to %s", module.c_str());
        LogPacketHeader header = {};
        header.magic = kLogPacketMagic;
        header.cmd = static_cast<uint32_t>(LogCommand::Text);
        header.size = sizeof answer;
        std::string packet(reinterpret_cast<const char*>(&header), sizeof header);
        packet.append(reinterpret_cast<const char*>(&answer), sizeof answer);
        client.connection->send(packet);
    }

    void forward(const std::string& module, std::string_view packet) {
        for (auto& [key, client] : mClients) {
            if (client.wanted.count(module) != 0) {
                client.connection->send(packet.data(), packet.size());
            }
        }
    }

    UnixServer mServer;
    Store mStore;
    std::map<const StreamConnection*, Client> mClients;
};

// The name of a server that was killed is still there, and may be taken over; not that of a living.
bool somebodyListens(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool answered =
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return answered;
}

}  // namespace

int main(int argc, char** argv) {
    std::string directory;
    std::string path = kLogServerPath;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--store" && i + 1 < argc) {
            directory = argv[++i];
        } else {
            path = argv[i];
        }
    }
    if (somebodyListens(path)) {
        std::fprintf(stderr, "log_server: another one listens on %s\n", path.c_str());
        return 1;
    }
    // Blocked before any thread starts, so that one of them can wait for them.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    EventLoop loop;
    LogServer server(&loop, directory);
    if (!server.start(path)) {
        std::perror(path.c_str());
        return 1;
    }
    std::printf("listening on %s\n", path.c_str());
    std::fflush(stdout);
    std::thread waiter([&] {
        int signal = 0;
        sigwait(&stop, &signal);
        loop.quit();
    });
    loop.loop();
    waiter.join();
}
