#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include "tests/support/HelperProcess.h"

using OrbelTest::HelperProcess;

namespace {

TEST(NetExamples, ClientsGetTheirAnswerAndEndAlsoWithoutAServer) {
    const struct {
        std::string server, client;
        std::vector<std::string> arguments;
        std::string answer;  // with # for each digit
    } examples[] = {
        {"echo_server", "echo_client", {"hello robot"}, "hello robot"},
        {"udp_time_server", "udp_time_client", {}, "####-##-## ##:##:##.###"},
    };
    for (const auto& example : examples) {
        SCOPED_TRACE(example.server);
        std::vector<std::string> arguments;
        {
            HelperProcess server("../examples/" + example.server, {"0"});
            std::string port;
            ASSERT_TRUE(server.readLine(port));
            arguments = {port.substr(port.rfind(':') + 1)};
            arguments.insert(arguments.end(), example.arguments.begin(), example.arguments.end());
            for (int i = 0; i < 2; ++i) {
                HelperProcess client("../examples/" + example.client, arguments);
                std::string answer;
                ASSERT_TRUE(client.readLine(answer));
                std::replace_if(answer.begin(), answer.end(), isdigit, '#');
                EXPECT_EQ(answer, example.answer);
                EXPECT_EQ(client.wait(), 0);
            }
        }
        const int status = HelperProcess("../examples/" + example.client, arguments).wait();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    }
}

}  // namespace
