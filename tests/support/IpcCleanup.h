#pragma once

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/TestName.h"

namespace OrbelTest {

/// Hands out names for domains, pools and channels that no other test uses, and removes what they
/// left on the machine in its destructor, that is, also after a failure: segments, the System V
/// semaphore sets of their process mutexes, socket files.
class IpcCleanup {
public:
    IpcCleanup() = default;
    IpcCleanup(const IpcCleanup&) = delete;
    IpcCleanup& operator=(const IpcCleanup&) = delete;
    ~IpcCleanup() {
        for (const std::string& name : mDomains) {
            removeDomain(name);
        }
        for (const std::string& name : mPools) {
            removePool(name);
        }
        for (const std::string& name : mChannels) {
            removeChannel(name);
        }
    }

    /// With all pools of the domain and the sockets of its nodes.
    std::string domain(const std::string& base) { return mDomains.emplace_back(uniqueName(base)); }
    /// A pool by itself: the full name, as SharedMemPool takes it.
    std::string pool(const std::string& base) { return mPools.emplace_back(uniqueName(base)); }
    std::string channel(const std::string& base) {
        return mChannels.emplace_back(uniqueName(base));
    }

    static void removeDomain(const std::string& name) {
        const std::string pools = "shmipc_pool_";
        for (const std::string& file : filesOf("/dev/shm", pools + name + "_")) {
            removePool(file.substr(pools.size()));
        }
        for (const std::string& file : filesOf("/tmp", "shmipc_" + name + "_")) {
            unlink(("/tmp/" + file).c_str());
        }
        shm_unlink(("/shmipc_domain_" + name).c_str());
        removeMutex("share_mem_domain/" + name);
    }
    static void removePool(const std::string& name) {
        shm_unlink(("/shmipc_pool_" + name).c_str());
        removeMutex(name);
    }
    static void removeChannel(const std::string& name) {
        shm_unlink(("/shmipc_channel_" + name + "_status").c_str());
        removeMutex(name);
    }
    /// The semaphore set of the CProcessMutex of this name.
    static void removeMutex(const std::string& name) {
        const auto key = static_cast<key_t>(std::hash<std::string>{}(name)&0x7fffffff);
        const int set = semget(key, 0, 0);
        if (set >= 0) {
            semctl(set, 0, IPC_RMID);
        }
    }

private:
    static std::vector<std::string> filesOf(const char* directory, const std::string& prefix) {
        std::vector<std::string> files;
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator(directory, ignored)) {
            const std::string name = entry.path().filename();
            if (name.rfind(prefix, 0) == 0) {
                files.push_back(name);
            }
        }
        return files;
    }

    std::vector<std::string> mDomains;
    std::vector<std::string> mPools;
    std::vector<std::string> mChannels;
};

}  // namespace OrbelTest
