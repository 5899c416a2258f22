#include "Vantel/LoggerLimit.h"

#include <mutex>
#include <unordered_map>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/ThreadId.h"

namespace Vantel {

namespace {

/// What is known of one site; the four rules have a counter each.
struct LimitRecord {
    uint64_t lastMs;  // of its making, then of the last line that the rate limit let out
    uint32_t count = 0;
    uint16_t everyCount = 0;
    uint16_t afterCount = 0;
};

uint64_t nowMs() {
    return Orbel::CTime::getCurrentMilliSecond();
}

/// FNV-1a with 32 bits.
uint32_t hashOf(const char* text) {
    uint32_t hash = 0x811C9DC5;
    for (; *text != '\0'; ++text) {
        hash = (hash ^ static_cast<unsigned char>(*text)) * 16777619U;
    }
    return hash;
}

/// The site as the calling thread sees it; a null `file` is the empty name.
uint64_t keyOf(const char* file, uint32_t line) {
    const uint64_t hash = hashOf(file != nullptr ? file : "");
    const auto thread = static_cast<uint32_t>(Orbel::currentThreadId());
    const uint64_t mix = ((static_cast<uint64_t>(line) << 32) | thread) * 0x9E3779B9;
    return mix | (hash << 32);  // an or, not an exclusive or: some sites share a key, and may
}

/// The key is mixed already.
struct IdentityHash {
    size_t operator()(uint64_t key) const { return key; }
};

}  // namespace

class LoggerLimit::Internal {
public:
    /// Asks `rule` with the record of the site, which is made if need be, under the lock.
    template <class Rule>
    bool ask(const char* file, uint32_t line, Rule&& rule) {
        const uint64_t key = keyOf(file, line);
        const std::lock_guard guard(mMutex);
        auto found = mRecords.find(key);
        if (found == mRecords.end()) {
            found = mRecords.emplace(key, LimitRecord{nowMs()}).first;
        }
        return rule(found->second);
    }

    void forget(const char* file, uint32_t line) {
        const uint64_t key = keyOf(file, line);
        const std::lock_guard guard(mMutex);
        mRecords.erase(key);
    }

    void forgetAll() {
        const std::lock_guard guard(mMutex);
        mRecords.clear();
    }

    void forgetOlderThan(uint64_t maxAgeMs) {
        const std::lock_guard guard(mMutex);
        const uint64_t now = nowMs();  // under the lock: no record is younger
        std::erase_if(mRecords,
                      [&](const auto& entry) { return now - entry.second.lastMs > maxAgeMs; });
    }

private:
    std::mutex mMutex;
    std::unordered_map<uint64_t, LimitRecord, IdentityHash> mRecords;
};

LoggerLimit::LoggerLimit() : mInternal(std::make_unique<Internal>()) {}

LoggerLimit::~LoggerLimit() = default;

LoggerLimit& LoggerLimit::instance() {
    static LoggerLimit& limit = *new LoggerLimit;  // never destroyed: threads outlive main()
    return limit;
}

bool LoggerLimit::checkRateLimit(const char* file, uint32_t line, uint32_t intervalMs) {
    const uint64_t now = nowMs();
    return mInternal->ask(file, line, [&](LimitRecord& record) {
        // Unsigned: if the clock moves on before the record is made, this wraps and the first
        // line goes out. So be it.
        if (now - record.lastMs < intervalMs) {
            return false;
        }
        record.lastMs = now;
        return true;
    });
}

bool LoggerLimit::checkCountLimit(const char* file, uint32_t line, uint32_t maxCount) {
    return mInternal->ask(file, line, [&](LimitRecord& record) {
        if (record.count >= maxCount) {
            return false;
        }
        ++record.count;
        return true;
    });
}

bool LoggerLimit::checkEveryLimit(const char* file, uint32_t line, uint16_t every) {
    if (every == 0) {
        return true;
    }
    return mInternal->ask(file, line, [&](LimitRecord& record) {
        if (++record.everyCount < every) {
            return false;
        }
        record.everyCount = 0;
        return true;
    });
}

bool LoggerLimit::checkAfterLimit(const char* file, uint32_t line, uint16_t after) {
    if (after == 0) {
        return true;
    }
    return mInternal->ask(file, line,
                          [&](LimitRecord& record) { return ++record.afterCount > after; });
}

void LoggerLimit::reset(const char* file, uint32_t line) {
    mInternal->forget(file, line);
}

void LoggerLimit::resetAll() {
    mInternal->forgetAll();
}

void LoggerLimit::cleanup(uint64_t maxAgeMs) {
    mInternal->forgetOlderThan(maxAgeMs);
}

}  // namespace Vantel
