#include <gtest/gtest.h>

#include <string>

#include "tests/support/HelperProcess.h"

using OrbelTest::HelperProcess;

namespace {

TEST(EchoExample, ClientGetsItsTextBackAndEndsAlsoWithoutAServer) {
    std::string port;
    {
        HelperProcess server("../examples/echo_server", {"0"});
        ASSERT_TRUE(server.readLine(port));
        port = port.substr(port.rfind(':') + 1);
        for (const std::string text : {"hello robot", "again"}) {
            HelperProcess client("../examples/echo_client", {port, text});
            std::string answer;
            ASSERT_TRUE(client.readLine(answer));
            EXPECT_EQ(answer, text);
            EXPECT_EQ(client.wait(), 0);
        }
    }
    HelperProcess client("../examples/echo_client", {port, "nobody there"});
    const int status = client.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
}

}  // namespace
