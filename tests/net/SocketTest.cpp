#include "Vantel/Orbel/Socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/TcpSocket.h"
#include "Vantel/Orbel/UdpSocket.h"
#include "Vantel/Orbel/UnixStreamSocket.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/support/TestName.h"

using namespace OrbelTest;
using namespace Vantel::Orbel;

namespace {

/// Two connected TCP sockets on loopback.
struct TcpPair {
    TcpPair() {
        TcpSocket listener;
        EXPECT_TRUE(listener.bind(InetAddress::createLoopback4(0)) && listener.listen(1));
        EXPECT_TRUE(near.connect(listener.getLocalAddress(), 5000));
        EXPECT_TRUE(listener.waitReadable(5000, nullptr));
        far = listener.acceptConnection(&peer);
        EXPECT_TRUE(far);
    }

    TcpSocket near;
    std::unique_ptr<TcpSocket> far;
    InetAddress peer;
};

}  // namespace

TEST(SocketTest, AConnectionFromBirthToEndOfFile) {
    TcpPair pair;
    EXPECT_EQ(pair.peer.toIpPort(), pair.near.getLocalAddress().toIpPort());
    EXPECT_EQ(pair.near.getPeerAddress().toIpPort(),
              Socket::getLocalAddr(pair.far->fd()).toIpPort());
    for (const TcpSocket* socket : {&pair.near, pair.far.get()}) {
        EXPECT_EQ(socket->family(), AF_INET);
        EXPECT_EQ(socket->type(), SOCK_STREAM) << "without the creation flags";
        EXPECT_EQ(socket->protocol(), IPPROTO_TCP);
        EXPECT_TRUE(socket->isNonBlocking());
        EXPECT_EQ(fcntl(socket->fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    char hello[] = "hel", rest[] = "lo";
    const iovec out[] = {{hello, 3}, {rest, 2}};
    EXPECT_EQ(pair.near.writev(out, 2, 0), 5);
    char buffer[16] = {};
    EXPECT_EQ(pair.far->recvAll(buffer, 5, MSG_WAITALL, 5000), 5);
    EXPECT_STREQ(buffer, "hello");

    ASSERT_TRUE(pair.near.send("12345", 5, 0) == 5 && pair.near.shutdownWrite());
    EXPECT_EQ(pair.far->recvAll(buffer, 10, 0, 5000), -1);
    EXPECT_EQ(errno, ECONNRESET) << "the end came before the count was complete";
    EXPECT_STREQ(buffer, "12345");
}

TEST(SocketTest, SendAllKeepsItsTimeLimit) {
    LogCapture log;
    TcpPair pair;
    const std::vector<char> much(64 << 20);
    EXPECT_EQ(pair.near.sendAll(much.data(), much.size(), 0, 20), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(pair.near.sendAll(much.data(), 100000, 0, 0), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_TRUE(log.has("StreamSocket::send timeout, sent=0, len=100000, timeout=0ms\n"));
    EXPECT_EQ(pair.near.sendAll(much.data(), size_t{0x80000000}, 0, 0), -1);
    EXPECT_EQ(errno, EMSGSIZE);

    char byte;
    const size_t before = log.lines().size();
    EXPECT_EQ(pair.near.recvAll(&byte, 1, 0, 5), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(log.lines().size(), before) << "recvAll does not log";

    // A reader that comes late gets all of it.
    TcpPair other;
    std::vector<char> received(8 << 20);
    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(other.far->recvAll(received.data(), received.size(), 0, -1),
                  static_cast<ssize_t>(received.size()));
    });
    EXPECT_EQ(other.near.sendAll(much.data(), received.size(), 0, 30000),
              static_cast<ssize_t>(received.size()));
    reader.join();
}

TEST(SocketTest, SendingToADeadPeerRaisesNoSignal) {
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    TcpPair pair;
    ASSERT_TRUE(pair.near.shutdownWrite());
    const iovec vectors[] = {{const_cast<char*>("x"), 1}, {const_cast<char*>("y"), 1}};
    EXPECT_EQ(pair.near.send("x", 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(pair.near.writev(vectors, 1, 0), -1);
    EXPECT_EQ(pair.near.writev(vectors, 2, 0), -1);
    EXPECT_EQ(pair.near.sendAll("x", 1, 0, 0), -1);
}

TEST(SocketTest, WaitEvent) {
    TcpPair pair;
    int revents = -1;
    const struct {
        const char* why;
        int events, timeoutMs, error;
    } refused[] = {
        {"no event", 0, 0, EINVAL},
        {"unknown event", 4, 0, EINVAL},
        {"time-out below -1", Socket::kReadEvent, -2, EINVAL},
        {"nothing to read", Socket::kReadEvent, 1, ETIMEDOUT},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(c.why);
        EXPECT_FALSE(pair.near.waitEvent(c.events, c.timeoutMs, &revents));
        EXPECT_EQ(errno, c.error);
    }
    EXPECT_EQ(revents, 0) << "stored on time-out";
    EXPECT_TRUE(pair.near.waitEvent(Socket::kReadEvent | Socket::kWriteEvent, 0, &revents));
    EXPECT_EQ(revents, Socket::kWriteEvent);

    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    Socket writeEnd(pipeFds[1]);
    close(pipeFds[0]);
    EXPECT_FALSE(writeEnd.waitReadable(0, &revents)) << "POLLERR without the wanted event";
}

TEST(SocketTest, RefusesBadAddressesAndDevices) {
    const LogCapture log;
    TcpSocket tcp;
    UnixStreamSocket local;
    UdpSocket udp;
    const InetAddress none, unix("/tmp/x"), ip4 = InetAddress::createLoopback4(0),
                                            ip6 = InetAddress::createLoopback6(1);
    const struct {
        const char* line;
        int error;
        std::function<bool()> call;
    } cases[] = {
        {"bind failed: invalid socket address", EINVAL, [&] { return tcp.bind(none); }},
        {"bind failed: socket family 2 does not match address family 10", EAFNOSUPPORT,
         [&] { return tcp.bind(ip6); }},
        {"stream connect failed: socket family 2 does not match address family 10", EAFNOSUPPORT,
         [&] { return tcp.connect(ip6, 0); }},
        {"TcpSocket only supports IPv4/IPv6 peer addresses", EAFNOSUPPORT,
         [&] { return tcp.connect(unix, 0); }},
        {"UnixStreamSocket only supports Unix domain addresses", EAFNOSUPPORT,
         [&] { return local.bind(ip4); }},
        {"UnixStreamSocket only supports Unix domain addresses", EAFNOSUPPORT,
         [&] { return local.connect(ip4, 0); }},
        {"datagram sendTo failed: invalid socket address", EINVAL,
         [&] { return udp.sendTo("x", 1, none, 0) >= 0; }},
        {"datagram connect failed: socket family 2 does not match address family 10", EAFNOSUPPORT,
         [&] { return udp.connect(ip6); }},
        {"bindToDevice: device name cannot be empty", EINVAL, [&] { return tcp.bindToDevice(""); }},
        {"bindToDevice: device name too long (max 15 chars)", EINVAL,
         [&] { return tcp.bindToDevice(std::string(16, 'd')); }},
        {"bindToDevice failed for device 'nodevice': No such device", ENODEV,
         [&] { return tcp.bindToDevice("nodevice"); }},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(cases[i].line);
        errno = 0;
        EXPECT_FALSE(cases[i].call());
        EXPECT_EQ(errno, cases[i].error);
        ASSERT_EQ(log.lines().size(), i + 1);
        EXPECT_NE(log.lines()[i].second.find("]" + std::string(cases[i].line) + "\n"),
                  std::string::npos);
    }
}

TEST(SocketTest, ConnectThatIsNotDoneAtOnce) {
    LogCapture log;
    TcpSocket listener;
    ASSERT_TRUE(listener.bind(InetAddress::createLoopback4(0)) && listener.listen(1));
    TcpSocket later;
    EXPECT_FALSE(later.connect(listener.getLocalAddress(), 0));
    EXPECT_EQ(errno, EINPROGRESS);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(later.waitWritable(5000, nullptr));
    EXPECT_EQ(later.getSocketError(), 0);

    const InetAddress closed = listener.getLocalAddress();
    listener.close();
    TcpSocket refused;
    EXPECT_FALSE(refused.connect(closed, 5000));
    EXPECT_EQ(errno, ECONNREFUSED);
    UnixStreamSocket nobody;
    EXPECT_FALSE(nobody.connect(InetAddress("/tmp/" + uniqueName("nobody")), 1000));
    EXPECT_TRUE(log.has("]connect failed: No such file or directory\n"));
}

TEST(SocketTest, AFullUnixBacklogIsNoConnection) {
    const InetAddress addr("/tmp/" + uniqueName("backlog"));
    UnixStreamSocket listener;
    ASSERT_TRUE(listener.bind(addr) && listener.listen(0));
    std::vector<UnixStreamSocket> queued(8);
    size_t full = 0;
    while (full < queued.size() && queued[full].connect(addr, 0)) {
        ++full;
    }
    ASSERT_LT(full, queued.size());
    EXPECT_EQ(errno, EAGAIN) << "not in progress: the kernel has begun nothing";
    EXPECT_FALSE(queued[full].connect(addr, 10));
    EXPECT_EQ(errno, ETIMEDOUT);
    std::thread server([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        Socket accepted(listener.accept(nullptr));
        EXPECT_GE(accepted.fd(), 0);
    });
    EXPECT_TRUE(queued[full].connect(addr, 30000));
    EXPECT_EQ(queued[full].getPeerAddress().getUnixPath(), addr.getUnixPath());
    server.join();
    InetAddress::removeUnixSocketFile(addr.getUnixPath());
}

TEST(SocketTest, MovedFromAndClosedSocketsRefuseEverything) {
    const long before = openDescriptors();
    TcpSocket first;
    const int fd = first.fd();
    TcpSocket second(std::move(first));
    TcpSocket socket;
    socket = std::move(second);
    EXPECT_EQ(socket.fd(), fd);
    EXPECT_EQ(openDescriptors(), before + 1);
    EXPECT_TRUE(socket.close());
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(socket.type() | socket.family() | socket.protocol(), 0);

    char byte = 0;
    iovec vector{&byte, 1};
    const InetAddress addr = InetAddress::createLoopback4(1);
    const std::function<bool()> calls[] = {
        [&] { return socket.close(); },
        [&] { return socket.bind(addr); },
        [&] { return socket.connect(addr, 10); },
        [&] { return socket.listen(1); },
        [&] { return socket.accept(nullptr) >= 0; },
        [&] { return socket.shutdownBoth(); },
        [&] { return socket.send(&byte, 1, 0) >= 0; },
        [&] { return socket.recv(&byte, 1, 0) >= 0; },
        [&] { return socket.recvAll(&byte, 0, 0, 0) >= 0; },
        [&] { return socket.readv(&vector, 1) >= 0; },
        [&] { return socket.writev(&vector, 1, 0) >= 0; },
        [&] { return socket.setNonBlocking(true); },
        [&] { return socket.setCloseOnExec(true); },
        [&] { return socket.setReuseAddr(true); },
        [&] { return socket.setTcpNoDelay(true); },
        [&] { return socket.waitReadable(0, nullptr); },
        [&] { return socket.getLocalAddress().isValid(); },
        [&] { return socket.getRecvBufSize() >= 0; },
        [&] { return TcpSocket(12345, true).fd() >= 0; },
        [&] { return TcpSocket().send(nullptr, 1, 0) >= 0; },
        [&] { return TcpSocket().writev(nullptr, 1, 0) >= 0; },
    };
    for (size_t i = 0; i < std::size(calls); ++i) {
        errno = 0;
        EXPECT_FALSE(calls[i]()) << "call " << i;
        EXPECT_NE(errno, 0) << "call " << i;
    }
}

TEST(SocketTest, OptionsReachTheKernelUnderTheirNames) {
    TcpSocket socket;
    const struct {
        bool set;
        int level, name, value;
    } cases[] = {
        {socket.setReuseAddr(true), SOL_SOCKET, SO_REUSEADDR, 1},
        {socket.setReusePort(true), SOL_SOCKET, SO_REUSEPORT, 1},
        {socket.setKeepAlive(true), SOL_SOCKET, SO_KEEPALIVE, 1},
        {socket.setTcpNoDelay(true), IPPROTO_TCP, TCP_NODELAY, 1},
        {socket.setKeepIdle(7), IPPROTO_TCP, TCP_KEEPIDLE, 7},
        {socket.setKeepInterval(8), IPPROTO_TCP, TCP_KEEPINTVL, 8},
        {socket.setKeepCount(9), IPPROTO_TCP, TCP_KEEPCNT, 9},
        {socket.setRecvBufSize(50000), SOL_SOCKET, SO_RCVBUF, 100000},
        {socket.setSendBufSize(60000), SOL_SOCKET, SO_SNDBUF, 120000},
        {socket.setRecvTimeout(3000), SOL_SOCKET, SO_RCVTIMEO, 3},  // the seconds of a timeval
        {socket.setSendTimeout(4000), SOL_SOCKET, SO_SNDTIMEO, 4},
    };
    for (const auto& c : cases) {
        int value[4] = {-1};
        unsigned length = sizeof value;
        EXPECT_TRUE(c.set && socket.getSocketOption(c.level, c.name, value, &length)) << c.name;
        EXPECT_EQ(value[0], c.value) << c.name;
    }
    EXPECT_FALSE(socket.setSendTimeout(-1));
    EXPECT_EQ(errno, EINVAL);
}

TEST(SocketTest, AUnixDatagramSocketReplacesTheFileOfADeadOne) {
    const InetAddress path("/tmp/" + uniqueName("datagram"));
    DatagramSocket(AF_UNIX, true).bind(path);
    EXPECT_TRUE(DatagramSocket(AF_UNIX, true).bind(path));
    InetAddress::removeUnixSocketFile(path.getUnixPath());
}

TEST(SocketTest, Multicast) {
    for (const int family : {AF_INET, AF_INET6}) {
        UdpSocket socket(family, true);
        EXPECT_TRUE(socket.setMulticastTTL(255) && socket.setMulticastLoop(false));
        EXPECT_FALSE(socket.setMulticastTTL(256) || socket.setMulticastTTL(-1));
        EXPECT_EQ(errno, EINVAL);
    }
    UdpSocket socket;
    EXPECT_TRUE(socket.setBroadcast(true));
    const InetAddress group(0, "239.1.2.3"), loopback = InetAddress::createLoopback4(0);
    EXPECT_TRUE(socket.joinMulticastGroup(group, &loopback));
    EXPECT_TRUE(socket.leaveMulticastGroup(group, &loopback));
    EXPECT_FALSE(socket.joinMulticastGroup(InetAddress("/tmp/x"), nullptr));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(socket.joinMulticastGroup(InetAddress(), nullptr));
    EXPECT_EQ(errno, EAFNOSUPPORT);
}
