#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

OrbelTest::LogCapture& captured() {
    static OrbelTest::LogCapture lines;
    return lines;
}

struct PipeFile {
    std::string name = "/tmp/" + OrbelTest::uniqueName("orbel_pipe");
    ~PipeFile() { unlink(name.c_str()); }
};

TEST(NamedPipe, PassesBytesAndDropsWhatDoesNotFit) {
    captured();  // the lines from here on
    const long descriptors = OrbelTest::openDescriptors();
    {
        PipeFile file;
        NamedPipe writer(file.name.c_str());
        char byte = 0;
        EXPECT_EQ(writer.read(&byte, 1), -1);
        EXPECT_EQ(writer.write(&byte, 1), -1);
        EXPECT_EQ(writer.getPipeSize(), -1);
        EXPECT_EQ(writer.setPipeSize(4096), -1);
        EXPECT_EQ(writer.getReadableSize(), -1);
        EXPECT_FALSE(writer.open(false, 4096)) << "nobody reads";
        EXPECT_TRUE(captured().has("]open named pipe " + file.name + " failed: No such device"));
        struct stat status {};
        EXPECT_EQ(stat(file.name.c_str(), &status), 0) << "the FIFO is there all the same";
        EXPECT_TRUE(S_ISFIFO(status.st_mode));

        NamedPipe reader(file.name.c_str());
        ASSERT_TRUE(reader.open(true, 4096));
        ASSERT_TRUE(reader.open(true, 65536)) << "open already";
        EXPECT_EQ(reader.getPipeSize(), 4096);
        ASSERT_TRUE(writer.open(false, 0xFFFFFFFF)) << "the size does not matter";
        EXPECT_TRUE(captured().has("]set pipe size failed: "));
        const int lines = static_cast<int>(captured().lines().size());
        EXPECT_EQ(reader.read(&byte, 1), -1);
        const std::string data(4000, 'x');
        EXPECT_EQ(writer.write(data.data(), 4000), 4000);
        EXPECT_EQ(writer.write(data.data(), 4000), 4000) << "lost, and not told";
        EXPECT_EQ(reader.getReadableSize(), 4000);
        std::string out(5000, '.');
        EXPECT_EQ(reader.read(out.data(), 5000), 4000);
        EXPECT_EQ(out, data + std::string(1000, '.'));
        EXPECT_EQ(static_cast<int>(captured().lines().size()), lines) << "silently";
    }
    EXPECT_EQ(OrbelTest::openDescriptors(), descriptors);
}

TEST(NamedPipe, AWriteWithoutReaderFailsAndRaisesNoSignal) {
    PipeFile file;
    NamedPipe writer(file.name.c_str());
    {
        NamedPipe reader(file.name.c_str());
        ASSERT_TRUE(reader.open(true, 4096));
        ASSERT_TRUE(writer.open(false, 4096));
    }
    EXPECT_EQ(writer.write("x", 1), -1);
    EXPECT_TRUE(captured().has("]write named pipe [" + file.name + "] failed: Broken pipe"));
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
    const unsigned long mKey = 0x52490000ul + static_cast<unsigned long>(getpid());
    char mOut[1024] = {};
};

TEST_F(ProcessQueueTest, PassesMessagesByTypeWithinItsSizes) {
    ProcessQueue queue(mKey);
    ProcessQueue& peer = queue;
    const std::string longest(1023, 'm');
    const size_t lines = captured().lines().size();
    EXPECT_FALSE(queue.send(1, longest.data(), 1024, 1));
    EXPECT_FALSE(queue.send(1, longest.data(), 0, 1));
    EXPECT_EQ(peer.recv(1, mOut, 1024, 1), -1);
    EXPECT_EQ(peer.recv(1, nullptr, 10, 1), -1);
    EXPECT_EQ(captured().lines().size(), lines) << "silently";

    EXPECT_TRUE(queue.send(1, longest.data(), 1023, 0));
    EXPECT_TRUE(queue.send(2, "two", 3, 1));
    EXPECT_EQ(peer.recv(2, mOut, 3, 0), 3);
    EXPECT_EQ(std::string(mOut), "two");
    EXPECT_EQ(peer.recv(1, mOut, 1022, 0), -1) << "too long for the buffer: stays";
    EXPECT_TRUE(captured().has("]send message with no wait failed: Argument list too long"));
    EXPECT_EQ(peer.recv(1, mOut, 1023, 0), 1023);
    EXPECT_EQ(std::string(mOut, 1023), longest);
    EXPECT_FALSE(queue.send(0, "x", 1, 1)) << "no type";
}

TEST_F(ProcessQueueTest, CountsItsTimeInSteps) {
    ProcessQueue queue(mKey);
    uint64_t start = CTime::getCurrentMilliSecond();
    EXPECT_EQ(queue.recv(7, mOut, 10, 25000), -1);
    EXPECT_GE(CTime::getCurrentMilliSecond() - start, 30u) << "three waits";
    EXPECT_TRUE(captured().has("]recv message timeout"));

    const std::string block(1000, 'b');
    int sent = 0;
    while (sent < 1000 && queue.send(1, block.data(), 1000, 1)) {
        ++sent;
    }
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 1000) << "never full";
    EXPECT_TRUE(captured().has("]send message timeout"));
    std::thread receiver([&] { EXPECT_EQ(queue.recv(1, mOut, 1023, 0), 1000); });
    EXPECT_TRUE(queue.send(1, block.data(), 1000, 0)) << "waits for room";
    receiver.join();
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
    EXPECT_TRUE(captured().has("]send message with no wait failed: Invalid argument"));
}

}  // namespace
