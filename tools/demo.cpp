// The library's main job, shown and checked: one process publishes a real file, two write it out
// again, one joins late and leaves early, one takes samples, keeps them and is killed.
//
//     demo FILE
//
// What they log comes together at the log server of the machine; if there is none, the demo starts
// one, and shows the lines.
//
// Exit status 0: both copies equal the file, and every block of every pool is free again.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Vantel/Log/LogPacket.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/IpcCleanup.h"
#include "tests/support/WaitFor.h"
#include "tools/DomainView.h"

using OrbelTest::HelperProcess;
using OrbelTest::waitFor;
using OrbelTools::DomainView;
using Vantel::Orbel::BlockState;

namespace {

using Clock = std::chrono::steady_clock;

/// Set by SIGINT and SIGTERM: the demo stops waiting, fails, and cleans up all the same.
volatile sig_atomic_t interrupted = 0;

double millisecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

/// "name value name value ..." as a program prints it at its end.
using Report = std::map<std::string, double>;

Report parseReport(const std::string& line) {
    Report report;
    std::istringstream words(line);
    std::string name;
    double value = 0;
    while (words >> name >> value) {
        report[name] = value;
    }
    return report;
}

/// Reads the output of a program to its end; what it reported on all its lines.
Report readToEnd(HelperProcess& process) {
    Report report;
    std::string line;
    while (process.readLine(line, 600000)) {
        report.merge(parseReport(line));
    }
    return report;
}

bool exitedWell(HelperProcess& process) {
    const int status = process.wait();
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// The blocks that a reader holds, as pairs of their header and the incarnation that it holds.
using Held = std::vector<std::pair<const Vantel::Orbel::BlockHeader*, uint64_t>>;

Held heldBy(const DomainView& domain, uint64_t nodeId) {
    Held held;
    domain.forEachBlock([&](const Vantel::Orbel::BlockHeader& block) {
        const auto word = block.status.stateWord();
        const auto claims = block.status.claimMask();
        for (uint32_t reader = 0; reader < Vantel::Orbel::kMaxReaders; ++reader) {
            if (word.state == BlockState::Ready && (claims >> reader & 1) != 0 &&
                block.status.readerIds[reader].load() == nodeId) {
                held.emplace_back(&block, word.sequence);
            }
        }
    });
    return held;
}

size_t countBusy(const DomainView& domain) {
    size_t busy = 0;
    domain.forEachBlock([&](const Vantel::Orbel::BlockHeader& block) {
        busy += block.status.stateWord().state != BlockState::Free ? 1 : 0;
    });
    return busy;
}

/// What the kill of the reader that keeps everything cost.
struct Kill {
    size_t held = 0;
    double firstBackMs = 0;
    double lastBackMs = 0;
    bool allBack = false;
};

Kill killHolder(const DomainView& domain, HelperProcess& holder) {
    const uint64_t nodeId = domain.nodeOf(holder.pid());
    Held held;
    // Until it holds all that it can get: the publisher is out of blocks then, or has sent all.
    waitFor([&] {
        const Held now = heldBy(domain, nodeId);
        const bool settled = !now.empty() && now == held;
        held = now;
        usleep(50000);
        return settled || interrupted != 0;
    });
    Kill kill;
    kill.held = held.size();
    const auto begin = Clock::now();
    holder.killAndReap();
    size_t left = held.size();
    waitFor([&] {
        const size_t before = left;
        left = 0;
        for (const auto& [block, sequence] : held) {
            left += block->status.stateWord().is(BlockState::Ready, sequence) ? 1 : 0;
        }
        if (before == held.size() && left < before) {
            kill.firstBackMs = millisecondsSince(begin);
        }
        return left == 0 || interrupted != 0;
    });
    kill.allBack = left == 0;
    kill.lastBackMs = millisecondsSince(begin);
    return kill;
}

bool sameBytes(const std::string& left, const std::string& right) {
    std::ifstream a(left, std::ios::binary);
    std::ifstream b(right, std::ios::binary);
    return a && b &&
           std::equal(std::istreambuf_iterator<char>(a), std::istreambuf_iterator<char>(),
                      std::istreambuf_iterator<char>(b), std::istreambuf_iterator<char>());
}

/// The log server that the demo starts, unless the machine has one.
class Log {
public:
    Log() : mServer("../examples/log_server") {
        std::string line;
        mOwn = mServer.readLine(line);
    }

    bool own() const { return mOwn; }

    /// The lines that tell of `domain`, once `enough` holds for one; ends the server.
    template <class Enough>
    std::vector<std::string> close(const std::string& domain, Enough&& enough) {
        std::vector<std::string> lines;
        bool ended = false;
        for (std::string line; mServer.readLine(line, 5000);) {
            if (line.find("[" + domain + "_") == std::string::npos) {
                continue;
            }
            lines.push_back(line);
            if (!ended && enough(line)) {
                ended = true;
                ::kill(mServer.pid(), SIGTERM);
            }
        }
        return lines;
    }

private:
    HelperProcess mServer;
    bool mOwn = false;
};

double valueOf(const Report& report, const char* name) {
    const auto found = report.find(name);
    return found == report.end() ? 0.0 : found->second;
}

void printSubscriber(const char* who, const Report& report) {
    std::printf("%-20s", who);
    constexpr struct {
        const char* name;
        int width;
        int digits;
    } columns[] = {{"samples", 8, 0}, {"mb_s", 8, 1},   {"gap_ms", 9, 1}, {"p50_us", 9, 1},
                   {"p99_us", 9, 1},  {"max_us", 9, 1}, {"lost", 5, 0},   {"corrupt", 8, 0}};
    for (const auto& column : columns) {
        std::printf(" %*.*f", column.width, column.digits, valueOf(report, column.name));
    }
    std::printf("\n");
}

class Demo {
public:
    explicit Demo(const std::string& file)
        : mFile(file),
          mDomain("orbeldemo_" + std::to_string(getpid())),
          mDirectory(std::filesystem::temp_directory_path() / mDomain) {
        std::filesystem::create_directory(mDirectory);
    }
    Demo(const Demo&) = delete;
    Demo& operator=(const Demo&) = delete;
    ~Demo() {
        OrbelTest::IpcCleanup::removeDomain(mDomain);
        OrbelTest::IpcCleanup::removeChannel(mDomain + "_file");
        std::error_code ignored;
        std::filesystem::remove_all(mDirectory, ignored);
    }

    int run();

private:
    bool check(bool condition, const char* what) {
        if (!condition) {
            std::printf("FAILED: %s\n", what);
            mFailed = true;
        }
        return condition;
    }
    std::string copy(const char* who) const { return mDirectory / who; }
    void showLog(Log& log);

    const std::string mFile;
    const std::string mDomain;
    const std::filesystem::path mDirectory;
    bool mFailed = false;
};

void Demo::showLog(Log& log) {
    if (!log.own()) {
        const bool another = std::filesystem::exists(Vantel::Log::kLogServerPath);
        std::printf(another ? "\nanother log server has the log\n"
                            : "\nthe log server did not start\n");
        mFailed = mFailed || !another;
        return;
    }
    int left = 0;
    const auto lines = log.close(mDomain, [&left](const std::string& line) {
        left += line.find("leaves after ") != std::string::npos ? 1 : 0;
        return left == 3;
    });
    std::printf("\nat the log server:\n");
    size_t others = 0;
    for (const std::string& line : lines) {
        const bool own = line.find("[Demo]") != std::string::npos;
        others += own ? 0 : 1;
        if (own) {
            std::printf("%s\n", line.c_str());
        }
    }
    std::printf("and %zu lines of the library in them\n", others);
    check(left == 3, "all subscribers but the killed one tell the log server that they leave");
}

int Demo::run() {
    Log log;
    const std::string subscriber = "../examples/subscriber";
    // The publisher comes first: who makes the domain looks after the dead.
    HelperProcess publisher("../examples/publisher", {mDomain, mFile, "3", "--log"});
    if (!check(publisher.waitForLine("ready"), "the publisher starts")) {
        return 1;
    }
    HelperProcess sync(subscriber, {mDomain, "--log", "--sync", copy("sync")});
    HelperProcess standard(subscriber, {mDomain, "--log", copy("default")});
    HelperProcess holder(subscriber, {mDomain, "--log", "--keep"});
    if (!check(sync.waitForLine("ready") && standard.waitForLine("ready") &&
                   holder.waitForLine("ready"),
               "three subscribers start")) {
        return 1;
    }
    const DomainView domain(mDomain);
    check(domain.valid() && domain.poolCount() >= 2, "the domain has pools of two block sizes");
    HelperProcess late(subscriber, {mDomain, "--log", "--count", "20"});
    check(late.waitForLine("ready"), "a fourth subscriber joins late");
    const Kill kill = killHolder(domain, holder);
    check(kill.allBack, "the blocks of the killed subscriber come back");

    const Report sent = interrupted != 0 ? Report() : readToEnd(publisher);
    if (!check(interrupted == 0, "not interrupted")) {
        return 1;
    }
    const Report syncReport = readToEnd(sync);
    const Report standardReport = readToEnd(standard);
    ::kill(late.pid(), SIGTERM);  // if the stream had less than 20 samples left for it
    const Report lateReport = readToEnd(late);
    check(exitedWell(publisher) && exitedWell(sync) && exitedWell(standard) && exitedWell(late),
          "all but the killed one end well");
    check(sameBytes(mFile, copy("sync")), "the copy of the sync subscriber equals the file");
    check(sameBytes(mFile, copy("default")), "the copy of the default subscriber equals the file");
    const size_t busy = countBusy(domain);
    check(busy == 0, "every block of every pool is free");
    for (const Report* report : {&syncReport, &standardReport, &lateReport}) {
        check(report->count("lost") != 0 && report->at("lost") == 0 && report->at("corrupt") == 0,
              "no sample is lost or damaged");
    }

    std::printf("%-20s %8s %8s %9s %9s %9s %9s %5s %8s\n", "subscriber", "samples", "MB/s",
                "pause ms", "p50 us", "p99 us", "max us", "lost", "corrupt");
    printSubscriber("sync", syncReport);
    printSubscriber("default", standardReport);
    printSubscriber("late, leaves early", lateReport);
    std::printf(
        "(from commit to callback; the publisher runs ahead by all the blocks there are)\n");
    std::printf(
        "\npublisher: %.0f samples, %.0f bytes; EAGAIN %.0f times, waited %.1f ms for blocks\n",
        valueOf(sent, "sent"), valueOf(sent, "bytes"), valueOf(sent, "eagain"),
        valueOf(sent, "waited_ms"));
    std::printf(
        "kill -9: the subscriber held %zu blocks; the first came back after %.1f ms, the "
        "last after %.1f ms; the stream stood still for %.1f ms\n",
        kill.held, kill.firstBackMs, kill.lastBackMs, valueOf(syncReport, "gap_ms"));
    std::printf("blocks still in use: %zu\n", busy);
    showLog(log);
    std::printf(mFailed ? "FAILED\n" : "both copies equal %s\n", mFile.c_str());
    return mFailed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || !std::filesystem::is_regular_file(argv[1])) {
        std::fprintf(stderr, "usage: demo FILE\n");
        return 2;
    }
    struct sigaction action = {};
    action.sa_handler = [](int) { interrupted = 1; };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return Demo(argv[1]).run();
}
