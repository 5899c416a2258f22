#pragma once

#include <cstdint>

#include "Vantel/Export.h"

/// @file
/// Threads: all of these from any thread, except for the environment: setEnvVariable() must not run
/// beside anything that reads or writes it.

namespace Vantel::Orbel {

/// The counters of the first line of /proc/stat, in clock ticks since boot: the time of all
/// processors together.
struct CPUInfo {
    uint64_t user;     ///< in programs
    uint64_t nice;     ///< in programs of lower priority
    uint64_t system;   ///< in the kernel
    uint64_t idle;     ///< nothing to do
    uint64_t iowait;   ///< nothing to do but to wait for a disk
    uint64_t irq;      ///< in interrupts
    uint64_t softirq;  ///< in what interrupts leave for later
    uint64_t steal;    ///< taken by other virtual machines
};

/// Runs `command` in /bin/sh and waits for its end. The raw wait status (see waitpid), -1 if that
/// fails, 1 for null. The command gets no descriptor but standard input, output and error.
ORBEL_API int systemCall(const char* command);

/// False: the library is built for little-endian machines.
ORBEL_API bool isBigEndian();

/// Reads the counters; false, with an error line, if /proc/stat cannot be read.
ORBEL_API bool getCPUInfo(CPUInfo& info);

/// The load between two readings, the earlier one first: 100000 is all processors busy.
ORBEL_API uint64_t calculateCpuCost(const CPUInfo& first, const CPUInfo& second);

/// Total memory in MiB; the free one goes to `freeMb`.
ORBEL_API long getMemorySize(long& freeMb);

/// Percentage of memory in use, without caches and buffers; 0, with an error line, if
/// /proc/meminfo cannot be read.
ORBEL_API int getMemoryUsage();

/// Processors that are online.
ORBEL_API int getCpuNum();

/// Asked of the kernel at each call, so right in a forked child too.
ORBEL_API int getProcessId();

/// In bytes.
ORBEL_API long getPageSize();

/// The value of an environment variable, null if there is none or `name` is null or empty. Valid
/// until the environment changes.
ORBEL_API const char* getEnvVariable(const char* name);

/// Sets a variable, or removes it if `value` is null. 0; -1 with errno on failure, -1 for a null
/// `name`.
ORBEL_API int setEnvVariable(const char* name, const char* value);

/// Goes on in the background, as daemon(3): 0, or -1 with errno.
ORBEL_API int setDaemon(int nochdir, int noclose);

/// Binds the main thread, and with it each thread that is started later, to one processor; -1
/// unbinds. Threads that run already keep theirs. Says so on standard error. False for a processor
/// that the machine doesn't have, and if the system refuses.
ORBEL_API bool setProcessAffinity(int core);

}  // namespace Vantel::Orbel
