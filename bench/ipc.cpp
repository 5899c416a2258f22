// Samples between processes, measured: orbel in sync and in default mode beside a Unix socket that
// copies the payload and beside the floors of any such exchange, all in one run. Every sample is
// checked. Run it through `./run bench ipc`; one process of this program is one role.

#include <json/json.h>

#include <fstream>
#include <functional>
#include <iostream>

#include "bench/IpcFloors.h"
#include "bench/IpcOrbel.h"
#include "tests/support/IpcCleanup.h"

namespace IpcBench {
namespace {

constexpr struct {
    const char* name;
    void (*run)(const Role&);
} kRoles[] = {
    {"floor32-ping", floor32Ping},   {"floor32-pong", floor32Pong},
    {"eventfd-ping", eventfdPing},   {"eventfd-pong", eventfdPong},
    {"copy-ping", copyPing},         {"copy-pong", copyPong},
    {"copy-writer", copyWriter},     {"copy-reader", copyReader},
    {"sleeping-send", sleepingSend}, {"sleeping-receive", sleepingReceive},
    {"orbel-ping", orbelPing},       {"orbel-pong", orbelPong},
    {"orbel-writer", orbelWriter},   {"orbel-reader", orbelReader},
    {"orbel-alone", orbelAlone},     {"orbel-sleeping", orbelSleepingCommit},
};

constexpr long kSizes[] = {64, 4096, 65536, 1 << 20, 8 << 20};
long gMilliseconds = 400;

/// A domain and channels of its own for each run, since segments keep their pools; removes what the
/// processes of the run leave on the machine.
class Scene {
public:
    explicit Scene(Role& role) : mName(mCleanup.domain("ipcbench")) {
        role.set("domain", mName).set("channel", mName);
    }
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;
    ~Scene() {
        for (const char* suffix : {"", "_there", "_back"}) {
            OrbelTest::IpcCleanup::removeChannel(mName + suffix);
        }
    }

private:
    OrbelTest::IpcCleanup mCleanup;
    const std::string mName;
};

/// A pair of connected stream sockets that only the two roles inherit.
class SocketPair {
public:
    SocketPair() {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, mFds) != 0) {
            fail("socketpair");
        }
        const int bytes = 4 << 20;  // as large as the system allows
        for (const int fd : mFds) {
            setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
            fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
    ~SocketPair() {
        for (const int fd : mFds) {
            close(fd);
        }
    }

    /// Starts a role that owns side `side`; we let go of it, so that its end is seen as such.
    std::unique_ptr<RoleProcess> start(Role role, int side) {
        fcntl(mFds[side], F_SETFD, 0);
        auto process = std::make_unique<RoleProcess>(role.set("fd", mFds[side]));
        close(mFds[side]);
        mFds[side] = -1;
        return process;
    }

private:
    int mFds[2];
};

struct Latency {
    double p50 = 0;
    double p99 = 0;
    double max = 0;
};

Latency parseLatency(const std::string& line) {
    Latency latency;
    if (std::sscanf(line.c_str(), "%lf %lf %lf", &latency.p50, &latency.p99, &latency.max) != 3) {
        fail("a role reported nothing");
    }
    return latency;
}

Role baseRole(long payload, bool whole, long blocks) {
    Role role;
    role.set("payload", payload).set("whole", whole).set("blocks", blocks);
    role.set("ms", gMilliseconds);
    return role;
}

Role as(Role role, const std::string& name, long core) {
    return role.set("role", name).set("core", core);
}

Latency socketPingPong(const std::string& kind, const Role& role, bool twoCores) {
    SocketPair sockets;
    const auto pong = sockets.start(as(role, kind + "-pong", twoCores ? 1 : 0), 1);
    const auto ping = sockets.start(as(role, kind + "-ping", 0), 0);
    const Latency latency = parseLatency(ping->line());
    ping->stop();
    return latency;
}

Latency eventfdPingPong(Role role, bool twoCores) {
    const int out = eventfd(0, 0);
    const int in = eventfd(0, 0);
    role.set("out", out).set("in", in);
    RoleProcess pong(as(role, "eventfd-pong", twoCores ? 1 : 0));
    RoleProcess ping(as(role, "eventfd-ping", 0));
    const Latency latency = parseLatency(ping.line());
    close(out);
    close(in);
    return latency;
}

Latency orbelPingPong(Role role, bool sync, bool twoCores) {
    const Scene scene(role.set("sync", sync));
    RoleProcess pong(as(role, "orbel-pong", twoCores ? 1 : 0));
    RoleProcess ping(as(role, "orbel-ping", 0));
    return parseLatency(ping.line());
}

double copyThroughput(const Role& role, bool twoCores) {
    SocketPair sockets;
    const auto reader = sockets.start(as(role, "copy-reader", twoCores ? 1 : 0), 1);
    const auto writer = sockets.start(as(role, "copy-writer", 0), 0);
    writer->stop();
    return std::atof(reader->line().c_str());
}

struct Flow {
    double delivered = 0;  // samples a second, over all readers
    double full = 0;       // how often the writer found the pool empty
    Latency worst;         // of the slowest reader
};

/// `writerRole` publishes to `readers` processes; the figures of all of them.
Flow orbelFlow(Role role, bool sync, bool twoCores, int readers) {
    const Scene scene(role.set("sync", sync));
    std::vector<std::unique_ptr<RoleProcess>> processes;
    for (int i = 0; i < readers; ++i) {
        const long core = twoCores ? (readers == 1 ? 1 : i % 2) : 0;
        processes.push_back(
            std::make_unique<RoleProcess>(as(role, "orbel-reader", core).set("index", i)));
    }
    RoleProcess writer(as(role, "orbel-writer", 0));
    for (const auto& process : processes) {
        process->line();  // "ready"
    }
    writer.go();
    unsigned long long sent = 0;
    Flow flow;
    std::sscanf(writer.line().c_str(), "%llu %lf", &sent, &flow.full);
    for (const auto& process : processes) {
        double rate = 0;
        unsigned long long count = 0;
        Latency latency;
        if (std::sscanf(process->line().c_str(), "%lf %llu %lf %lf %lf", &rate, &count,
                        &latency.p50, &latency.p99, &latency.max) != 5 ||
            count != sent) {
            fail("a reader did not get every sample");
        }
        flow.delivered += rate;
        if (latency.p99 > flow.worst.p99) {
            flow.worst = latency;
        }
    }
    return flow;
}

Latency sleepingCommit(Role role, bool twoCores) {
    const Scene scene(role.set("sync", 1L));
    RoleProcess reader(as(role, "orbel-reader", twoCores ? 1 : 0).set("index", 0L));
    RoleProcess writer(as(role, "orbel-sleeping", 0));
    reader.line();
    writer.go();
    return parseLatency(writer.line());
}

Latency sleepingSocket(const Role& role, bool twoCores) {
    SocketPair sockets;
    const auto reader = sockets.start(as(role, "sleeping-receive", twoCores ? 1 : 0), 1);
    const auto writer = sockets.start(as(role, "sleeping-send", 0), 0);
    return parseLatency(writer->line());
}

double alone(Role role) {
    const Scene scene(role);
    RoleProcess process(as(role, "orbel-alone", 0));
    return std::atof(process.line().c_str());
}

std::string sizeText(long bytes) {
    if (bytes >= 1 << 20) {
        return std::to_string(bytes >> 20) + " MiB";
    }
    return bytes >= 1024 ? std::to_string(bytes >> 10) + " KiB" : std::to_string(bytes) + " B";
}

const char* coresText(bool twoCores) {
    return twoCores ? "one core each" : "one core";
}

Json::Value latencyJson(const Latency& latency) {
    Json::Value value;
    value["p50"] = latency.p50;
    value["p99"] = latency.p99;
    value["max"] = latency.max;
    return value;
}

void latencyTable(Json::Value& result, bool twoCores) {
    const Latency floor = socketPingPong("floor32", baseRole(64, false, 8), twoCores);
    const Latency event = eventfdPingPong(baseRole(64, false, 8), twoCores);
    std::printf("\nLatency one way, us (p50 / p99), %s; x = p50 over the 32-byte floor\n",
                coresText(twoCores));
    std::printf("  32-byte floor %.2f / %.2f, eventfd %.2f / %.2f\n", floor.p50, floor.p99,
                event.p50, event.p99);
    std::printf("  %-16s %-26s %-26s %s\n", "payload", "sync", "default", "copying socket");
    Json::Value& table = result["latency_us"][coresText(twoCores)];
    table["floor32"] = latencyJson(floor);
    table["eventfd"] = latencyJson(event);
    for (const bool whole : {false, true}) {
        for (const long size : kSizes) {
            const Role role = baseRole(size, whole, 8);
            const Latency sync = orbelPingPong(role, true, twoCores);
            const Latency queued = orbelPingPong(role, false, twoCores);
            const Latency copy = socketPingPong("copy", role, twoCores);
            const std::string name = sizeText(size) + (whole ? " whole" : " touched");
            std::printf("  %-16s %8.2f / %8.2f %5.2fx %8.2f / %8.2f %5.2fx %8.2f / %8.2f\n",
                        name.c_str(), sync.p50, sync.p99, sync.p50 / floor.p50, queued.p50,
                        queued.p99, queued.p50 / floor.p50, copy.p50, copy.p99);
            table[name]["sync"] = latencyJson(sync);
            table[name]["default"] = latencyJson(queued);
            table[name]["copy"] = latencyJson(copy);
        }
    }
}

void throughputTable(Json::Value& result, bool twoCores) {
    std::printf("\nThroughput, samples a second, one reader, nothing lost, %s\n",
                coresText(twoCores));
    std::printf("  %-16s %12s %12s %14s %12s\n", "payload", "sync", "default", "copying socket",
                "sync/copy");
    Json::Value& table = result["throughput"][coresText(twoCores)];
    for (const bool whole : {false, true}) {
        for (const long size : kSizes) {
            // Fewer blocks than the control messages that fit into a socket: the pool, not the
            // socket, then tells the writer to wait, and nothing is lost.
            const long blocks = size <= 65536 ? 64 : (size <= 1 << 20 ? 32 : 8);
            const Role role = baseRole(size, whole, blocks);
            const Flow sync = orbelFlow(role, true, twoCores, 1);
            const Flow queued = orbelFlow(role, false, twoCores, 1);
            const double copy = copyThroughput(role, twoCores);
            const std::string name = sizeText(size) + (whole ? " whole" : " touched");
            std::printf("  %-16s %12.0f %12.0f %14.0f %11.1fx\n", name.c_str(), sync.delivered,
                        queued.delivered, copy, sync.delivered / copy);
            table[name]["sync"] = sync.delivered;
            table[name]["default"] = queued.delivered;
            table[name]["copy"] = copy;
        }
    }
}

void fanOutTable(Json::Value& result) {
    std::printf("\nOne writer, 64 KiB touched, both cores, delivered over all readers\n");
    for (const int readers : {1, 2, 4, 8}) {
        const Flow flow = orbelFlow(baseRole(65536, false, 64), true, true, readers);
        std::printf("  %d readers: %.0f a second, writer found the pool empty %.0f times\n",
                    readers, flow.delivered, flow.full);
        result["fan_out"]["delivered"][std::to_string(readers)] = flow.delivered;
    }
    const Flow paced =
        orbelFlow(baseRole(65536, false, 64).set("rate", 500L).set("ms", 3000L), true, true, 8);
    std::printf("  8 readers at 500 a second: one way p50 %.1f us, p99 %.1f us (%.2fx), max %.1f\n",
                paced.worst.p50, paced.worst.p99, paced.worst.p99 / paced.worst.p50,
                paced.worst.max);
    result["fan_out"]["paced"] = latencyJson(paced.worst);
}

void writerTable(Json::Value& result) {
    const double ns = alone(baseRole(64, false, 64));
    std::printf("\nallocate, commit without a reader, drop: %.0f ns\n", ns * 1.0);
    result["alone_ns"] = ns;
    for (const bool twoCores : {false, true}) {
        const Role role = baseRole(64, false, 64);
        const Latency commit = sleepingCommit(role, twoCores);
        const Latency bare = sleepingSocket(role, twoCores);
        std::printf(
            "commit to a sleeping reader, %s: p50 %.2f us, a bare 32-byte send %.2f us "
            "(%.2fx)\n",
            coresText(twoCores), commit.p50, bare.p50, commit.p50 / bare.p50);
        result["sleeping"][coresText(twoCores)]["commit"] = latencyJson(commit);
        result["sleeping"][coresText(twoCores)]["send"] = latencyJson(bare);
    }
}

int runAll(const char* jsonPath) {
    Json::Value result;
    const bool canPair = sysconf(_SC_NPROCESSORS_ONLN) > 1;
    writerTable(result);
    latencyTable(result, false);
    throughputTable(result, false);
    if (canPair) {
        latencyTable(result, true);
        throughputTable(result, true);
        fanOutTable(result);
    }
    if (jsonPath != nullptr) {
        std::ofstream(jsonPath) << result;
    }
    return 0;
}

}  // namespace
}  // namespace IpcBench

int main(int argc, char** argv) {
    using namespace IpcBench;
    const Role role(argc, argv);
    const std::string name = role.text("role");
    if (name.empty()) {
        if (const char* ms = std::getenv("ORBEL_BENCH_MS")) {
            gMilliseconds = std::atol(ms);
        }
        return runAll(argc > 1 ? argv[1] : nullptr);
    }
    bindToCore(role.number("core"));
    for (const auto& known : kRoles) {
        if (name == known.name) {
            known.run(role);
            return 0;
        }
    }
    return 2;
}
