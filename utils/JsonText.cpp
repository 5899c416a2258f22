#include "Vantel/Utils/JsonText.h"

#include <json/json.h>

#include "utils/JsonNesting.h"

// The reader and both writers are deprecated, but what they accept and print is what documents of
// this family were written with.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace Vantel::Utils {

namespace {

bool parse(const char* begin, const char* end, Json::Value& value) {
    Json::Reader reader(Json::Features::strictMode());
    bool parsed = false;
    try {
        parsed = nestingFits(begin, end) && reader.parse(begin, end, value, true);
    } catch (const Json::Exception&) {
        // A scalar on level 1000 counts as one level more, which the parser refuses by a throw.
    }
    if (!parsed) {
        value = Json::Value();  // the parser leaves the part that it understood
    }
    return parsed;
}

void mergeInto(Json::Value& base, const Json::Value& overlay) {
    if (!base.isObject() || !overlay.isObject()) {
        return;
    }
    for (const std::string& name : overlay.getMemberNames()) {
        const Json::Value& over = overlay[name];
        if (base.isMember(name) && base[name].isObject() && over.isObject()) {
            mergeInto(base[name], over);
        } else {
            base[name] = over;
        }
    }
}

bool isGroup(const Json::Value& value) {
    return value.isObject() || value.isArray();
}

}  // namespace

bool stringToJson(const char* text, int size, Json::Value& value) {
    value = Json::Value();
    return text != nullptr && size >= 1 && parse(text, text + size, value);
}

bool stringToJson(const std::string& text, Json::Value& value) {
    value = Json::Value();
    return !text.empty() && parse(text.data(), text.data() + text.size(), value);
}

bool stringToJsonGroup(const char* text, int size, Json::Value& value) {
    return stringToJson(text, size, value) && isGroup(value);
}

bool stringToJsonGroup(const std::string& text, Json::Value& value) {
    return stringToJson(text, value) && isGroup(value);
}

std::string jsonToString(const Json::Value& value, bool styled) {
    return styled ? Json::StyledWriter().write(value) : Json::FastWriter().write(value);
}

Json::Value jsonMerge(const Json::Value& base, const Json::Value& overlay) {
    Json::Value merged = base;
    mergeInto(merged, overlay);
    return merged;
}

}  // namespace Vantel::Utils
