// JSON text of strangers: the input is the document.
#include <json/value.h>

#include "Vantel/Utils/JsonText.h"
#include "fuzz/Fuzz.h"

using namespace Vantel::Utils;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    Json::Value value("of before");
    if (!stringToJsonGroup(text, value)) {
        Fuzz::require(value.isNull(), "a refused document leaves nothing behind");
        return 0;
    }
    for (const bool styled : {true, false}) {
        if (styled && size > 512) {
            continue;  // the indentation of deep documents takes all the time
        }
        const std::string printed = jsonToString(value, styled);
        Json::Value again;
        Fuzz::require(stringToJsonGroup(printed, again), "what is printed can be read");
        // The writers cut a member's name at a zero byte, so that two names may become one.
        const bool names =
            text.find('\0') == std::string::npos && text.find("\\u0000") == std::string::npos;
        Fuzz::require(!names || jsonToString(again, styled) == printed, "and is the same");
    }
    Fuzz::require(jsonMerge(value, value) == value, "a document merged with itself is itself");
    Json::Value empty(Json::objectValue);
    Fuzz::require(jsonMerge(empty, value) == (value.isObject() ? value : empty),
                  "objects merge into an empty one, and nothing else does");
    return 0;
}
