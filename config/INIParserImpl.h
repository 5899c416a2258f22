#pragma once

#include <string>
#include <utility>

#include "Vantel/INI/INIParser.h"

namespace Vantel::INI {

class INIParserImpl : public INIParser {
public:
    INIParserImpl(std::string file, std::string section)
        : mFile(std::move(file)), mSection(std::move(section)) {}

    bool read() override { return true; }
    bool write() override { return true; }
    const std::string& getValue(const char* /*key*/) override { return mValue; }
    bool setValue(const char* /*key*/, const char* /*value*/) override { return true; }
    bool removeValue(const char* /*key*/) override { return true; }

private:
    std::string mFile;
    std::string mSection;
    std::string mValue;  // stays empty
};

}  // namespace Vantel::INI
