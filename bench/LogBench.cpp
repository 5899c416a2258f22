// What a log line of three arguments costs: below the level, to nobody, to an attached delegate and
// to a server, from 1 and 4 threads, beside spdlog with the same text on the same sinks. And the
// worst call while the server stands still.
#include <benchmark/benchmark.h>
#include <json/json.h>
#include <poll.h>
#include <sched.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Log.h"
#include "frame/base/UniqueFd.h"
#include "log/LogClientImpl.h"
#include "log/LoggerImpl.h"
#include "tests/support/WithoutLogServer.h"

using Vantel::ILogger;
using Vantel::LoggerImpl;
using Vantel::Log::LogClientImpl;
using Vantel::Orbel::UniqueFd;

namespace {

std::atomic<int64_t> lines{0};

void onLine(ILogger::LoggerLevel, const char* line, int length) {
    if (length > 0 && line[length - 1] == '\n') {
        lines.store(lines.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
}

/// The logger of the process, without a server.
void setUp() {
    ILogger* logger = ILogger::instance();
    logger->init("bench", 4096);
    logger->setOutput(0);
    logger->setLevel(ILogger::kInfo);
}

#define LOG_THE_LINE(logger)                                                                \
    (logger).print(ILogger::kInfo, "Bench", "[%s:%d]block %s of pool %d has %ld readers\n", \
                   "LogBench", __LINE__, "name", 5, 123456L)
#define SPDLOG_THE_LINE(logger)                                                     \
    (logger).log(spdlog::source_loc{"LogBench", __LINE__, ""}, spdlog::level::info, \
                 "block {} of pool {} has {} readers", "name", 5, 123456L)

/// A process that takes the lines of all connections to path(), and counts their bytes; nobody
/// takes those to deafPath(). Started before main(), while there are no threads.
class Drain {
public:
    Drain()
        : mBytes(new (mmap(nullptr, sizeof(std::atomic<int64_t>), PROT_READ | PROT_WRITE,
                           MAP_SHARED | MAP_ANONYMOUS, -1, 0)) std::atomic<int64_t>(0)),
          mPid(getpid()),
          mListener(listenAt(path())),
          mDeaf(listenAt(deafPath())),
          mChild(fork()) {
        if (mChild == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            run();
        }
        mListener.reset();
    }
    Drain(const Drain&) = delete;
    Drain& operator=(const Drain&) = delete;
    ~Drain() {
        kill(mChild, SIGKILL);
        unlink(path().c_str());
        unlink(deafPath().c_str());
    }

    std::string path() const { return "/tmp/orbelLogBench_" + std::to_string(mPid) + ".sock"; }
    std::string deafPath() const { return path() + ".deaf"; }
    int64_t bytes() const { return mBytes->load(std::memory_order_relaxed); }
    /// Until nothing came for 20 ms.
    int64_t settledBytes() const {
        int64_t before = -1;
        while (before != bytes()) {
            before = bytes();
            usleep(20000);
        }
        return before;
    }

    static UniqueFd connectTo(const std::string& path) {
        UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = addressOf(path);
        if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            fd.reset();
        }
        return fd;
    }

private:
    static sockaddr_un addressOf(const std::string& path) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return address;
    }

    static UniqueFd listenAt(const std::string& path) {
        UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = addressOf(path);
        if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(fd.get(), 16) != 0) {
            std::perror(path.c_str());
        }
        return fd;
    }

    [[noreturn]] void run() const {
        static char block[1 << 18];
        std::vector<pollfd> watched{{mListener.get(), POLLIN, 0}};
        for (;;) {
            poll(watched.data(), watched.size(), -1);
            for (size_t i = 1; i < watched.size(); ++i) {
                const ssize_t count =
                    watched[i].revents != 0 ? read(watched[i].fd, block, sizeof block) : 0;
                mBytes->fetch_add(std::max<ssize_t>(count, 0), std::memory_order_relaxed);
            }
            if (watched[0].revents != 0) {
                watched.push_back({accept(mListener.get(), nullptr, nullptr), POLLIN, 0});
            }
        }
    }

    std::atomic<int64_t>* const mBytes;
    const pid_t mPid;
    UniqueFd mListener;
    UniqueFd mDeaf;
    const pid_t mChild;
};

Drain drain;

/// A logger on a client of its own that is connected to `path`; both stay.
LoggerImpl& loggerTo(const std::string& path) {
    auto* const client = new LogClientImpl;
    Json::Value config;
    config["moduleName"] = "bench";
    config["socketPath"] = path;
    client->init(config);
    auto* const logger = new LoggerImpl(*client);
    logger->init("bench", 4096);
    return *logger;
}

void lineBelowTheLevel(benchmark::State& state) {
    setUp();
    const int64_t before = lines;
    for (auto _ : state) {
        ORBEL_LOG_DEBUG("block %s of pool %d has %ld readers\n", "name", 5, 123456L);
    }
    if (lines != before) {
        state.SkipWithError("a line got through");
    }
}
BENCHMARK(lineBelowTheLevel);

/// As an application does it.
void lineBelowTheLevelByInstance(benchmark::State& state) {
    setUp();
    for (auto _ : state) {
        ILogger::instance()->print(ILogger::kDebug, "Bench", "%s of %d\n", "name", 5);
    }
}
BENCHMARK(lineBelowTheLevelByInstance);

void spdlogLineBelowTheLevel(benchmark::State& state) {
    spdlog::logger logger("bench");
    logger.set_level(spdlog::level::warn);
    for (auto _ : state) {
        SPDLOG_THE_LINE(logger);
    }
}
BENCHMARK(spdlogLineBelowTheLevel);

void lineToNullClient(benchmark::State& state) {
    static OrbelTest::NullLogClient client;
    static LoggerImpl logger(client);
    static const bool ready = logger.init("bench", 4096);
    int64_t taken = 0;
    for (auto _ : state) {
        taken += LOG_THE_LINE(logger) > 0 ? 1 : 0;
    }
    if (!ready || taken != state.iterations()) {
        state.SkipWithError("a line was refused");
    }
}
BENCHMARK(lineToNullClient)->Threads(1)->Threads(4)->UseRealTime();

void lineToDelegate(benchmark::State& state) {
    static LoggerImpl* const logger = [] {
        auto* const made = new LoggerImpl(*Vantel::Log::ILogClient::instance());
        made->init("bench", 4096);
        made->setOutput(0);
        made->attach({&onLine});
        return made;
    }();
    const int64_t before = lines;
    for (auto _ : state) {
        LOG_THE_LINE(*logger);
    }
    if (state.threads() == 1 && lines - before != state.iterations()) {
        state.SkipWithError("lines were lost");
    }
}
BENCHMARK(lineToDelegate)->Threads(1)->Threads(4)->UseRealTime();

/// Formats as the logger does, and hands the text on under the sink's lock, as signals do.
class TextSink : public spdlog::sinks::base_sink<std::mutex> {
public:
    using Proc = std::function<void(const char* text, size_t size)>;
    explicit TextSink(Proc proc) : mProc(std::move(proc)) {
        set_pattern_("[%Y-%m-%d %H:%M:%S.%e][bench][%l][%t][Bench][%s:%#]%v");
    }

protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t text;
        formatter_->format(message, text);
        mProc(text.data(), text.size());
    }
    void flush_() override {}

private:
    const Proc mProc;
};

void spdlogLineToCallback(benchmark::State& state) {
    static spdlog::logger logger("bench",
                                 std::make_shared<TextSink>([](const char* text, size_t size) {
                                     onLine(ILogger::kInfo, text, static_cast<int>(size));
                                 }));
    const int64_t before = lines;
    for (auto _ : state) {
        SPDLOG_THE_LINE(logger);
    }
    if (state.threads() == 1 && lines - before != state.iterations()) {
        state.SkipWithError("lines were lost");
    }
}
BENCHMARK(spdlogLineToCallback)->Threads(1)->Threads(4)->UseRealTime();

/// Runs `line`, which sends a line and returns its bytes, in batches that fit into the socket even
/// from 4 threads: between them, and not measured, everything arrives. So every measured call
/// writes to the socket, and nothing is lost.
template <class Line>
void sendPaced(benchmark::State& state, Line&& line) {
    using std::chrono::steady_clock;
    constexpr int kBatch = 50;
    static std::atomic<int64_t> sent{0};
    static int64_t before = 0;
    if (state.thread_index() == 0) {
        before = drain.settledBytes();
        sent = 0;
    }
    for (auto _ : state) {
        int64_t bytes = 0;
        const auto begin = steady_clock::now();
        for (int i = 0; i < kBatch; ++i) {
            bytes += line();
        }
        const std::chrono::duration<double> taken = steady_clock::now() - begin;
        state.SetIterationTime(taken.count() / kBatch);  // a line's
        const int64_t expected = sent.fetch_add(bytes) + bytes;
        const auto deadline = steady_clock::now() + std::chrono::seconds(5);
        while (drain.bytes() - before < expected) {
            if (steady_clock::now() > deadline) {
                state.SkipWithError("lines were lost");
                return;
            }
            sched_yield();
        }
    }
}

/// The same as fast as it goes; what did not arrive is said.
template <class Line>
void sendUnpaced(benchmark::State& state, Line&& line) {
    static std::atomic<int64_t> sent{0};
    static int64_t before = 0;
    if (state.thread_index() == 0) {
        before = drain.settledBytes();
    }
    int64_t bytes = 0;
    for (auto _ : state) {
        bytes += line();
    }
    sent += bytes;
    if (state.thread_index() == 0) {
        // This waits, too, until the other threads have counted what they sent.
        const auto arrived = static_cast<double>(drain.settledBytes() - before);
        const auto expected = static_cast<double>(sent.exchange(0));
        state.counters["lost_percent"] = 100.0 * (expected - arrived) / expected;
    }
}

int64_t sendLine() {
    static LoggerImpl& logger = loggerTo(drain.path());
    return LOG_THE_LINE(logger) + 44;
}

int64_t sendSpdlogLine() {
    static const UniqueFd server = Drain::connectTo(drain.path());
    static thread_local int64_t sent = 0;
    static spdlog::logger logger("bench",
                                 std::make_shared<TextSink>([](const char* text, size_t size) {
                                     sent = send(server.get(), text, size, MSG_NOSIGNAL);
                                 }));
    SPDLOG_THE_LINE(logger);
    return sent;
}

void lineToServer(benchmark::State& state) {
    sendPaced(state, &sendLine);
}
BENCHMARK(lineToServer)->Threads(1)->Threads(4)->UseManualTime();

void spdlogLineToServer(benchmark::State& state) {
    sendPaced(state, &sendSpdlogLine);
}
BENCHMARK(spdlogLineToServer)->Threads(1)->Threads(4)->UseManualTime();

void lineToServerUnpaced(benchmark::State& state) {
    sendUnpaced(state, &sendLine);
}
BENCHMARK(lineToServerUnpaced)->Threads(1)->Threads(4)->UseRealTime();

void spdlogLineToServerUnpaced(benchmark::State& state) {
    sendUnpaced(state, &sendSpdlogLine);
}
BENCHMARK(spdlogLineToServerUnpaced)->Threads(1)->Threads(4)->UseRealTime();

/// Nobody reads: first the socket takes the lines, then the queue, then the queue is full.
void lineToStoppedServer(benchmark::State& state) {
    using std::chrono::steady_clock;
    static LoggerImpl& logger = loggerTo(drain.deafPath());
    std::chrono::nanoseconds worst{0};
    for (auto _ : state) {
        const auto begin = steady_clock::now();
        if (LOG_THE_LINE(logger) <= 0) {
            state.SkipWithError("a line was refused");
            break;
        }
        worst = std::max<std::chrono::nanoseconds>(worst, steady_clock::now() - begin);
    }
    state.counters["worst_us"] = static_cast<double>(worst.count()) / 1e3;
}
BENCHMARK(lineToStoppedServer)->Iterations(100000)->UseRealTime();

/// The floor: the message alone.
void snprintfOfTheMessage(benchmark::State& state) {
    char text[4096];
    for (auto _ : state) {
        const int length =
            std::snprintf(text, sizeof text, "[%s:%d]block %s of pool %d has %ld readers\n",
                          "LogBench", __LINE__, "name", 5, 123456L);
        benchmark::DoNotOptimize(length);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(snprintfOfTheMessage);

void stampReading(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Vantel::Orbel::CTime::getCurTimeForPrint());
    }
}
BENCHMARK(stampReading);

void monotonicReading(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Vantel::Orbel::CTime::getCurrentMicroSecond());
    }
}
BENCHMARK(monotonicReading);

}  // namespace
