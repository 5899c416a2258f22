#include "Vantel/Orbel/Acceptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "StreamTestSupport.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace OrbelTest;
using Vantel::Orbel::Acceptor;
using Vantel::Orbel::UniqueFd;

namespace {

class AcceptorTest : public testing::TestWithParam<Family> {
protected:
    ~AcceptorTest() override {
        if (mAddr.family() == AF_UNIX) {
            ::unlink(mAddr.getUnixPath().c_str());
        }
    }
    std::unique_ptr<Acceptor> makeListening(EventLoop* loop) {
        auto acceptor = std::make_unique<Acceptor>(loop);
        EXPECT_TRUE(acceptor->initial(mAddr, "", false));
        EXPECT_TRUE(acceptor->listen());
        return acceptor;
    }

    const InetAddress mAddr = freshAddress(GetParam());
};

TEST_P(AcceptorTest, HandsOutEachConnectionAndWithoutCallbackClosesIt) {
    LoopThread loop;
    std::unique_ptr<Acceptor> acceptor;
    std::atomic<int> accepted{0};
    loop.run([&] {
        acceptor = makeListening(loop.get());
        EXPECT_TRUE(acceptor->listen()) << "second call";
        EXPECT_FALSE(acceptor->initial(mAddr, "", false)) << "while listening";
    });
    const InetAddress bound = acceptor->listenAddr();
    EXPECT_TRUE(GetParam() == Family::Unix || bound.toPort() != 0);

    Peer dropped(bound);
    ASSERT_TRUE(dropped.connected());
    EXPECT_TRUE(dropped.ended());

    loop.run([&] {
        acceptor->setNewConnectionCallback([&](int fd, const InetAddress& peer) {
            const UniqueFd owned(fd);
            EXPECT_EQ(peer.family() == AF_UNIX, GetParam() == Family::Unix);
            EXPECT_TRUE((fcntl(fd, F_GETFL) & O_NONBLOCK) && (fcntl(fd, F_GETFD) & FD_CLOEXEC));
            ++accepted;
        });
    });
    std::vector<Peer> peers;
    for (int i = 0; i < 200; ++i) {  // more than the backlog
        peers.emplace_back(bound);
        ASSERT_TRUE(peers.back().connected());
    }
    EXPECT_TRUE(waitFor([&] { return accepted == 200; })) << accepted;
    acceptor.reset();  // another thread than the loop's
    EXPECT_FALSE(Peer(bound).connected()) << "still listening";
}

TEST_P(AcceptorTest, RefusedAddressLeavesNoListener) {
    EventLoop loop;
    const long before = openDescriptors();
    {
        Acceptor acceptor(&loop);
        EXPECT_FALSE(acceptor.listen()) << "never bound";
        EXPECT_FALSE(acceptor.initial(InetAddress(), "", false)) << "no address";
        EXPECT_FALSE(acceptor.initial(mAddr, std::string(40, 'x'), false)) << "no such device";
        EXPECT_FALSE(acceptor.listen()) << "a failed bind must not leave a socket to listen on";
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_P(AcceptorTest, MayBeDestroyedInItsOwnCallback) {
    LoopThread loop;
    std::unique_ptr<Acceptor> acceptor;
    InetAddress bound;
    std::atomic<int> accepted{0};
    std::vector<Peer> peers;
    loop.run([&] {
        acceptor = makeListening(loop.get());
        bound = acceptor->listenAddr();
        acceptor->setNewConnectionCallback([&](int fd, const InetAddress&) {
            const UniqueFd owned(fd);
            ++accepted;
            acceptor.reset();
        });
        for (int i = 0; i < 3; ++i) {
            peers.emplace_back(bound);
        }
    });
    for (Peer& peer : peers) {
        EXPECT_TRUE(peer.ended());
    }
    loop.run([] {});
    EXPECT_EQ(accepted, 1) << "accepted after its end";
}

TEST_P(AcceptorTest, DestroyedBesideALoopThatDoesNotRunClosesWithTheLoop) {
    const long before = openDescriptors();
    {
        EventLoop loop;
        auto acceptor = makeListening(&loop);
        const InetAddress bound = acceptor->listenAddr();
        std::thread([&] { acceptor.reset(); }).join();
        EXPECT_TRUE(Peer(bound).connected()) << "the listener waits for its loop";
    }
    EXPECT_EQ(openDescriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(Families, AcceptorTest, testing::Values(Family::Tcp, Family::Unix),
                         [](const auto& i) { return i.param == Family::Tcp ? "Tcp" : "Unix"; });

TEST(AcceptorUnixTest, ReplacesASocketFileButNoOtherFile) {
    const InetAddress addr = freshAddress(Family::Unix);
    const std::string path = addr.getUnixPath();
    EventLoop loop;
    {
        PeerListener stale(addr);  // bound in the way of a process that died
        Acceptor acceptor(&loop);
        EXPECT_TRUE(acceptor.initial(addr, "", false));
    }
    ::unlink(path.c_str());
    const UniqueFd file(::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    Acceptor acceptor(&loop);
    EXPECT_FALSE(acceptor.initial(addr, "", false));
    EXPECT_EQ(errno, EADDRINUSE);
    struct stat status = {};
    EXPECT_TRUE(::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode));
    ::unlink(path.c_str());
}

/// Without a descriptor left each connection is hung up on and reported once, and the loop sleeps
/// in between; with descriptors again the acceptor serves on.
TEST(AcceptorExhaustionTest, DropsEachPendingConnectionOnceAndRecovers) {
    HelperProcess helper("AcceptorExhaustionHelper", {"40"});
    std::string line;
    ASSERT_TRUE(helper.readLine(line));
    const InetAddress addr = InetAddress::createLoopback4(static_cast<uint16_t>(std::stoi(line)));
    const auto order = [&](const std::string& text) {
        return helper.writeLine(text) && helper.readLine(line) ? line : "no answer";
    };
    EXPECT_EQ(Peer(addr).receive(5), "hello");
    EXPECT_EQ(order("hoard"), "dropped 0 accepted 1");
    for (int i = 0; i < 5; ++i) {
        Peer peer(addr);
        ASSERT_TRUE(peer.connected());
        EXPECT_TRUE(peer.ended());
    }
    EXPECT_EQ(order("free"), "dropped 5 accepted 1");
    EXPECT_EQ(Peer(addr).receive(5), "hello");
    EXPECT_EQ(order("free"), "dropped 5 accepted 2");
}

}  // namespace
