#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/HelperProcess.h"
#include "tests/support/TestName.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

using OrbelTest::HelperProcess;
using std::chrono::steady_clock;
namespace fs = std::filesystem;

/// What a child wrote and how it ended.
struct Outcome {
    using Lines = std::vector<std::string>;

    long count(const std::string& text) const {
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        });
    }
    /// What stands behind `begin` in the first line that starts so.
    std::string behind(const std::string& begin) const {
        const auto line = find(lines.begin(), begin);
        return line != lines.end() ? line->substr(begin.size()) : "(no line " + begin + ")";
    }
    /// Whether lines that start so come in this order; otherwise the first that does not.
    std::string firstMissing(const Lines& begins) const {
        auto line = lines.begin();
        for (const std::string& begin : begins) {
            line = find(line, begin);
            if (line == lines.end()) {
                return begin;
            }
            ++line;
        }
        return "";
    }
    bool diedOf(int signo) const { return WIFSIGNALED(status) && WTERMSIG(status) == signo; }

    Lines lines;
    int status = -1;

private:
    Lines::const_iterator find(Lines::const_iterator from, const std::string& begin) const {
        return std::find_if(from, lines.end(),
                            [&](const std::string& line) { return line.starts_with(begin); });
    }
};

Outcome finish(HelperProcess& child) {
    Outcome outcome;
    std::string line;
    while (child.readLine(line, 60000)) {
        outcome.lines.push_back(line);
    }
    outcome.status = child.wait();
    return outcome;
}

Outcome run(const std::vector<std::string>& arguments) {
    HelperProcess child("CrashHelper", arguments);
    return finish(child);
}

std::string outputOf(const std::string& command) {
    std::string text;
    FILE* pipe = popen(command.c_str(), "r");
    for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) {
        text += static_cast<char>(c);
    }
    pclose(pipe);
    return text;
}

const std::string kSegv = std::to_string(SIGSEGV);

class CrashReportTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        // What the handler does is not async-signal-safe, and it is meant so.
        const char* given = getenv("TSAN_OPTIONS");
        setenv("TSAN_OPTIONS",
               (std::string(given != nullptr ? given : "") + " report_signal_unsafe=0").c_str(), 1);
        started = steady_clock::now();  // the children may crash before we run again
        // A report that hangs, and one that crashes itself.
        for (const auto& [where, hook] :
             {std::pair{"crowd", "report=stuck"}, {"main", "report=crash"}}) {
            stuck.push_back(std::make_unique<HelperProcess>(
                "CrashHelper", std::vector<std::string>{kSegv, where, "callback", hook}));
        }
    }
    static void TearDownTestSuite() { stuck.clear(); }

    CrashReportTest() { fs::create_directories(mDirectory + "/coredump"); }
    ~CrashReportTest() override { fs::remove_all(mDirectory); }

    /// A crash with a log directory of the test's.
    Outcome runWith(std::vector<std::string> options) const {
        options.insert(options.begin(), {kSegv, "main", "callback", "logPath=" + mDirectory});
        return run(options);
    }

    /// A program in place of the debugger, which notes with what it ran.
    std::string fakeDebugger() const {
        const std::string path = mDirectory + "/debugger";
        std::ofstream(path) << "#!/bin/sh\nfor a; do echo \"$a\"; done >" << mDirectory
                            << "/ran\nexit 3\n";
        fs::permissions(path, fs::perms::owner_all);
        return "gdbPath=" + path;
    }
    std::string whatTheDebuggerGot() const {
        std::ostringstream text;
        text << std::ifstream(mDirectory + "/ran").rdbuf();
        return text.str();
    }

    const std::string mDirectory = fs::temp_directory_path() / OrbelTest::uniqueName("crash");
    const std::string mCore = mDirectory + "/coredump/crasher.core";
    const std::string mHelper = fs::canonical("/proc/self/exe").parent_path() / "CrashHelper";
    // These wait out the ten seconds of a report; started first, looked at last.
    static inline std::vector<std::unique_ptr<HelperProcess>> stuck;
    static inline steady_clock::time_point started;
};

TEST_F(CrashReportTest, EachSignalIsReportedAndEndsTheProcess) {
    for (const int signo : {SIGABRT, SIGSEGV, SIGILL, SIGFPE, SIGBUS, SIGSYS}) {
        for (const std::string where : {"main", "thread"}) {
            for (const std::string sink : {"logger", "callback"}) {
                SCOPED_TRACE(std::to_string(signo) + " " + where + " " + sink);
                const Outcome got = run({std::to_string(signo), where, sink});
                EXPECT_EQ(got.behind("6 coredump "),
                          "thread id = " + got.behind("crashing ") +
                              " thread name = " + (where == "main" ? "CrashHelper" : "doomed") +
                              " signo = " + std::to_string(signo));
                Outcome::Lines order{"crashing", "6 coredump thread id"};
                const auto add = [&](const Outcome::Lines& more) {
                    order.insert(order.end(), more.begin(), more.end());
                };
                if (sink == "callback") {
                    add({"callback 0"});
                }
                add({"6 print system info begin", "6 Memory Info ", "6 Thread Info ",
                     "6 Uptime Info ", "6 proc meminfo ", "MemTotal:", "6 application maps Info ",
                     "6 application status Info ", "Name:", "6 application fd Info ",
                     "6 print system info end", "6 print backtrace begin", "6 ",
                     "6 print backtrace end", "flush", "wait 2000"});
                if (sink == "callback") {
                    add({"callback 1"});
                }
                EXPECT_EQ(got.firstMissing(order), "");
                EXPECT_EQ(got.count("coredump"), 1) << "one report, and no core";
                EXPECT_EQ(got.count("of another user"), 0);
                EXPECT_TRUE(sink == "logger" ? got.status == 255 << 8 : got.diedOf(signo))
                    << got.status;
            }
        }
    }
}

TEST_F(CrashReportTest, TwoThreadsAtOnceAreReportedInTurn) {
    const Outcome got = run({kSegv, "two", "callback"});
    EXPECT_EQ(got.firstMissing({"6 coredump thread id", "callback 0", "callback 1",
                                "6 coredump thread id", "callback 0", "callback 1"}),
              "");
    for (const std::string& line : got.lines) {
        if (line.starts_with("crashing ")) {
            EXPECT_EQ(got.count("coredump thread id = " + line.substr(9) + " "), 1);
        }
    }
    EXPECT_TRUE(got.diedOf(SIGSEGV)) << got.status;
    EXPECT_EQ(got.count("returned"), 0);
}

TEST_F(CrashReportTest, WithoutAReportingThreadTheDefaultActionComesAtOnce) {
    const auto start = steady_clock::now();
    const Outcome child = run({kSegv, "child", "callback"});
    EXPECT_EQ(WTERMSIG(atoi(child.behind("child ").c_str())), SIGSEGV) << "a forked child";
    EXPECT_EQ(child.lines.back(), "child " + std::to_string(7 << 8)) << "its exit hangs or fails";
    EXPECT_EQ(child.status, 0);

    const Outcome late = run({kSegv, "late", "callback"});
    EXPECT_TRUE(late.diedOf(SIGSEGV)) << late.status;
    EXPECT_EQ(child.count("callback") + late.count("callback"), 0);
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(10)) << "waited for nobody";
}

TEST_F(CrashReportTest, TheReportingThreadLeavesSignalsAndExitToTheApplication) {
    const Outcome waited = run({kSegv, "sigwait", "callback"});
    EXPECT_EQ(waited.behind("got "), std::to_string(SIGTERM)) << "blocked after the start";
    EXPECT_EQ(waited.status, 0);
    EXPECT_EQ(run({kSegv, "main", "callback", "report=exit"}).status, 9 << 8)
        << "exit() in the callback";
}

TEST_F(CrashReportTest, CommandsThatFailSaySoAndTheReportGoesOn) {
    const struct {
        const char* option;
        const char* line;
    } cases[] = {
        {"nofile", "5 execCmd cat /proc/meminfo, popen error: Too many open files"},
        {"nochild", "5 execCmd cat /proc/meminfo, pclose error: No child processes"},
        {"nopath", "5 execCmd busybox free -m , pclose exit status: 127"},
    };
    const std::string path = getenv("PATH");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.option);
        setenv("PATH", strcmp(c.option, "nopath") == 0 ? mDirectory.c_str() : path.c_str(), 1);
        const Outcome got = runWith({c.option});
        EXPECT_EQ(got.count(c.line), 1);
        EXPECT_EQ(got.firstMissing({"6 proc meminfo ", "6 application fd Info ",
                                    "6 print backtrace begin", "callback 1"}),
                  "");
    }
    setenv("PATH", path.c_str(), 1);
}

TEST_F(CrashReportTest, TheDebuggerIsAskedForACoreIfItIsConfigured) {
    const std::string debugger = fakeDebugger();
    for (const Outcome::Lines& options : {Outcome::Lines{debugger},
                                          {debugger, "coredump=false"},
                                          {"gdbPath=none", "coredump=true"}}) {
        const Outcome got = runWith(options);
        EXPECT_EQ(got.count("coredump ["), 0);
        EXPECT_EQ(got.count("callback 1"), 1);
    }
    // And none if a debugger started the process: here a shell of such a name.
    fs::copy_file(fs::canonical("/bin/sh"), mDirectory + "/mygdb");
    EXPECT_NE(
        outputOf(mDirectory + "/mygdb -c '" + mHelper + " " + kSegv +
                 " main callback coredump=true logPath=" + mDirectory + " " + debugger + "; true'")
            .find("callback 1"),
        std::string::npos);
    EXPECT_EQ(whatTheDebuggerGot(), "");

    const Outcome got = runWith({debugger, "coredump=true"});
    EXPECT_EQ(got.firstMissing({"wait 2000",
                                "6 coredump [" + mCore + "] status " + std::to_string(3 << 8),
                                "wait 2000", "callback 1"}),
              "");
    const std::string asked = whatTheDebuggerGot();
    EXPECT_EQ(asked.substr(0, asked.find("attach ")),
              "--nx\n--batch\n--readnever\n-ex\nset pagination off\n-ex\nset height 0\n-ex\n"
              "set width 0\n-ex\nset use-coredump-filter off\n-ex\nset dump-excluded-mappings on\n"
              "-ex\n");
    EXPECT_NE(asked.find("\n-ex\ngcore " + mCore + "\n-ex\ndetach\n-ex\nquit\n"), std::string::npos)
        << asked;
}

TEST_F(CrashReportTest, TheCoreShowsTheMemoryOfTheProcess) {
    if (kSanitized) {
        GTEST_SKIP() << "the shadow memory of a sanitizer would be part of the core";
    }
    if (access("/usr/bin/gdb", X_OK) != 0) {
        GTEST_SKIP() << "no debugger is installed";
    }
    if (outputOf("gdb --nx --batch -ex 'attach " + std::to_string(getpid()) + "' 2>&1")
            .find("not permitted") != std::string::npos) {
        GTEST_SKIP() << "a debugger may not attach to its parent here";
    }
    const auto start = steady_clock::now();
    const Outcome got =
        run({kSegv, "thread", "callback", "coredump=true", "logPath=" + mDirectory});
    if (got.count("6 coredump [") == 0 && steady_clock::now() - start > std::chrono::seconds(10)) {
        GTEST_SKIP() << "the machine is too busy: the debugger took longer than a report may";
    }
    EXPECT_EQ(got.behind("6 coredump ["), mCore + "] status 0");
    EXPECT_TRUE(got.diedOf(SIGSEGV)) << got.status;
    const std::string seen = outputOf(
        "gdb --nx --batch -ex 'x/s (char*)&crashMarker' -ex "
        "'info threads' " +
        mHelper + " " + mCore + " 2>&1");
    EXPECT_NE(seen.find("found in the core"), std::string::npos) << seen;
    EXPECT_NE(seen.find("LWP " + got.behind("crashing ")), std::string::npos) << seen;
}

/// More lines than a socket holds: the report waits in the process for the server to go on.
TEST_F(CrashReportTest, TheLastWordsArriveAtASlowServer) {
    constexpr int kLines = 400;
    const std::string path = mDirectory + "/server.sock";
    for (const std::string sink : {"logger", "callback"}) {
        SCOPED_TRACE(sink);
        HelperProcess server("../examples/log_server", {path});
        ASSERT_TRUE(server.waitForLine("listening on " + path));
        kill(server.pid(), SIGSTOP);
        HelperProcess child("CrashClientHelper", {path, sink, std::to_string(kLines)});
        ASSERT_TRUE(child.waitForLine("crashing"));
        std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the report is in the queue
        kill(server.pid(), SIGCONT);
        const std::string wanted[] = {"[crasher][fatal][", "]coredump thread id = ", "MemTotal:",
                                      "]print backtrace begin", "]print backtrace end"};
        int next = 0;
        size_t at = 0;
        for (std::string line; at < std::size(wanted) && server.readLine(line);) {
            const size_t filler = line.find(std::string(100, 'x'));
            if (filler != std::string::npos) {
                EXPECT_EQ(atoi(line.c_str() + filler - 6), next++);
            }
            while (at < std::size(wanted) && line.find(wanted[at]) != std::string::npos) {
                ++at;
            }
        }
        EXPECT_EQ(next, kLines);
        EXPECT_EQ(at, std::size(wanted)) << "missing: " << wanted[at];
        const int status = child.wait();
        EXPECT_TRUE(sink == "logger" ? status == 255 << 8 : WTERMSIG(status) == SIGSEGV) << status;
    }
}

/// The last: by now most of the ten seconds have passed.
TEST_F(CrashReportTest, AReportThatHangsIsGivenTenSeconds) {
    long returned = 0;
    for (auto& child : stuck) {
        const Outcome got = finish(*child);
        EXPECT_TRUE(got.diedOf(SIGSEGV)) << got.status;
        EXPECT_GE(steady_clock::now() - started, std::chrono::seconds(10));
        EXPECT_EQ(got.count("callback 0"), 1);
        EXPECT_EQ(got.count("callback 1"), 0);
        returned += got.count("returned");
    }
    EXPECT_GE(returned, 1) << "a full ring sends the signal back";
}

}  // namespace
