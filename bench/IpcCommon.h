#pragma once

// What the processes of the inter-process benchmark share: payloads that can be checked, the
// exchange's parameters, percentiles, and starting one another.

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace IpcBench {

inline uint64_t nowNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

[[noreturn]] inline void fail(const std::string& why) {
    std::fprintf(stderr, "ipc bench: %s (%s)\n", why.c_str(), std::strerror(errno));
    std::_Exit(1);
}

/// A payload of `size` bytes (a multiple of 8, at least 64) that belongs to `sequence`. "Touched"
/// writes the first and the last word, so that two cache lines move; "whole" writes and sums all.
struct Payload {
    size_t size;
    bool whole;

    void write(void* data, uint64_t sequence) const {
        auto* words = static_cast<uint64_t*>(data);
        const size_t count = size / 8;
        if (!whole) {
            words[0] = sequence;
            words[count - 1] = ~sequence;
            return;
        }
        for (size_t i = 0; i < count; ++i) {
            words[i] = sequence + i;
        }
    }

    bool check(const void* data, uint64_t sequence) const {
        const auto* words = static_cast<const uint64_t*>(data);
        const size_t count = size / 8;
        if (!whole) {
            return words[0] == sequence && words[count - 1] == ~sequence;
        }
        uint64_t sum = 0;
        for (size_t i = 0; i < count; ++i) {
            sum += words[i];
        }
        return sum == count * sequence + count * (count - 1) / 2;
    }
};

/// The parameters of one role, passed on the command line as key=value.
class Role {
public:
    Role() = default;
    Role(int argc, char** argv) {
        for (int i = 1; i < argc; ++i) {
            const std::string word = argv[i];
            const size_t equals = word.find('=');
            if (equals != std::string::npos) {
                mValues[word.substr(0, equals)] = word.substr(equals + 1);
            }
        }
    }

    Role& set(const std::string& key, const std::string& value) {
        mValues[key] = value;
        return *this;
    }
    Role& set(const std::string& key, long value) { return set(key, std::to_string(value)); }

    std::string text(const std::string& key) const {
        const auto found = mValues.find(key);
        return found == mValues.end() ? std::string() : found->second;
    }
    long number(const std::string& key) const { return std::atol(text(key).c_str()); }
    Payload payload() const {
        return {static_cast<size_t>(number("payload")), number("whole") != 0};
    }

    std::vector<std::string> words() const {
        std::vector<std::string> words;
        for (const auto& value : mValues) {
            words.push_back(value.first + "=" + value.second);
        }
        return words;
    }

private:
    std::map<std::string, std::string> mValues;
};

/// Binds the calling process (and the threads that it starts later) to one core.
inline void bindToCore(long core) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(core), &set);
    sched_setaffinity(0, sizeof set, &set);
}

struct Percentiles {
    double p50 = 0;
    double p99 = 0;
    double max = 0;
};

/// Sorts `values` (ns) and gives microseconds.
inline Percentiles percentiles(std::vector<uint64_t>& values) {
    if (values.empty()) {
        return {};
    }
    std::sort(values.begin(), values.end());
    const auto at = [&](double part) {
        const auto index = static_cast<size_t>(part * static_cast<double>(values.size() - 1));
        return static_cast<double>(values[index]) / 1000.0;
    };
    return {at(0.5), at(0.99), at(1.0)};
}

/// One role of this program in a process of its own. Its standard output is read by report(), the
/// end of its standard input tells it to stop.
class RoleProcess {
public:
    explicit RoleProcess(const Role& role) {
        int input[2];
        int output[2];
        if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
            fail("pipe");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], 0);
        posix_spawn_file_actions_adddup2(&actions, output[1], 1);
        std::vector<std::string> words = role.words();
        char self[] = "/proc/self/exe";
        std::vector<char*> argv{self};
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        if (posix_spawn(&mPid, self, &actions, nullptr, argv.data(), environ) != 0) {
            fail("posix_spawn");
        }
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        close(output[1]);
        mInput = input[1];
        mOutput = fdopen(output[0], "r");
    }
    RoleProcess(const RoleProcess&) = delete;
    RoleProcess& operator=(const RoleProcess&) = delete;
    ~RoleProcess() {
        stop();
        fclose(mOutput);
    }

    /// The next line that the role prints; empty when it has ended.
    std::string line() {
        char text[512];
        return fgets(text, sizeof text, mOutput) == nullptr ? std::string() : std::string(text);
    }

    /// Tells a role that waits for it (endOfInput) to go on.
    void go() {
        if (write(mInput, "\n", 1) != 1) {
            fail("a process of the benchmark has gone");
        }
    }

    /// Ends the role and waits for it; a failed role fails the benchmark.
    void stop() {
        if (mPid <= 0) {
            return;
        }
        close(mInput);
        int status = 0;
        while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
        }
        mPid = -1;
        if (status != 0) {
            fail("a process of the benchmark failed");
        }
    }

private:
    pid_t mPid = -1;
    int mInput = -1;
    FILE* mOutput = nullptr;
};

/// Sleeps until the parent closes our standard input.
inline void waitForEndOfInput() {
    char byte;
    while (read(0, &byte, 1) > 0) {
    }
}

inline void report(const char* format, auto... values) {
    std::printf(format, values...);
    std::fflush(stdout);
}

}  // namespace IpcBench
