#include "frame/base/StringHash.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

using Vantel::Orbel::stringHash;

/// Fixed values, whatever the standard library, and with libstdc++ its own: all lengths of the
/// tail, and bytes above 127, which must not be taken as signed.
TEST(StringHashTest, IsTheOneThatOtherProcessesCompute) {
    EXPECT_EQ(stringHash(""), 0x553e93901e462a6eU);
    EXPECT_EQ(stringHash("camera/front/left"), 0xb883f7b27007c1fdU);
#ifdef __GLIBCXX__
    std::string text;
    for (int length = 0; length < 200; ++length) {
        ASSERT_EQ(stringHash(text), std::hash<std::string>{}(text)) << length;
        text += static_cast<char>(length * 37 + 130);
    }
#endif
}
