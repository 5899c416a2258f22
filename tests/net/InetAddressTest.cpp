#include "Vantel/Orbel/InetAddress.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

#include "tests/support/LogCapture.h"

using namespace Vantel::Orbel;

TEST(InetAddressTest, TextForms) {
    const std::string path = "/tmp/some.socket";
    const struct {
        InetAddress addr;
        InetAddressType type;
        socklen_t length;
        std::string ip, ipPort, text;
        uint16_t port;
    } cases[] = {
        {InetAddress(), kIPv4, 0, "", "", "", 0},
        {InetAddress(80, "1.2.3.4"), kIPv4, 16, "1.2.3.4", "1.2.3.4:80", "1.2.3.4:80", 80},
        {InetAddress(443, "fe80::1", true), kIPv6, 28, "fe80::1", "[fe80::1]:443", "[fe80::1]:443",
         443},
        {InetAddress(path), kUnix, 110, "unix", path, "unix:" + path, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(c.addr.getType(), c.type);
        EXPECT_EQ(c.addr.getSockLen(), c.length);
        EXPECT_EQ(c.addr.isValid(), c.length != 0);
        EXPECT_EQ(c.addr.toIp(), c.ip);
        EXPECT_EQ(c.addr.toIpPort(), c.ipPort);
        EXPECT_EQ(c.addr.toString(), c.text);
        EXPECT_EQ(c.addr.toPort(), c.port);
    }
}

TEST(InetAddressTest, AFailedChangeLeavesTheInvalidAddress) {
    const OrbelTest::LogCapture log;
    const InetAddress zero;
    const std::string longest(107, 'x');
    InetAddress addr;
    const std::function<bool()> refused[] = {[&] { return addr.setIPv4(80, "1.2.3.400"); },
                                             [&] { return addr.setIPv6(80, "1.2.3.4"); },
                                             [&] { return addr.setUnix(longest + "x"); }};
    for (const auto& change : refused) {
        EXPECT_TRUE(addr.setUnix(longest));
        EXPECT_EQ(addr.getUnixPath(), longest);
        EXPECT_FALSE(change());
        EXPECT_EQ(std::memcmp(&addr, &zero, sizeof addr), 0);
    }
    EXPECT_TRUE(log.has("]inet_pton error for IPv4 1.2.3.400\n"));
    EXPECT_TRUE(log.has("]inet_pton error for IPv6 1.2.3.4\n"));
    EXPECT_EQ(log.lines().size(), 2u) << "a path that is too long is refused silently";
}

TEST(InetAddressTest, APathWithoutItsEndingZeroIsNotReadBeyond) {
    sockaddr_un raw{};
    raw.sun_family = AF_UNIX;
    std::memset(raw.sun_path, 'y', sizeof raw.sun_path);
    EXPECT_EQ(InetAddress(raw).getUnixPath(), std::string(108, 'y'));
}

TEST(InetAddressTest, Resolve) {
    const OrbelTest::LogCapture log;
    InetAddress addr;
    ASSERT_TRUE(InetAddress::resolve("127.0.0.1", 8080, &addr, false));
    EXPECT_EQ(addr.toIpPort(), "127.0.0.1:8080");
    ASSERT_TRUE(InetAddress::resolve("::1", &addr, true));
    EXPECT_EQ(addr.toIpPort(), "[::1]:0");
    EXPECT_FALSE(InetAddress::resolve("::1", 1, &addr, false)) << "of the wrong family";
    EXPECT_TRUE(log.has("]getaddrinfo error: "));
    errno = 0;
    EXPECT_FALSE(InetAddress::resolve("", 1, &addr, false));
    EXPECT_FALSE(InetAddress::resolve("127.0.0.1", 1, nullptr, false));
    EXPECT_EQ(errno, EINVAL);
}
