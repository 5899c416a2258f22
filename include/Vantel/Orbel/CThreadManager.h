#pragma once

#include <string>
#include <vector>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// Knows all running CThreads of the process.
///
/// Threads: all methods from any thread. The object is never destroyed.
class ORBEL_API CThreadManager {
public:
    /// Made at first use.
    static CThreadManager* instance();

    CThreadManager(const CThreadManager&) = delete;
    CThreadManager& operator=(const CThreadManager&) = delete;

    /// Makes the calling thread the one that the list shows as "main".
    void registerMainThread();

    /// Writes the list of threads, the most recent first, to the log.
    void printThreads();

    /// Copies the name of the thread with the kernel's id `tid`; false if there is none.
    bool getThreadNameById(int tid, std::string& name);

    /// The threads whose deadline has passed, each as "name(tid)"; true if there is any.
    bool getTimeoutThreadName(std::vector<std::string>& names);

    /// Whether a running CThread has the kernel's id `tid`.
    bool hasThread(int tid);

private:
    CThreadManager() = default;
};

}  // namespace Vantel::Orbel
