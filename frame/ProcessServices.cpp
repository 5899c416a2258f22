#include "Vantel/Orbel/ProcessServices.h"

#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Vantel::Orbel {

bool isBigEndian() {
    return false;
}

int getCpuNum() {
    return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
}

int getProcessId() {
    return getpid();
}

long getPageSize() {
    return sysconf(_SC_PAGESIZE);
}

const char* getEnvVariable(const char* name) {
    return name == nullptr || *name == '\0' ? nullptr : std::getenv(name);
}

int setEnvVariable(const char* name, const char* value) {
    if (name == nullptr) {
        return -1;
    }
    return value == nullptr ? unsetenv(name) : setenv(name, value, 1);
}

int setDaemon(int nochdir, int noclose) {
    return daemon(nochdir, noclose);
}

bool setProcessAffinity(int core) {
    const int count = getCpuNum();
    std::fprintf(stderr, "set cpu affinity(%d),core num %d.....\n", core, count);
    if (core < -1 || core >= count) {
        return false;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    if (core == -1) {
        std::memset(&set, 0xff, sizeof set);
    } else {
        CPU_SET(static_cast<size_t>(core), &set);
    }
    // By the process id, which is the main thread's: 0 would mean whoever calls.
    if (sched_setaffinity(getpid(), sizeof set, &set) != 0) {
        std::fprintf(stderr, "sched set process affinity(%d) failed:%s\n", core,
                     std::strerror(errno));
        return false;
    }
    return true;
}

}  // namespace Vantel::Orbel
