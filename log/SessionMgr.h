#pragma once

#include <memory>

namespace Json {
class Value;
}

namespace Vantel::Log {

class ISession;

/// Watches the descriptors of sessions on the one thread "ologPoller", and calls the sessions back
/// there. There is one in the process, never destroyed: its thread runs till the end.
///
/// Threads: any. Locks: a session may call in while it holds its own lock; the manager never calls
/// a session under its lock. So the order is session, then manager.
class SessionMgr {
public:
    /// Bits of a mode; 0 watches for nothing.
    static constexpr int kInput = 1;
    static constexpr int kOutput = 2;
    static constexpr int kDead = 4;  // watches for nothing; onTimer() about once a second

    static SessionMgr& instance();

    /// Starts the thread, once. "maxClients" of `config` is an integer.
    bool init(const Json::Value& config);
    bool add(std::shared_ptr<ISession> session, int mode);
    bool modify(int fd, int mode);
    bool remove(int fd);

private:
    class Internal;
    SessionMgr();
    ~SessionMgr();

    const std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Log
