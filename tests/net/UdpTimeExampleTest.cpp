#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/support/HelperProcess.h"

using OrbelTest::HelperProcess;

namespace {

TEST(UdpTimeExample, ClientGetsTheTimeAndEndsAlsoWithoutAServer) {
    std::string port;
    {
        HelperProcess server("../examples/udp_time_server", {"0"});
        ASSERT_TRUE(server.readLine(port));
        port = port.substr(port.rfind(':') + 1);
        for (int i = 0; i < 2; ++i) {
            HelperProcess client("../examples/udp_time_client", {port});
            std::string answer;
            ASSERT_TRUE(client.readLine(answer));
            int year = 0;
            int millisecond = -1;
            EXPECT_EQ(std::sscanf(answer.c_str(), "%4d-%*2d-%*2d %*2d:%*2d:%*2d.%3d", &year,
                                  &millisecond),
                      2)
                << answer;
            EXPECT_GT(year, 2000);
            EXPECT_EQ(client.wait(), 0);
        }
    }
    HelperProcess client("../examples/udp_time_client", {port});
    const int status = client.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
}

}  // namespace
