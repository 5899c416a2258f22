#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/NamedPipe.h"
#include "Vantel/Orbel/ProcessQueue.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/support/TestName.h"

using Vantel::Orbel::CTime;
using Vantel::Orbel::NamedPipe;
using Vantel::Orbel::ProcessQueue;

namespace {

class NamedPipeTest : public testing::Test {
protected:
    ~NamedPipeTest() override { unlink(mName.c_str()); }

    OrbelTest::LogCapture mLog;
    const std::string mName = "/tmp/" + OrbelTest::uniqueName("orbel_pipe");
};

TEST_F(NamedPipeTest, PassesBytesAndDropsWhatDoesNotFit) {
    const long descriptors = OrbelTest::openDescriptors();
    {
        NamedPipe writer(mName.c_str());
        char byte = 0;
        EXPECT_EQ(writer.read(&byte, 1), -1);
        EXPECT_EQ(writer.write(&byte, 1), -1);
        EXPECT_EQ(writer.getPipeSize(), -1);
        EXPECT_EQ(writer.setPipeSize(4096), -1);
        EXPECT_EQ(writer.getReadableSize(), -1);
        EXPECT_FALSE(writer.open(false, 4096)) << "nobody reads";
        EXPECT_TRUE(mLog.has("]open named pipe " + mName + " failed: No such device"));
        EXPECT_TRUE(std::filesystem::is_fifo(mName)) << "it is there all the same";

        NamedPipe reader(mName.c_str());
        ASSERT_TRUE(reader.open(true, 4096));
        ASSERT_TRUE(reader.open(true, 65536)) << "open already";
        EXPECT_EQ(reader.getPipeSize(), 4096);
        ASSERT_TRUE(writer.open(false, 0xFFFFFFFF)) << "the size does not matter";
        EXPECT_TRUE(mLog.has("]set pipe size failed: "));
        const size_t lines = mLog.lines().size();
        EXPECT_EQ(reader.read(&byte, 1), -1);
        const std::string data(4000, 'x');
        EXPECT_EQ(writer.write(data.data(), 4000), 4000);
        EXPECT_EQ(writer.write(data.data(), 4000), 4000) << "lost, and not told";
        EXPECT_EQ(reader.getReadableSize(), 4000);
        std::string out(5000, '.');
        EXPECT_EQ(reader.read(out.data(), 5000), 4000);
        EXPECT_EQ(out, data + std::string(1000, '.'));
        EXPECT_EQ(mLog.lines().size(), lines) << "silently";
    }
    EXPECT_EQ(OrbelTest::openDescriptors(), descriptors);
}

TEST_F(NamedPipeTest, AWriteWithoutReaderFailsAndRaisesNoSignal) {
    NamedPipe writer(mName.c_str());
    {
        NamedPipe reader(mName.c_str());
        ASSERT_TRUE(reader.open(true, 4096));
        ASSERT_TRUE(writer.open(false, 4096));
    }
    EXPECT_EQ(writer.write("x", 1), -1);
    EXPECT_TRUE(mLog.has("]write named pipe [" + mName + "] failed: Broken pipe"));
    EXPECT_FALSE(NamedPipe("/nonexistent/pipe").open(true, 4096));
}

TEST(NamedPipeDeathTest, HasAName) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(NamedPipe(nullptr), "Assertion");
    EXPECT_DEATH(NamedPipe(""), "Assertion");
}

class ProcessQueueTest : public testing::Test {
protected:
    ~ProcessQueueTest() override { msgctl(msgget(static_cast<key_t>(mKey), 0), IPC_RMID, nullptr); }

    OrbelTest::LogCapture mLog;
    const unsigned long mKey = 0x52490000ul + static_cast<unsigned long>(getpid());
    char mOut[1024] = {};
};

TEST_F(ProcessQueueTest, PassesMessagesByTypeWithinItsSizes) {
    ProcessQueue queue(mKey);
    const std::string longest(1023, 'm');
    const size_t lines = mLog.lines().size();
    EXPECT_FALSE(queue.send(1, longest.data(), 1024, 1));
    EXPECT_FALSE(queue.send(1, longest.data(), 0, 1));
    EXPECT_EQ(queue.recv(1, mOut, 1024, 1), -1);
    EXPECT_EQ(queue.recv(1, nullptr, 10, 1), -1);
    EXPECT_EQ(mLog.lines().size(), lines) << "silently";

    EXPECT_TRUE(queue.send(1, longest.data(), 1023, 0));
    EXPECT_TRUE(queue.send(2, "two", 3, 1));
    EXPECT_EQ(queue.recv(2, mOut, 3, 0), 3);
    EXPECT_EQ(std::string(mOut), "two");
    EXPECT_EQ(queue.recv(1, mOut, 1022, 0), -1) << "too long for the buffer: stays";
    EXPECT_TRUE(mLog.has("]send message with no wait failed: Argument list too long"));
    EXPECT_EQ(queue.recv(1, mOut, 1023, 0), 1023);
    EXPECT_EQ(std::string(mOut, 1023), longest);
    EXPECT_FALSE(queue.send(0, "x", 1, 1)) << "no type";
}

TEST_F(ProcessQueueTest, CountsItsTimeInSteps) {
    ProcessQueue queue(mKey);
    const uint64_t start = CTime::getCurrentMilliSecond();
    EXPECT_EQ(queue.recv(7, mOut, 10, 25000), -1);
    EXPECT_GE(CTime::getCurrentMilliSecond() - start, 30u) << "three waits";
    EXPECT_TRUE(mLog.has("]recv message timeout"));

    const std::string block(1000, 'b');
    int sent = 0;
    while (sent < 1000 && queue.send(1, block.data(), 1000, 1)) {
        ++sent;
    }
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 1000) << "never full";
    EXPECT_TRUE(mLog.has("]send message timeout"));
    const std::jthread receiver([&] { EXPECT_EQ(queue.recv(1, mOut, 1023, 0), 1000); });
    EXPECT_TRUE(queue.send(1, block.data(), 1000, 0)) << "waits for room";
}

TEST_F(ProcessQueueTest, OneHandleThatGoesTakesTheQueueFromAll) {
    ProcessQueue mine(mKey);
    int result = 0;
    std::thread waiting([&] { result = mine.recv(1, mOut, 10, 0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    { ProcessQueue other(mKey); }
    waiting.join();
    EXPECT_EQ(result, -1);
    EXPECT_FALSE(mine.send(1, "x", 1, 1));
    EXPECT_TRUE(mLog.has("]send message with no wait failed: Invalid argument"));
}

}  // namespace
