#pragma once

// What the exchange is measured against: 32 bytes over a Unix stream socket with epoll on both
// sides, an eventfd, and a Unix stream socket that copies the payload.

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include "bench/IpcCommon.h"

namespace IpcBench {

/// Waits in epoll_wait for the descriptor, as a loop does.
class Readable {
public:
    explicit Readable(int fd) : mEpoll(epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN;
        epoll_ctl(mEpoll, EPOLL_CTL_ADD, fd, &event);
    }
    Readable(const Readable&) = delete;
    Readable& operator=(const Readable&) = delete;
    ~Readable() { close(mEpoll); }

    void wait() const {
        epoll_event event;
        while (epoll_wait(mEpoll, &event, 1, -1) < 1) {
        }
    }

private:
    int mEpoll;
};

inline bool sendWhole(int fd, const void* data, size_t size) {
    const char* at = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t sent = send(fd, at, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        at += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

inline bool receiveWhole(int fd, void* data, size_t size) {
    char* at = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t got = recv(fd, at, size, 0);
        if (got <= 0) {
            return false;
        }
        at += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

/// Runs `turn` (one round trip) until the time is over and reports half of each round trip.
template <class Turn>
void measureRoundTrips(const Role& role, Turn&& turn) {
    std::vector<uint64_t> halves;
    halves.reserve(4000000);
    const uint64_t warm = nowNs() + 50000000u;
    while (nowNs() < warm) {
        turn();
    }
    const uint64_t end = nowNs() + static_cast<uint64_t>(role.number("ms")) * 1000000u;
    while (halves.size() < halves.capacity()) {
        const uint64_t before = nowNs();
        if (before >= end) {
            break;
        }
        turn();
        halves.push_back((nowNs() - before) / 2);
    }
    const Percentiles result = percentiles(halves);
    report("%f %f %f %zu\n", result.p50, result.p99, result.max, halves.size());
}

inline void floor32Ping(const Role& role) {
    const int fd = static_cast<int>(role.number("fd"));
    const Readable readable(fd);
    char message[32] = {};
    measureRoundTrips(role, [&] {
        send(fd, message, sizeof message, MSG_NOSIGNAL);
        readable.wait();
        if (recv(fd, message, sizeof message, MSG_DONTWAIT) != sizeof message) {
            fail("32-byte floor");
        }
    });
}

inline void floor32Pong(const Role& role) {
    const int fd = static_cast<int>(role.number("fd"));
    const Readable readable(fd);
    char message[32];
    for (;;) {
        readable.wait();
        if (recv(fd, message, sizeof message, MSG_DONTWAIT) != sizeof message) {
            return;
        }
        send(fd, message, sizeof message, MSG_NOSIGNAL);
    }
}

inline void eventfdPing(const Role& role) {
    const int out = static_cast<int>(role.number("out"));
    const int in = static_cast<int>(role.number("in"));
    measureRoundTrips(role, [&] {
        eventfd_t value;
        eventfd_write(out, 1);
        eventfd_read(in, &value);
    });
    eventfd_write(out, 1000);
}

inline void eventfdPong(const Role& role) {
    const int out = static_cast<int>(role.number("out"));
    const int in = static_cast<int>(role.number("in"));
    eventfd_t value = 0;
    while (eventfd_read(out, &value) == 0 && value == 1) {
        eventfd_write(in, 1);
    }
}

inline void copyPing(const Role& role) {
    const int fd = static_cast<int>(role.number("fd"));
    const Payload payload = role.payload();
    std::vector<uint64_t> out(payload.size / 8);
    std::vector<uint64_t> in(payload.size / 8);
    uint64_t sequence = 0;
    measureRoundTrips(role, [&] {
        ++sequence;
        payload.write(out.data(), sequence);
        if (!sendWhole(fd, out.data(), payload.size) ||
            !receiveWhole(fd, in.data(), payload.size) || !payload.check(in.data(), sequence)) {
            fail("copying socket");
        }
    });
}

inline void copyPong(const Role& role) {
    const int fd = static_cast<int>(role.number("fd"));
    const Payload payload = role.payload();
    std::vector<uint64_t> data(payload.size / 8);
    uint64_t sequence = 0;
    while (receiveWhole(fd, data.data(), payload.size)) {
        ++sequence;
        if (!payload.check(data.data(), sequence)) {
            fail("copying socket: a sample is wrong");
        }
        payload.write(data.data(), sequence);
        sendWhole(fd, data.data(), payload.size);
    }
}

/// One way: as many samples as fit into the time; the reader tells the rate.
inline void copyWriter(const Role& role) {
    const int fd = static_cast<int>(role.number("fd"));
    const Payload payload = role.payload();
    std::vector<uint64_t> data(payload.size / 8);
    const uint64_t end = nowNs() + static_cast<uint64_t>(role.number("ms")) * 1000000u;
    for (uint64_t sequence = 1; nowNs() < end; ++sequence) {
        payload.write(data.data(), sequence);
        if (!sendWhole(fd, data.data(), payload.size)) {
            fail("copying socket: send");
        }
    }
}

inline void copyReader(const Role& role) {
    const int fd = static_cast<int>(role.number("fd"));
    const Payload payload = role.payload();
    std::vector<uint64_t> data(payload.size / 8);
    uint64_t sequence = 0;
    uint64_t first = 0;
    while (receiveWhole(fd, data.data(), payload.size)) {
        if (++sequence == 1) {
            first = nowNs();
        }
        if (!payload.check(data.data(), sequence)) {
            fail("copying socket: a sample is wrong");
        }
    }
    const double seconds = static_cast<double>(nowNs() - first) / 1e9;
    report("%f %llu\n", static_cast<double>(sequence) / seconds,
           static_cast<unsigned long long>(sequence));
}

/// What one send of 32 bytes costs its caller when the reader sleeps in epoll_wait.
inline void sleepingSend(const Role& role) {
    const int fd = static_cast<int>(role.number("fd"));
    std::vector<uint64_t> costs;
    const char message[32] = {};
    for (int i = 0; i < 2000; ++i) {
        usleep(200);  // long enough for the reader to fall asleep again
        const uint64_t before = nowNs();
        send(fd, message, sizeof message, MSG_NOSIGNAL);
        costs.push_back(nowNs() - before);
    }
    const Percentiles result = percentiles(costs);
    report("%f %f %f %zu\n", result.p50, result.p99, result.max, costs.size());
}

inline void sleepingReceive(const Role& role) {
    const int fd = static_cast<int>(role.number("fd"));
    const Readable readable(fd);
    char message[32];
    do {
        readable.wait();
    } while (recv(fd, message, sizeof message, MSG_DONTWAIT) == sizeof message);
}

}  // namespace IpcBench
