#include "Vantel/Orbel/UnixStreamSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "frame/base/UniqueFd.h"
#include "net/ControlMessage.h"
#include "tests/net/SocketPair.h"
#include "tests/support/OpenDescriptors.h"

using namespace Vantel::Orbel;

namespace {

class UnixStreamSocketTest : public testing::Test, protected OrbelTest::SocketPair {
protected:
    ~UnixStreamSocketTest() override {
        EXPECT_EQ(OrbelTest::openDescriptors(), mBefore) << "descriptors leaked";
    }

    static bool sameFile(int a, int b) {
        struct stat left, right;
        return fstat(a, &left) == 0 && fstat(b, &right) == 0 && left.st_ino == right.st_ino &&
               left.st_dev == right.st_dev;
    }

    UniqueFd file{open("/dev/null", O_RDONLY | O_CLOEXEC)};

private:
    const long mBefore = OrbelTest::openDescriptors();
};

TEST_F(UnixStreamSocketTest, ADescriptorTravelsWithAByte) {
    EXPECT_EQ(near.sendFd(file.get(), nullptr, 0), 1);
    int received = -2;
    char buffer[8];
    EXPECT_EQ(far.recvFd(&received, buffer, sizeof buffer), 1);
    UniqueFd owned(received);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_TRUE(sameFile(owned.get(), file.get()));
    EXPECT_EQ(fcntl(owned.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);

    EXPECT_EQ(near.sendFd(-1, "abc", 3), 3) << "without one, just bytes";
    EXPECT_EQ(far.recvFd(&received, buffer, sizeof buffer), 3);
    EXPECT_EQ(received, -1);
    EXPECT_EQ(far.recvFd(nullptr, buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(UnixStreamSocketTest, MoreDescriptorsThanRoom) {
    const std::vector<int> sent(253, file.get());
    const struct {
        size_t sent, room;
        ssize_t result;
        size_t taken;
    } cases[] = {
        {1, 0, -1, 0}, {1, 1, 1, 1},  {2, 1, 1, 1},  // alignment lets the second in: it is closed
        {3, 1, -1, 0}, {5, 4, -1, 0}, {4, 3, 1, 3}, {0, 3, 1, 0}, {253, 253, 1, 253},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.sent << " for " << c.room);
        ASSERT_EQ(near.sendWithFds("x", 1, sent.data(), c.sent, 0), 1);
        std::vector<int> fds(253, -7);
        size_t count = 99;
        char byte;
        errno = 0;
        EXPECT_EQ(far.recvWithFds(&byte, 1, fds.data(), c.room, &count, 0), c.result);
        EXPECT_EQ(errno, c.result < 0 ? EMSGSIZE : 0);
        EXPECT_EQ(count, c.taken);
        for (size_t i = 0; i < fds.size(); ++i) {
            UniqueFd owned(fds[i] >= 0 ? fds[i] : -1);
            EXPECT_EQ(owned.valid(), i < c.taken);
            EXPECT_EQ(fds[i] == -7, i >= std::min(c.room, c.sent)) << "slot " << i;
        }
    }
}

TEST_F(UnixStreamSocketTest, ReadingNoBytesStillLosesNoDescriptor) {
    ASSERT_EQ(near.sendFd(file.get(), nullptr, 0), 1);
    int fd = -1;
    size_t count = 99;
    EXPECT_EQ(far.recvWithFds(nullptr, 0, &fd, 1, &count, 0), 0);
    EXPECT_EQ(count, 0u);
}

TEST_F(UnixStreamSocketTest, RefusesBadArguments) {
    const std::vector<int> fds(254, near.fd());
    const int closed = 9999;
    const struct {
        const char* why;
        const void* buffer;
        size_t length;
        const int* fds;
        size_t count;
        int error;
    } cases[] = {
        {"null buffer", nullptr, 1, nullptr, 0, EINVAL},
        {"null descriptors", "x", 1, nullptr, 1, EINVAL},
        {"descriptors without a byte", nullptr, 0, fds.data(), 1, EINVAL},
        {"more than the kernel takes", "x", 1, fds.data(), 254, EINVAL},
        {"not open", "x", 1, &closed, 1, EBADF},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        errno = 0;
        EXPECT_EQ(near.sendWithFds(c.buffer, c.length, c.fds, c.count, 0), -1);
        EXPECT_EQ(errno, c.error);
    }
}

TEST_F(UnixStreamSocketTest, Credentials) {
    EXPECT_TRUE(far.setPassCred(true));
    ASSERT_TRUE(near.sendCredentials(getpid(), getuid(), getgid()));
    int pid = 0;
    unsigned uid = 99, gid = 99;
    ASSERT_TRUE(far.recvCredentials(&pid, &uid, &gid));
    EXPECT_EQ(pid, getpid());
    EXPECT_EQ(uid, getuid());
    EXPECT_EQ(gid, getgid());

    EXPECT_FALSE(far.recvCredentials(&pid, &uid, &gid)) << "nothing there";
    EXPECT_TRUE(far.setPassCred(false));
    ASSERT_EQ(near.send("x", 1, 0), 1);
    EXPECT_FALSE(far.recvCredentials(&pid, &uid, &gid)) << "a byte without credentials";
    ASSERT_EQ(near.sendFd(file.get(), nullptr, 0), 1);
    EXPECT_FALSE(far.recvCredentials(&pid, &uid, &gid)) << "a descriptor instead: closed";
    EXPECT_TRUE(UnixStreamSocket(-1).setPassCred(true)) << "whatever the outcome";
}

/// What the kernel never builds, but a caller's buffer may hold.
TEST(ControlMessageTest, LengthsBeyondTheBufferAreNotBelieved) {
    DescriptorControl<4> control{};
    msghdr header{};
    int fds[4] = {dup(0), dup(0), dup(0), dup(0)};
    attachDescriptors(header, control, fds, 4);
    CMSG_FIRSTHDR(&header)->cmsg_len = 100000;
    int visited = 0;
    forEachDescriptor(header, [&](int fd) { EXPECT_EQ(fd, fds[visited++]); });
    EXPECT_EQ(visited, 4);
    CMSG_FIRSTHDR(&header)->cmsg_len = 3;
    forEachDescriptor(header, [](int) { ADD_FAILURE() << "shorter than its own head"; });
    CMSG_FIRSTHDR(&header)->cmsg_len = CMSG_LEN(sizeof fds);
    const int first = takeFirstDescriptor(header);
    EXPECT_EQ(first, fds[0]);
    EXPECT_EQ(fcntl(fds[1], F_GETFD), -1) << "the others are closed";
    close(first);
    header.msg_controllen = 0;
    EXPECT_EQ(takeFirstDescriptor(header), -1);
}

}  // namespace
