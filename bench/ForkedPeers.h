#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <vector>

/// Peer processes of a benchmark, forked while it has one thread. Each runs `work` and says over a
/// pipe when it is ready.
class ForkedPeers {
public:
    using Ready = std::function<void()>;

    /// `work` returns true if all that it got was right.
    void add(const std::function<bool(const Ready&)>& work) {
        int ready[2];
        if (pipe(ready) != 0) {
            return;
        }
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(work([&] { (void)!write(ready[1], "r", 1); }) ? 0 : 1);
        }
        char byte = 0;
        close(ready[1]);
        (void)!read(ready[0], &byte, 1);
        close(ready[0]);
        mPids.push_back(pid);
    }

    /// Waits for all; true if each of them was content.
    bool join() {
        bool good = true;
        for (const pid_t pid : mPids) {
            int status = -1;
            good = waitpid(pid, &status, 0) == pid && status == 0 && good;
        }
        mPids.clear();
        return good;
    }

    ~ForkedPeers() {
        for (const pid_t pid : mPids) {
            kill(pid, SIGKILL);
        }
        join();
    }

private:
    std::vector<pid_t> mPids;
};
