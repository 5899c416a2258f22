#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "log/LogClientImpl.h"

namespace OrbelTest {

constexpr int kLogHeader = 44;

/// A client, which stays till the end of the process, as every one does.
inline Vantel::Log::LogClientImpl& newLogClient() {
    static std::vector<Vantel::Log::LogClientImpl*> kept;
    return *kept.emplace_back(new Vantel::Log::LogClientImpl);
}

/// Sends `line` as the logger does.
inline int writeLine(Vantel::Log::LogClientImpl& client, const std::string& line) {
    std::string buffer = std::string(kLogHeader, 'x') + line;
    return client.write(buffer.data(), static_cast<int>(line.size()));
}

/// What a client received, as "<kind> <bytes>". Static, as the client may call to the end.
class Received {
public:
    void receiveOf(Vantel::Log::LogClientImpl& client) {
        client.setRecvCallback(&Received::onData, this);
    }
    size_t count() {
        const std::lock_guard guard(mMutex);
        return mAll.size();
    }
    bool has(const std::string& what) {
        const std::lock_guard guard(mMutex);
        return std::find(mAll.begin(), mAll.end(), what) != mAll.end();
    }
    std::vector<std::string> take() {
        const std::lock_guard guard(mMutex);
        return std::exchange(mAll, {});
    }

private:
    static void onData(int kind, void* user, const char* data, uint32_t size,
                       Vantel::Log::ILogClient*) {
        auto* const self = static_cast<Received*>(user);
        const std::lock_guard guard(self->mMutex);
        self->mAll.push_back(std::to_string(kind) + " " + std::string(data, size));
    }

    std::mutex mMutex;
    std::vector<std::string> mAll;
};

}  // namespace OrbelTest
