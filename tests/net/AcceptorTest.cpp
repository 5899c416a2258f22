#include "Vantel/Orbel/Acceptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <string>

#include "tests/net/StreamTestSupport.h"
#include "tests/support/HelperProcess.h"

using namespace OrbelTest;
using Vantel::Orbel::Acceptor;
using Vantel::Orbel::UniqueFd;

namespace {

class AcceptorTest : public testing::Test {
protected:
    EventLoop loop;
    std::unique_ptr<Acceptor> acceptor = std::make_unique<Acceptor>(&loop);
};

TEST_F(AcceptorTest, ListensOnceAndWithoutCallbackClosesConnections) {
    ASSERT_TRUE(acceptor->initial(freshAddress(Family::Tcp), "", false));
    EXPECT_TRUE(acceptor->listen() && acceptor->listen());
    EXPECT_FALSE(acceptor->initial(acceptor->listenAddr(), "", false)) << "while listening";
    Peer dropped(acceptor->listenAddr());
    EXPECT_TRUE(runUntil(loop, [&] { return dropped.ended(0); }));
}

TEST_F(AcceptorTest, RefusedAddressLeavesNoListener) {
    const long before = openDescriptors();
    EXPECT_FALSE(acceptor->listen()) << "never bound";
    EXPECT_FALSE(acceptor->initial(InetAddress(), "", false)) << "no address";
    EXPECT_FALSE(acceptor->initial(freshAddress(Family::Tcp), std::string(40, 'x'), false));
    EXPECT_FALSE(acceptor->listen()) << "a failed bind must not leave a socket to listen on";
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(AcceptorTest, ReplacesASocketFileButNoOtherFile) {
    const InetAddress addr = freshAddress(Family::Unix);
    const std::string path = addr.getUnixPath();
    {
        PeerListener stale(addr);  // bound in the way of a process that died
        EXPECT_TRUE(acceptor->initial(addr, "", false));
    }
    ::unlink(path.c_str());
    const UniqueFd file(::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    EXPECT_FALSE(acceptor->initial(addr, "", false));
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(::unlink(path.c_str()), 0) << "the file was removed";
}

/// Without a descriptor left each connection is hung up on and reported once, and the loop sleeps
/// in between; with descriptors again the acceptor serves on.
TEST(AcceptorExhaustionTest, DropsEachPendingConnectionOnceAndRecovers) {
    HelperProcess helper("AcceptorExhaustionHelper", {});
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
