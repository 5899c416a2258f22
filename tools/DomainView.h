#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "frame/base/Mapping.h"
#include "frame/base/UniqueFd.h"
#include "ipc/SegmentLayout.h"

namespace OrbelTools {

/// A look at the segments of a domain from outside: read only, without joining it.
class DomainView {
public:
    /// Maps the domain and the pools that it has at this moment.
    explicit DomainView(const std::string& domain)
        : mDomain(map("/shmipc_domain_" + domain, sizeof(Vantel::Orbel::DomainHeader))) {
        for (const auto& info : table(&Vantel::Orbel::DomainHeader::pools)) {
            if (info.state.load() == Vantel::Orbel::PoolState::InUse) {
                addPool("/shmipc_pool_" + domain + "_" + Vantel::Orbel::storedName(info.name),
                        {info.blockSize.load(), info.extraSize.load(), info.blockCount.load()});
            }
        }
    }

    bool valid() const { return mDomain.valid(); }
    size_t poolCount() const { return mPools.size(); }

    /// Id of the first node of a process, 0 if it has none.
    uint64_t nodeOf(pid_t pid) const {
        for (const auto& node : table(&Vantel::Orbel::DomainHeader::nodes)) {
            if (node.pid.load() == pid) {
                return node.nodeId.load();
            }
        }
        return 0;
    }

    /// Calls `visit(const BlockHeader&)` for every block of every pool.
    template <class Visit>
    void forEachBlock(Visit&& visit) const {
        for (const Pool& pool : mPools) {
            const auto* base = static_cast<const unsigned char*>(pool.mapping.base());
            for (uint32_t i = 0; i < pool.geometry.blockCount; ++i) {
                visit(*reinterpret_cast<const Vantel::Orbel::BlockHeader*>(
                    base + pool.geometry.headerOffset(i)));
            }
        }
    }

private:
    struct Pool {
        Vantel::Orbel::PoolGeometry geometry;
        Vantel::Orbel::Mapping mapping;
    };

    /// Invalid unless the object exists with at least `size` bytes.
    static Vantel::Orbel::Mapping map(const std::string& name, uint64_t size) {
        const Vantel::Orbel::UniqueFd fd(shm_open(name.c_str(), O_RDONLY, 0));
        struct stat status = {};
        if (!fd.valid() || fstat(fd.get(), &status) != 0 ||
            static_cast<uint64_t>(status.st_size) < size) {
            return {};
        }
        void* base = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd.get(), 0);
        return base == MAP_FAILED ? Vantel::Orbel::Mapping() : Vantel::Orbel::Mapping(base, size);
    }

    void addPool(const std::string& name, Vantel::Orbel::PoolGeometry geometry) {
        Vantel::Orbel::Mapping mapping = map(name, geometry.segmentSize());
        if (geometry.valid() && mapping.valid()) {
            mPools.push_back({geometry, std::move(mapping)});
        }
    }

    /// The entries of one of the domain's tables; none without a domain.
    template <class Entry, size_t N>
    struct Entries {
        const Entry* begin() const { return first; }
        const Entry* end() const { return first == nullptr ? nullptr : first + N; }
        const Entry* first;
    };
    template <class Entry, size_t N>
    Entries<Entry, N> table(Entry (Vantel::Orbel::DomainHeader::*member)[N]) const {
        const auto* header = static_cast<const Vantel::Orbel::DomainHeader*>(mDomain.base());
        return {header == nullptr ? nullptr : &(header->*member)[0]};
    }

    Vantel::Orbel::Mapping mDomain;
    std::vector<Pool> mPools;
};

}  // namespace OrbelTools
