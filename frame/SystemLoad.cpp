#include <sys/sysinfo.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "Vantel/Orbel/ProcessServices.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

namespace {

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

File openText(const char* path) {
    return File(std::fopen(path, "re"), &std::fclose);
}

/// `steal` takes no part.
uint64_t totalTicks(const CPUInfo& info) {
    return info.user + info.nice + info.system + info.idle + info.iowait + info.irq + info.softirq;
}

uint64_t totalMemoryKiB() {
    struct sysinfo info {};
    sysinfo(&info);
    return uint64_t{info.totalram} * (info.mem_unit == 0 ? 1 : info.mem_unit) >> 10;
}

}  // namespace

bool getCPUInfo(CPUInfo& info) {
    const File file = openText("/proc/stat");
    if (!file) {
        ORBEL_LOG_ERROR("open /proc/stat failed\n");
        return false;
    }
    char line[512];
    if (std::fgets(line, sizeof line, file.get()) == nullptr || line[0] != 'c') {
        return false;
    }
    info = CPUInfo{};
    return std::sscanf(line, "cpu %lu %lu %lu %lu %lu %lu %lu %lu", &info.user, &info.nice,
                       &info.system, &info.idle, &info.iowait, &info.irq, &info.softirq,
                       &info.steal) >= 4;
}

uint64_t calculateCpuCost(const CPUInfo& first, const CPUInfo& second) {
    const uint64_t difference = totalTicks(second) - totalTicks(first);
    const uint64_t total = difference == 0 ? 1 : difference;
    // Wraps round if the idle ticks ran ahead of the sum; then the smaller is the total.
    const uint64_t busy = total - (second.idle - first.idle);
    return std::min(total, busy) * 100000 / total;
}

long getMemorySize(long& freeMb) {
    struct sysinfo info {};
    sysinfo(&info);
    freeMb = static_cast<long>(info.freeram >> 20);  // the memory unit is left out, on purpose
    return static_cast<long>(info.totalram >> 20);
}

int getMemoryUsage() {
    const File file = openText("/proc/meminfo");
    if (!file) {
        ORBEL_LOG_ERROR("open /proc/meminfo failed\n");
        return 0;
    }
    static constexpr const char* kFormats[] = {"Cached: %lu %*s\n", "Buffers: %lu %*s\n",
                                               "MemFree: %lu %*s\n"};
    uint64_t unused = 0;
    size_t found = 0;
    char line[61];
    while (found < std::size(kFormats) && std::fgets(line, sizeof line, file.get()) != nullptr) {
        for (const char* format : kFormats) {
            unsigned long value = 0;
            if (std::sscanf(line, format, &value) == 1) {
                unused += value;
                ++found;
            }
        }
    }
    const uint64_t total = totalMemoryKiB();
    return total == 0 ? 0 : static_cast<int>(100 - static_cast<int64_t>(100 * unused / total));
}

}  // namespace Vantel::Orbel
