#include "log/AsyncSignalHandler.h"

#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include "frame/base/RetryOnEintr.h"
#include "frame/base/ScopeExit.h"
#include "frame/base/UniqueFd.h"

namespace Vantel::Log {

namespace {

constexpr auto kLongestReport = std::chrono::seconds(10);
constexpr auto kWorkerRound = std::chrono::seconds(1);

/// The process whose signals have a thread that reports them; 0 for none.
std::atomic<pid_t> servedProcess{0};

bool readCommOf(int tid, char* name, size_t size) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%d/comm", tid);
    const Orbel::UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
    const ssize_t length = Orbel::retryOnEintr([&] { return read(file.get(), name, size - 1); });
    if (length <= 0) {
        return false;
    }
    name[length] = '\0';
    if (name[length - 1] == '\n') {
        name[length - 1] = '\0';
    }
    return true;
}

void noteThread(SignalInfo& info) {
    info.tid = gettid();
    if (prctl(PR_GET_NAME, info.threadName) == 0 ||
        readCommOf(info.tid, info.threadName, sizeof info.threadName)) {
        return;
    }
    std::snprintf(info.threadName, sizeof info.threadName, "Thread-%lu",
                  static_cast<unsigned long>(info.tid));
}

/// All signals but those that a fault of the thread itself raises.
sigset_t foreignSignals() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int fault : {SIGABRT, SIGSEGV, SIGILL, SIGFPE, SIGBUS, SIGSYS, SIGTRAP}) {
        sigdelset(&signals, fault);
    }
    return signals;
}

/// The signal is blocked while its handler runs: the process ends when the handler returns.
void raiseWithDefaultAction(int signo) {
    signal(signo, SIG_DFL);
    raise(signo);
}

}  // namespace

AsyncSignalHandler& AsyncSignalHandler::instance() {
    // Not destroyed: a late crash still comes here, and in a forked child the destructors would
    // wait for a thread that the child does not have.
    static auto* const handler = new AsyncSignalHandler;
    static const struct StopAtExit {
        ~StopAtExit() { handler->stop(); }
    } stopAtExit;
    return *handler;
}

bool AsyncSignalHandler::start() {
    if (mPid != 0 && mPid != getpid()) {
        return false;
    }
    const std::lock_guard guard(mMutex);
    if (mRunning) {
        return true;
    }
    // The first call loads a library and allocates, which is better not done in a crash.
    void* frame = nullptr;
    backtrace(&frame, 1);
    // The application's signals are for its own threads: it may yet block them, to wait for them.
    const sigset_t foreign = foreignSignals();
    pthread_sigmask(SIG_BLOCK, &foreign, &mReportMask);
    const Orbel::ScopeExit unblock([&] { pthread_sigmask(SIG_SETMASK, &mReportMask, nullptr); });
    mRunning = true;
    try {
        mThread = std::thread(&AsyncSignalHandler::work, this);
    } catch (const std::system_error&) {
        mRunning = false;
        return false;
    }
    const pid_t self = getpid();
    mPid = self;
    servedProcess = self;
    return true;
}

void AsyncSignalHandler::stop() {
    if (mPid != getpid()) {
        return;
    }
    {
        const std::lock_guard guard(mMutex);
        if (!mRunning) {
            return;
        }
        servedProcess = 0;
        mRunning = false;
    }
    mWorkCond.notify_all();
    mDoneCond.notify_all();
    if (mThread.get_id() == std::this_thread::get_id()) {
        mThread.detach();  // a crash callback that calls exit() brings us here
        return;
    }
    mThread.join();
}

void AsyncSignalHandler::setHandler(int signo, Report proc) {
    if (signo < 1 || !proc) {
        return;
    }
    const std::lock_guard guard(mMutex);
    mHandlers[signo] = std::move(proc);
    struct sigaction action {};
    action.sa_handler = &AsyncSignalHandler::onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(signo, &action, nullptr);
}

void AsyncSignalHandler::removeHandler(int signo) {
    if (signo < 1) {
        return;
    }
    const std::lock_guard guard(mMutex);
    mHandlers.erase(signo);
    signal(signo, SIG_DFL);
}

/// The signal handler, in the thread that is hit.
void AsyncSignalHandler::onSignal(int signo) {
    if (servedProcess != getpid()) {
        raiseWithDefaultAction(signo);  // nobody would report it
        return;
    }
    const int savedErrno = errno;
    instance().waitForReport(signo);
    errno = savedErrno;
}

void AsyncSignalHandler::waitForReport(int signo) {
    std::unique_lock lock(mMutex);
    if (mCount >= kRingSize) {
        return;  // nothing is raised: a fault comes again, until there is room
    }
    SignalInfo info{};
    info.signo = signo;
    info.frameCount = backtrace(info.frames, static_cast<int>(std::size(info.frames)));
    noteThread(info);
    mRing[mTail] = info;
    mTail = (mTail + 1) % kRingSize;
    ++mCount;
    mWorkCond.notify_one();
    mDoneCond.wait_for(lock, kLongestReport, [this] { return !mBusy && mCount == 0; });
    raiseWithDefaultAction(signo);
}

/// The reporting thread.
void AsyncSignalHandler::work() {
    prctl(PR_SET_NAME, "AsyncSignalHandler");  // the kernel keeps 15 characters
    std::unique_lock lock(mMutex);
    for (;;) {
        mWorkCond.wait_for(lock, kWorkerRound, [this] { return !mRunning || mCount > 0; });
        if (mCount == 0) {
            if (!mRunning) {
                return;
            }
            continue;
        }
        mBusy = true;
        SignalInfo info = mRing[mHead];
        mHead = (mHead + 1) % kRingSize;
        --mCount;
        const auto found = mHandlers.find(info.signo);
        const Report report = found != mHandlers.end() ? found->second : Report();
        lock.unlock();
        if (report) {
            // The commands of a report inherit the mask, and a debugger waits for its signals.
            pthread_sigmask(SIG_SETMASK, &mReportMask, nullptr);
            report(info);
            const sigset_t foreign = foreignSignals();
            pthread_sigmask(SIG_BLOCK, &foreign, nullptr);
        }
        lock.lock();
        mBusy = false;
        mDoneCond.notify_all();
    }
}

}  // namespace Vantel::Log
