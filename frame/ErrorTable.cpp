#include "frame/ErrorTable.h"

#include <utility>

#include "frame/base/Guard.h"

namespace Vantel::Orbel {

ErrorTable& ErrorTable::instance() {
    static ErrorTable& table = *new ErrorTable;  // never destroyed: threads outlive main()
    return table;
}

void ErrorTable::enter(int error, const char* message) {
    WriteGuard<CReadWriteMutex> guard(mLock);
    std::string text;
    if (mTranslator.empty() || mTranslator(error, text) < 0) {
        text = message == nullptr ? "" : message;
    }
    mMessages[error] = std::move(text);
}

const char* ErrorTable::message(int error) const {
    return find(mMessages, error);
}

const char* ErrorTable::module(int error) const {
    constexpr unsigned kModuleBits = 0xFFFF0000;
    return find(mModules, static_cast<int>(static_cast<unsigned>(error) & kModuleBits));
}

bool ErrorTable::install(Translator translator) {
    if (!mTranslator.empty() || translator.empty()) {
        return false;
    }
    mTranslator = std::move(translator);
    return true;
}

/// The text itself and no copy: entries never move or go, so it lasts until it is assigned to.
const char* ErrorTable::find(const Texts& texts, int code) const {
    ReadGuard<CReadWriteMutex> guard(mLock);
    const auto found = texts.find(code);
    return found == texts.end() ? "" : found->second.c_str();
}

}  // namespace Vantel::Orbel
