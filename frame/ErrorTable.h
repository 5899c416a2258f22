#pragma once

#include <map>
#include <string>

#include "Vantel/Orbel/CReadWriteMutex.h"
#include "Vantel/Orbel/TDelegate.h"

namespace Vantel::Orbel {

/// Error texts by code.
///
/// Threads: all methods from any thread, but install(), which takes no lock and so comes before
/// the first enter(). The translator runs under the lock for writing.
class ErrorTable {
public:
    using Translator = TDelegate<int, int, std::string&>;

    static ErrorTable& instance();

    void enter(int error, const char* message);
    const char* message(int error) const;
    const char* module(int error) const;
    bool install(Translator translator);

private:
    using Texts = std::map<int, std::string>;

    const char* find(const Texts& texts, int code) const;

    Texts mMessages;
    Texts mModules;  // nothing fills it: module names are looked up in vain, and meant to be
    Translator mTranslator;
    mutable CReadWriteMutex mLock;
};

}  // namespace Vantel::Orbel
