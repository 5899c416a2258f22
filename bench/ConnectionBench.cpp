#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/StreamConnection.h"

using namespace Vantel::Orbel;

/// Messages to and fro between two connected Unix sockets in one thread, so that no wake-up of
/// another thread hides the library's own cost. One item is one message: one wait, one receive, one
/// send. Beside it the same by hand on epoll. Run under
/// `strace -f -c` it shows the system calls.

namespace {

std::atomic<uint64_t> gAllocations{0};

void makePair(int fds[2]) {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) {
        std::abort();
    }
}

constexpr int kRounds = 1000;

void connections(benchmark::State& state) {
    EventLoop loop;
    int fds[2];
    makePair(fds);
    const std::string message(static_cast<size_t>(state.range(0)), 'x');
    int left = 0;
    size_t bytes = 0;
    StreamConnectionPtr ends[2];
    for (int i : {0, 1}) {
        ends[i] = std::make_shared<StreamConnection>(&loop, "end", fds[i]);
        ends[i]->setMessageCallback([&](const StreamConnectionPtr& end, NetBuffer* buffer) {
            if (buffer->size() < message.size()) {
                return;
            }
            bytes += buffer->size();
            buffer->consume(message.size());
            if (--left <= 0) {
                loop.quit();
            } else {
                end->send(message);
            }
        });
        ends[i]->connectEstablished();
    }
    const auto run = [&] {
        left = kRounds;
        bytes = 0;
        ends[0]->send(message);
        loop.loop();
    };
    run();  // the buffers get their storage
    const uint64_t before = gAllocations.load();
    for (auto _ : state) {
        run();
        if (bytes != kRounds * message.size()) {
            state.SkipWithError("bytes lost");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kRounds);
    state.counters["allocations"] =
        benchmark::Counter(static_cast<double>(gAllocations.load() - before) / kRounds,
                           benchmark::Counter::kAvgIterations);
    for (const StreamConnectionPtr& end : ends) {
        end->connectDestroyed();
    }
}

void bareEpoll(benchmark::State& state) {
    int fds[2];
    makePair(fds);
    const int poller = epoll_create1(EPOLL_CLOEXEC);
    for (int fd : fds) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(poller, EPOLL_CTL_ADD, fd, &event);
    }
    const std::string message(static_cast<size_t>(state.range(0)), 'x');
    std::string received(0x20000, ' ');
    size_t have = 0;
    for (auto _ : state) {
        send(fds[0], message.data(), message.size(), MSG_NOSIGNAL);
        for (int left = kRounds; left > 0;) {
            epoll_event event{};
            if (epoll_wait(poller, &event, 1, -1) != 1) {
                continue;
            }
            have += static_cast<size_t>(recv(event.data.fd, received.data(), received.size(), 0));
            if (have < message.size()) {
                continue;
            }
            have -= message.size();
            if (--left > 0) {
                send(event.data.fd, message.data(), message.size(), MSG_NOSIGNAL);
            }
        }
        if (have != 0) {
            state.SkipWithError("bytes lost");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kRounds);
    close(poller);
    close(fds[0]);
    close(fds[1]);
}

BENCHMARK(bareEpoll)->Arg(64)->Arg(4096)->Arg(65536);
BENCHMARK(connections)->Arg(64)->Arg(4096)->Arg(65536);

}  // namespace

[[gnu::noinline]] void* operator new(size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
