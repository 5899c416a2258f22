#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

#include "Vantel/Utils/JsonText.h"
#include "tests/file/Hardship.h"
#include "tests/file/TempDirectory.h"

namespace OrbelTest {

inline Json::Value json(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(Vantel::Utils::stringToJson(text, value)) << text;
    return value;
}

inline std::string nested(int levels, const std::string& open, const std::string& close) {
    std::string begin;
    std::string end = open == "[" ? "" : "1";
    for (int level = 0; level < levels; ++level) {
        begin += open;
        end += close;
    }
    return begin + end;
}

}  // namespace OrbelTest
