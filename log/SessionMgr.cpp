#include "log/SessionMgr.h"

#include <fcntl.h>
#include <json/json.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "frame/base/UniqueFd.h"
#include "log/ISession.h"

namespace Vantel::Log {

namespace {

constexpr int kDefaultMaxClients = 128;
constexpr int kMinMaxClients = 64;
constexpr int kMaxEvents = 128;
constexpr int kTickMs = 1000;

uint32_t eventsOf(int mode) {
    return ((mode & SessionMgr::kInput) != 0 ? EPOLLIN | EPOLLPRI | EPOLLRDHUP : 0) |
           ((mode & SessionMgr::kOutput) != 0 ? uint32_t{EPOLLOUT} : 0);
}

int controlPoll(int pollFd, int operation, int fd, uint32_t events) {
    epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    return epoll_ctl(pollFd, operation, fd, &event);
}

}  // namespace

class SessionMgr::Internal {
public:
    struct Entry {
        int mode = 0;
        std::shared_ptr<ISession> session;
        bool watched =
            false;  // in the epoll set, which reports a hang-up even to who wants nothing
    };

    bool start(int maxClients);
    bool watch(int fd, Entry& entry, int mode) const;

    std::mutex mMutex;  // guards what follows, after start() but for the descriptors
    std::map<int, Entry> mEntries;
    Orbel::UniqueFd mPollFd;
    Orbel::UniqueFd mTimerFd;

private:
    bool addTimer();
    bool armTimer() const;
    bool startThread();
    [[noreturn]] void run();
    void dispatch(int fd, uint32_t events);
    void tick();
};

/// Makes the epoll set report what `mode` wants: a descriptor of which nothing is wanted is not in
/// it, or a dead one would wake the poller at once, again and again.
bool SessionMgr::Internal::watch(int fd, Entry& entry, int mode) const {
    const uint32_t events = eventsOf(mode);
    int result = 0;
    if (events != 0) {
        result =
            controlPoll(mPollFd.get(), entry.watched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, events);
        entry.watched = entry.watched || result == 0;
    } else if (entry.watched) {
        result = controlPoll(mPollFd.get(), EPOLL_CTL_DEL, fd, 0);
        entry.watched = false;
    }
    return result == 0;
}

bool SessionMgr::Internal::start(int maxClients) {
    const std::lock_guard guard(mMutex);
    if (mPollFd.valid()) {
        return true;
    }
    Orbel::UniqueFd pollFd(epoll_create(std::max(maxClients, kMinMaxClients)));
    if (!pollFd.valid()) {
        std::printf("Error, epoll create failed: %s \n", strerror(errno));
        return false;
    }
    fcntl(pollFd.get(), F_SETFD, FD_CLOEXEC);
    mPollFd = std::move(pollFd);
    if (!addTimer() || !startThread()) {
        mTimerFd.reset();
        mPollFd.reset();
        return false;
    }
    return true;
}

bool SessionMgr::Internal::addTimer() {
    mTimerFd.reset(timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!mTimerFd.valid() || !armTimer() ||
        controlPoll(mPollFd.get(), EPOLL_CTL_ADD, mTimerFd.get(), EPOLLIN | EPOLLET) != 0) {
        std::printf("add timer fd %d failed\n", mTimerFd.get());
        std::printf("Error, add timer event failed\n");
        return false;
    }
    return true;
}

/// Also makes the edge for the next event: nobody reads the timer.
bool SessionMgr::Internal::armTimer() const {
    const itimerspec second = {{1, 0}, {1, 0}};
    return timerfd_settime(mTimerFd.get(), 0, &second, nullptr) == 0;
}

bool SessionMgr::Internal::startThread() {
    // The application's signals are for its own threads. Those of a fault must get through to the
    // crash report.
    sigset_t blocked;
    sigset_t before;
    sigfillset(&blocked);
    for (const int fault : {SIGABRT, SIGSEGV, SIGILL, SIGFPE, SIGBUS, SIGSYS, SIGTRAP}) {
        sigdelset(&blocked, fault);
    }
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    bool started = true;
    try {
        std::thread([this] { run(); }).detach();
    } catch (const std::system_error& error) {
        std::printf("Error, cannot start ologPoller: %s\n", error.what());
        started = false;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

void SessionMgr::Internal::run() {
    pthread_setname_np(pthread_self(), "ologPoller");
    {
        const std::lock_guard guard(mMutex);  // start() has set the descriptors when this is ours
    }
    for (;;) {
        epoll_event events[kMaxEvents];
        const int count = epoll_wait(mPollFd.get(), events, kMaxEvents, kTickMs);
        if (count <= 0) {
            if (count < 0 && errno != EINTR) {
                usleep(kTickMs * 1000);  // somebody closed our descriptor: not at full speed
            }
            tick();
        }
        for (int i = 0; i < count; ++i) {
            dispatch(events[i].data.fd, events[i].events);
        }
    }
}

void SessionMgr::Internal::dispatch(int fd, uint32_t events) {
    if (fd == mTimerFd.get()) {
        tick();
        return;
    }
    std::shared_ptr<ISession> session;
    {
        const std::lock_guard guard(mMutex);
        const auto found = mEntries.find(fd);
        if (found == mEntries.end()) {
            std::printf("Error >>>>>>>>>>\n");
            return;
        }
        session = found->second.session;
    }
    if (session == nullptr) {
        std::printf(">>>>>>>>>>>>> panic >>>>>>>>>\n");
        return;
    }
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
        session->onReadable();  // a read finds what is wrong with the socket, too
    }
    if ((events & EPOLLOUT) != 0) {
        session->onWritable();
    }
}

void SessionMgr::Internal::tick() {
    std::vector<std::shared_ptr<ISession>> dead;
    {
        const std::lock_guard guard(mMutex);
        for (const auto& [fd, entry] : mEntries) {
            if ((entry.mode & kDead) != 0) {
                dead.push_back(entry.session);
            }
        }
    }
    for (const auto& session : dead) {
        session->onTimer();
    }
    armTimer();
}

SessionMgr::SessionMgr() : mInternal(std::make_unique<Internal>()) {}

SessionMgr::~SessionMgr() = default;

SessionMgr& SessionMgr::instance() {
    static auto* const manager = new SessionMgr;
    return *manager;
}

bool SessionMgr::init(const Json::Value& config) {
    const Json::Value maxClients =
        config.isObject() ? config.get("maxClients", kDefaultMaxClients) : kDefaultMaxClients;
    return mInternal->start(maxClients.isInt() ? maxClients.asInt() : kDefaultMaxClients);
}

bool SessionMgr::add(std::shared_ptr<ISession> session, int mode) {
    const int fd = session->fd();  // before the lock: the session takes its own
    if (fd < 0) {
        return false;
    }
    const std::lock_guard guard(mInternal->mMutex);
    Internal::Entry entry;
    entry.mode = mode;
    entry.session = std::move(session);
    const bool watched = mInternal->watch(fd, entry, mode);
    if (!watched) {
        std::printf("Error epoll control add failed pollFd = %d add fd = %d \n",
                    mInternal->mPollFd.get(), fd);
    }
    mInternal->mEntries[fd] = std::move(entry);  // kept unwatched as well: its owner may retry
    return watched;
}

bool SessionMgr::modify(int fd, int mode) {
    const std::lock_guard guard(mInternal->mMutex);
    const auto found = mInternal->mEntries.find(fd);
    if (found == mInternal->mEntries.end()) {
        std::printf("not found fd = %d session\n", fd);
        return false;
    }
    const bool watched = mInternal->watch(fd, found->second, mode);
    if (!watched) {
        std::printf("Error epoll control modify failed pollFd = %d modify fd = %d \n",
                    mInternal->mPollFd.get(), fd);
    }
    found->second.mode = mode;
    return watched;
}

bool SessionMgr::remove(int fd) {
    const std::lock_guard guard(mInternal->mMutex);
    const auto found = mInternal->mEntries.find(fd);
    if (found == mInternal->mEntries.end()) {
        std::printf("Error >>>>>>>>>>\n");
        return false;
    }
    const bool gone = mInternal->watch(fd, found->second, 0);
    if (!gone) {
        std::printf("Error failed >>>>>>>>>>>\n");
    }
    mInternal->mEntries.erase(found);
    return gone;
}

}  // namespace Vantel::Log
