#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

namespace OrbelTest {

/// A helper program that stands beside the test program, started with exec (never a bare fork),
/// its standard input and output connected to the test. Killed and reaped by the destructor.
class HelperProcess {
public:
    explicit HelperProcess(const std::string& program, const std::vector<std::string>& args = {}) {
        int toChild[2] = {-1, -1};
        int fromChild[2] = {-1, -1};
        if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, toChild[0], 0);
        posix_spawn_file_actions_adddup2(&actions, fromChild[1], 1);
        const std::string path = directory() + "/" + program;
        std::vector<char*> argv{const_cast<char*>(path.c_str())};
        for (const std::string& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        if (posix_spawn(&mPid, path.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
            mPid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(toChild[0]);
        close(fromChild[1]);
        mIn = toChild[1];
        mOut = fromChild[0];
    }
    HelperProcess(const HelperProcess&) = delete;
    HelperProcess& operator=(const HelperProcess&) = delete;
    ~HelperProcess() {
        killAndReap();
        close(mIn);
        close(mOut);
    }

    pid_t pid() const { return mPid; }

    /// Reads lines until one equals `line`; false on end of output or after `deadlineMs`.
    bool waitForLine(const std::string& line, int deadlineMs = 30000) {
        std::string got;
        while (readLine(got, deadlineMs)) {
            if (got == line) {
                return true;
            }
        }
        return false;
    }

    /// The next line of the helper's standard output, without its newline.
    bool readLine(std::string& line, int deadlineMs = 30000) {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
        for (;;) {
            const size_t end = mPending.find('\n');
            if (end != std::string::npos) {
                line = mPending.substr(0, end);
                mPending.erase(0, end + 1);
                return true;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd readable{mOut, POLLIN, 0};
            if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) < 1) {
                return false;
            }
            char bytes[4096];
            const ssize_t count = read(mOut, bytes, sizeof bytes);
            if (count <= 0) {
                return false;
            }
            mPending.append(bytes, static_cast<size_t>(count));
        }
    }

    /// Writes one line to the helper's standard input.
    bool writeLine(const std::string& line) {
        const std::string text = line + "\n";
        return write(mIn, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

    /// Writes a command and reads the line that answers it.
    std::string ask(const std::string& command) {
        std::string answer;
        return writeLine(command) && readLine(answer) ? answer : "no answer";
    }

    /// Ends the helper's standard input.
    void closeInput() {
        close(mIn);
        mIn = -1;
    }

    /// kill -9, then waits for the process to be gone.
    void killAndReap() {
        if (mPid > 0) {
            kill(mPid, SIGKILL);
            wait();
        }
    }

    /// Waits for the end of the helper; its raw wait status.
    int wait() {
        int status = -1;
        while (mPid > 0 && waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
        }
        mPid = -1;
        return status;
    }

private:
    static std::string directory() {
        char path[4096];
        const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
        const std::string whole(path, length > 0 ? static_cast<size_t>(length) : 0);
        return whole.substr(0, whole.rfind('/'));
    }

    pid_t mPid = -1;
    int mIn = -1;
    int mOut = -1;
    std::string mPending;
};

}  // namespace OrbelTest
