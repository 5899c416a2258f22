// usage: CrashHelper CRASH WHERE SINK [option...]
// Crashes. Its log client writes to standard output what it is given: "<level> <text>", "flush",
// "wait <ms>"; the foreign callback writes "callback <status>".
#include <json/json.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/ILogger.h"
#include "Vantel/Log/Olog.h"
#include "log/CrashReport.h"
#include "tests/support/ForkedChild.h"
#include "tests/support/NullLogClient.h"

extern "C" {
extern char crashMarker[];
char crashMarker[] = "found in the core";
}

namespace {

Json::Value config;
std::string reportHook;  // what the foreign callback does besides talking
bool crashesLate = false;

void say(const std::string& text) {
    [[maybe_unused]] const ssize_t written = write(1, (text + "\n").data(), text.size() + 1);
}

void onReport(int status, void* user, ...) {
    say("callback " + std::to_string(status) + (user == &config ? "" : " of another user"));
    if (status == 0 && reportHook == "stuck") {
        pause();
    } else if (status == 0 && reportHook == "crash") {
        raise(SIGSEGV);
    } else if (status == 1 && reportHook == "exit") {
        std::exit(9);
    }
}

class TellingClient : public OrbelTest::NullLogClient {
public:
    bool setGcoreCallback(GcoreCallback callback, void* user) override {
        Vantel::Log::captureCrashes({this, callback, user, [] { return config; },
                                     [](int ms) { say("wait " + std::to_string(ms)); }});
        return true;
    }
    int print(int level, const char* format, ...) override __attribute__((format(printf, 3, 4))) {
        va_list arguments;
        va_start(arguments, format);
        char* text = nullptr;
        const int length = vasprintf(&text, format, arguments);
        va_end(arguments);
        say(std::to_string(level) + " " + text);
        std::free(text);
        return length;
    }
    bool flush() override {
        say("flush");
        return true;
    }
};

/// A page of a file that has no byte.
[[noreturn]] void touchBehindTheEnd() {
    const int file = memfd_create("empty", MFD_CLOEXEC);
    auto* const page =
        static_cast<volatile char*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, file, 0));
    std::exit(*page);
}

void crash(int signo) {
    say("crashing " + std::to_string(gettid()));
    switch (signo) {
        case SIGABRT:
            std::abort();
        case SIGSEGV: {
            volatile uintptr_t nowhere = 64;  // the compiler refuses what it sees through
            *reinterpret_cast<volatile int*>(nowhere) = 1;
            break;
        }
        case SIGILL:
            __builtin_trap();
        case SIGBUS:
            touchBehindTheEnd();
        default:
            raise(signo);
    }
}

/// `count` threads that raise at the same moment; the signal that finds no room returns.
void crashTogether(int signo, int count) {
    std::latch ready(count);
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&] {
            ready.arrive_and_wait();
            say("crashing " + std::to_string(gettid()));
            raise(signo);
            say("returned");
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void childThat(void (*end)()) {
    const pid_t child = fork();
    if (child == 0) {
        end();
    }
    int status = 0;
    waitpid(child, &status, 0);
    say("child " + std::to_string(status));
}

void crashSomewhere(int signo, const std::string& where) {
    if (where == "main") {
        crash(signo);
    } else if (where == "thread") {
        std::thread([signo] {
            prctl(PR_SET_NAME, "doomed");
            crash(signo);
        }).join();
    } else if (where == "two") {
        crashTogether(signo, 2);
    } else if (where == "crowd") {
        std::thread([signo] { raise(signo); }).detach();
        crashTogether(signo, 129);  // one more than the ring holds
    } else if (where == "child") {
        childThat([] { raise(SIGSEGV); });
        childThat([] { std::exit(7); });
    } else if (where == "sigwait") {
        sigset_t term;
        sigemptyset(&term);
        sigaddset(&term, SIGTERM);
        sigprocmask(SIG_BLOCK, &term, nullptr);
        kill(getpid(), SIGTERM);
        int got = 0;
        sigwait(&term, &got);
        say("got " + std::to_string(got));
    } else if (where == "late") {
        crashesLate = true;
    }
}

void setOption(const std::string& option) {
    const size_t equals = option.find('=');
    const std::string key = option.substr(0, equals);
    const std::string value = equals != std::string::npos ? option.substr(equals + 1) : "";
    if (key == "report") {
        reportHook = value;
    } else if (key == "nofile") {
        const rlimit few{3, 3};
        setrlimit(RLIMIT_NOFILE, &few);
    } else if (key == "nochild") {
        signal(SIGCHLD, SIG_IGN);
    } else if (key == "coredump") {
        config[key] = value == "true";
    } else {
        config[key] = value;
    }
}

}  // namespace

Vantel::Log::ILogClient* Vantel::Log::ILogClient::instance() {
    static auto* const client = new TellingClient;
    return client;
}

int main(int argc, char** argv) {
    if (argc < 4) {
        return 2;
    }
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    config["moduleName"] = "crasher";
    // Before the crash handlers start, so that it runs when the reporting thread is gone.
    std::atexit([] {
        if (crashesLate) {
            crash(SIGSEGV);
        }
    });
    if (std::strcmp(argv[3], "logger") == 0) {
        Vantel::ILogger::instance()->init("crasher", 4096);
        Vantel::ILogger::instance()->init("crasher", 4096);
    } else {
        ologSetGcoreCallback(&onReport, nullptr);
        ologSetGcoreCallback(&onReport, &config);  // replaces the first
    }
    for (int i = 4; i < argc; ++i) {
        setOption(argv[i]);
    }
    crashSomewhere(std::atoi(argv[1]), argv[2]);
    return 0;
}
