#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "tests/support/HelperProcess.h"
#include "tests/support/PrivateIpc.h"
#include "tests/support/TestName.h"

using OrbelTest::HelperProcess;

namespace {

using SharePacketExample = OrbelTest::PrivateIpcTest;

TEST_F(SharePacketExample, FramesAreReadInPlaceAndAKilledReadersFrameIsReclaimed) {
    const std::string path = "/tmp/" + OrbelTest::uniqueName("frames") + ".sock";
    HelperProcess sender("../examples/share_packet_sender", {path, "2"});
    ASSERT_TRUE(sender.waitForLine("waiting for 2 readers"));
    {
        HelperProcess reader("../examples/share_packet_reader", {path});
        EXPECT_TRUE(reader.waitForLine("frame 1: 307200 bytes, checksum ok"));
        EXPECT_EQ(reader.wait(), 0);
    }
    HelperProcess holder("../examples/share_packet_reader", {path, "hold"});
    ASSERT_TRUE(holder.waitForLine("frame 2: 307200 bytes, checksum ok"));
    ASSERT_TRUE(sender.waitForLine("sent frame 2: 307200 bytes, as 92"));
    EXPECT_FALSE(sender.waitForLine("all free", 2500)) << "taken from a living reader";
    holder.killAndReap();
    const auto killed = std::chrono::steady_clock::now();
    EXPECT_EQ(sender.wait(), 0) << "ends when all is free again, and with a living pool";
    // The cleaning comes round every second; tenfold for a busy machine.
    EXPECT_LT(std::chrono::steady_clock::now() - killed, std::chrono::seconds(20));
    unlink(path.c_str());
}

}  // namespace
