#pragma once

#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace Vantel::Orbel {

/// The proxies of one direction, by node id. What is missing is built again from the node table.
///
/// Threads: any. The mutex is held for map operations only: closing a proxy waits for the loop.
/// Each proxy that leaves the cache is closed, since another thread may still hold it, and its
/// client must not outlive the loop.
template <class Proxy>
class ProxyCache {
public:
    using Map = std::map<unsigned long, std::shared_ptr<Proxy>>;

    std::shared_ptr<Proxy> find(unsigned long nodeId) const {
        std::lock_guard<std::mutex> guard(mMutex);
        const auto found = mProxies.find(nodeId);
        return found == mProxies.end() ? nullptr : found->second;
    }

    /// Enters a new proxy. Returns the one that counts: `built`, or one that another thread has
    /// entered meanwhile, or null if the cache is shut.
    std::shared_ptr<Proxy> insert(const std::shared_ptr<Proxy>& built) {
        std::shared_ptr<Proxy> used;
        {
            std::lock_guard<std::mutex> guard(mMutex);
            if (mOpen) {
                used = mProxies.emplace(built->nodeId(), built).first->second;
            }
        }
        if (used != built) {
            built->close();
        }
        return used;
    }

    void drop(unsigned long nodeId) {
        Map dropped;
        {
            std::lock_guard<std::mutex> guard(mMutex);
            dropped.insert(mProxies.extract(nodeId));
        }
        close(dropped);
    }

    /// Drops the proxies whose node no longer stands in its slot.
    void dropInvalid() {
        Map dropped;
        {
            std::lock_guard<std::mutex> guard(mMutex);
            for (auto at = mProxies.begin(); at != mProxies.end();) {
                const auto next = std::next(at);
                if (!at->second->valid()) {
                    dropped.insert(mProxies.extract(at));
                }
                at = next;
            }
        }
        close(dropped);
    }

    void open() {
        std::lock_guard<std::mutex> guard(mMutex);
        mOpen = true;
    }

    /// Shuts the cache and gives its content away, to be closed by close().
    Map shut() {
        std::lock_guard<std::mutex> guard(mMutex);
        mOpen = false;
        return std::exchange(mProxies, {});
    }

    static void close(const Map& proxies) {
        for (const auto& [nodeId, proxy] : proxies) {
            proxy->close();
        }
    }

private:
    mutable std::mutex mMutex;
    Map mProxies;
    bool mOpen = false;
};

}  // namespace Vantel::Orbel
