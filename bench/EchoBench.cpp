// Echo of 64 bytes: this library's server beside a hand-written epoll server, in one process, each
// on a thread of its own, under the same load generator on a third. They take turns in short rounds
// and the ratios are medians over the rounds, so that they do not drift with the machine. Every
// answer is checked.
//
// Counters: requests per second of each server with 64 and with 1,000 connections, one request
// under way on each; rate_vs_epoll and rate_vs_epoll_1000, this library's rate over the other's
// (higher is better); cost_of_1000 and epoll_cost_of_1000, time per request with 1,000 connections
// over that with 64; cpu_vs_epoll, processor time of the servers' threads (lower is better).

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/EventLoopThread.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/Socket.h"
#include "Vantel/Orbel/StreamConnection.h"
#include "Vantel/Orbel/StreamServer.h"
#include "frame/base/UniqueFd.h"

using namespace Vantel::Orbel;
using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t kMessageSize = 64;
constexpr int kMaxEvents = 512;

[[noreturn]] void fail(const char* what) {
    perror(what);
    abort();
}

int check(int result, const char* what) {
    return result >= 0 ? result : (fail(what), -1);
}

InetAddress freshAddress(int family, const char* name) {
    return family == AF_INET ? InetAddress::createLoopback4(0)
                             : InetAddress::createUnix("/tmp/echo_bench_" + std::string(name) +
                                                       "_" + std::to_string(getpid()) + ".sock");
}

void watch(int epollFd, int fd, uint32_t tag) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u32 = tag;
    check(epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
}

double cpuSeconds(pthread_t thread) {
    clockid_t clock = {};
    timespec time = {};
    pthread_getcpuclockid(thread, &clock);
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// The library's server, as an application writes it.
class OrbelServer {
public:
    explicit OrbelServer(int family)
        : mThread([this](EventLoop*) { mId = pthread_self(); }, "echo"),
          mServer(mThread.startLoop(), "echo") {
        mServer.setMessageCallback([](const StreamConnectionPtr& connection, NetBuffer* input) {
            connection->send(input->data(), input->size());
            input->consume(input->size());
        });
        if (!mServer.initial(freshAddress(family, "orbel"), "", false) || !mServer.start()) {
            fail("orbel server");
        }
    }
    InetAddress addr() const { return mServer.listenAddr(); }
    double cpu() const { return cpuSeconds(mId); }

private:
    std::atomic<pthread_t> mId{};
    EventLoopThread mThread;
    StreamServer mServer;
};

/// The least that serves: level-triggered epoll, one read and one write for each message.
class EpollServer {
public:
    explicit EpollServer(int family)
        : mListener(
              check(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket")),
          mEpoll(check(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
          mStop(check(eventfd(0, EFD_CLOEXEC), "eventfd")) {
        const InetAddress addr = freshAddress(family, "epoll");
        mPath = addr.getUnixPath();
        check(::bind(mListener.get(), addr.getSockAddr(), addr.getSockLen()), "bind");
        check(::listen(mListener.get(), 128), "listen");
        mAddr = Socket::getLocalAddr(mListener.get());
        watch(mEpoll.get(), mListener.get(), static_cast<uint32_t>(mListener.get()));
        watch(mEpoll.get(), mStop.get(), static_cast<uint32_t>(mStop.get()));
        mThread = std::thread([this] { serve(); });
        mId = mThread.native_handle();
    }
    ~EpollServer() {
        eventfd_write(mStop.get(), 1);
        mThread.join();
        if (!mPath.empty()) {
            ::unlink(mPath.c_str());
        }
    }
    InetAddress addr() const { return mAddr; }
    double cpu() const { return cpuSeconds(mId); }

private:
    void serve() {
        epoll_event events[kMaxEvents];
        for (;;) {
            const int count = epoll_wait(mEpoll.get(), events, kMaxEvents, 1000);
            for (int i = 0; i < count; ++i) {
                const int fd = static_cast<int>(events[i].data.u32);
                if (fd == mStop.get()) {
                    return;
                }
                if (fd == mListener.get()) {
                    acceptAll();
                } else {
                    echo(fd);
                }
            }
        }
    }
    void acceptAll() {
        for (;;) {
            const int fd =
                ::accept4(mListener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd < 0) {
                return;
            }
            mConnections.emplace_back(fd);
            watch(mEpoll.get(), fd, static_cast<uint32_t>(fd));
        }
    }
    void echo(int fd) {
        char bytes[4096];
        const ssize_t count = ::recv(fd, bytes, sizeof bytes, 0);
        if (count <= 0) {
            epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, fd, nullptr);
        } else if (::send(fd, bytes, static_cast<size_t>(count), MSG_NOSIGNAL) != count) {
            fail("short send");
        }
    }

    UniqueFd mListener;
    UniqueFd mEpoll;
    UniqueFd mStop;
    std::vector<UniqueFd> mConnections;
    std::string mPath;
    InetAddress mAddr;
    std::thread mThread;
    pthread_t mId{};
};

/// Keeps one request under way on each of its connections.
class Load {
public:
    Load(const InetAddress& addr, uint32_t connections)
        : mEpoll(check(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")), mSent(connections) {
        for (uint32_t i = 0; i < connections; ++i) {
            mSockets.emplace_back(
                check(::socket(addr.family(), SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
            check(::connect(mSockets[i].get(), addr.getSockAddr(), addr.getSockLen()), "connect");
            watch(mEpoll.get(), mSockets[i].get(), i);
        }
    }

    /// Makes `perConnection` requests on each connection; the rate per second.
    double run(uint32_t perConnection) {
        const auto begin = Clock::now();
        mTarget = mSent[0] + perConnection;
        for (uint32_t i = 0; i < mSockets.size(); ++i) {
            request(i);
        }
        epoll_event events[kMaxEvents];
        for (size_t idle = 0; idle < mSockets.size();) {
            const int count = epoll_wait(mEpoll.get(), events, kMaxEvents, 10000);
            if (count <= 0) {
                fail("no answer");
            }
            for (int i = 0; i < count; ++i) {
                const uint32_t index = events[i].data.u32;
                verify(index);
                if (mSent[index] < mTarget) {
                    request(index);
                } else {
                    ++idle;
                }
            }
        }
        return static_cast<double>(mSockets.size()) * perConnection /
               std::chrono::duration<double>(Clock::now() - begin).count();
    }

private:
    struct Message {
        uint32_t words[kMessageSize / 4];
    };

    static Message message(uint32_t index, uint32_t number) {
        Message text = {};
        for (uint32_t i = 0; i < kMessageSize / 4; ++i) {
            text.words[i] = index * 2654435761u + number * 40503u + i;
        }
        return text;
    }
    void request(uint32_t index) {
        const Message text = message(index, mSent[index]++);
        if (::send(mSockets[index].get(), &text, sizeof text, MSG_NOSIGNAL) != sizeof text) {
            fail("send");
        }
    }
    void verify(uint32_t index) {
        const Message wanted = message(index, mSent[index] - 1);
        Message got = {};
        if (::recv(mSockets[index].get(), &got, sizeof got, MSG_WAITALL) != sizeof got ||
            memcmp(&got, &wanted, sizeof got) != 0) {
            fail("wrong answer");
        }
    }

    UniqueFd mEpoll;
    std::vector<UniqueFd> mSockets;
    std::vector<uint32_t> mSent;
    uint32_t mTarget = 0;
};

void allowManyDescriptors() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

/// One load on one server, round by round.
template <class Server>
struct Lane {
    Lane(const Server& aServer, uint32_t connections, uint32_t perConnection)
        : server(aServer), load(server.addr(), connections), requests(perConnection) {
        load.run(10);  // accepted connections and first-time storage are not what is measured
    }
    void round() {
        const double before = server.cpu();
        rates.push_back(load.run(requests));
        cpu.push_back(server.cpu() - before);
    }

    const Server& server;
    Load load;
    const uint32_t requests;
    std::vector<double> rates;
    std::vector<double> cpu;
};

/// The median of the ratios within each round: a busy machine troubles both sides of a round.
double medianRatio(const std::vector<double>& over, const std::vector<double>& under) {
    std::vector<double> ratios;
    for (size_t i = 0; i < over.size(); ++i) {
        ratios.push_back(over[i] / under[i]);
    }
    return median(std::move(ratios));
}

void echo(benchmark::State& state, int family) {
    allowManyDescriptors();
    const OrbelServer orbel(family);
    const EpollServer epoll(family);
    Lane<OrbelServer> orbelFew(orbel, 64, 48);
    Lane<EpollServer> epollFew(epoll, 64, 48);
    Lane<OrbelServer> orbelMany(orbel, 1000, 3);
    Lane<EpollServer> epollMany(epoll, 1000, 3);
    bool swap = false;  // who goes first takes turns too
    for (auto _ : state) {
        swap ? epollFew.round() : orbelFew.round();
        swap ? orbelFew.round() : epollFew.round();
        swap ? epollMany.round() : orbelMany.round();
        swap ? orbelMany.round() : epollMany.round();
        swap = !swap;
    }
    state.counters["orbel_64"] = median(orbelFew.rates);
    state.counters["epoll_64"] = median(epollFew.rates);
    state.counters["orbel_1000"] = median(orbelMany.rates);
    state.counters["epoll_1000"] = median(epollMany.rates);
    state.counters["rate_vs_epoll"] = medianRatio(orbelFew.rates, epollFew.rates);
    state.counters["rate_vs_epoll_1000"] = medianRatio(orbelMany.rates, epollMany.rates);
    state.counters["cost_of_1000"] = medianRatio(orbelFew.rates, orbelMany.rates);
    state.counters["epoll_cost_of_1000"] = medianRatio(epollFew.rates, epollMany.rates);
    state.counters["cpu_vs_epoll"] = medianRatio(orbelFew.cpu, epollFew.cpu);
}
BENCHMARK_CAPTURE(echo, tcp, AF_INET)->UseRealTime()->MinTime(3)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(echo, unix, AF_UNIX)->UseRealTime()->MinTime(3)->Unit(benchmark::kMillisecond);

}  // namespace
