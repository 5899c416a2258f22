#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Vantel/Export.h"

namespace Json {
class Value;
}

namespace Vantel::Orbel {

class SharedMemNode;

/// A named meeting place of the processes of one machine for samples in shared memory. A process
/// joins it, makes nodes in it, and through the nodes channels to write and read samples.
///
/// A domain keeps one thread for its control traffic and its checks of dead processes, and from the
/// first asynchronous read on one more for the read callbacks. One process of the domain, the
/// master, frees what dead processes left behind; another takes over when it dies, but not when it
/// leaves and lives on: nobody frees anything then.
///
/// What is left on the machine: "/dev/shm/shmipc_domain_<domain>", one
/// "/dev/shm/shmipc_pool_<domain>_<pool>" a pool and one System V semaphore set a named lock.
/// Nothing here removes them; a later run of the same domain goes on with what it finds.
///
/// Names: a domain, pool or node name becomes part of file names, so it holds no slash; at most 63
/// characters of a pool or node name are stored. The parts of a name are joined with "_" and run
/// together: domain "a" with pool "b_c" and domain "a_b" with pool "c" are one segment. The path of
/// a node's socket, "/tmp/shmipc_<domain>_<node>.socket", holds at most 107 characters. Channel
/// names carry no domain: they are unique on the machine.
///
/// Whether a process lives is asked by its id alone: an id that was given to another program, or
/// processes of different pid namespaces on one /dev/shm, can deceive it.
///
/// Threads: all methods from any thread, except that deInit() must not be called in the domain's
/// own threads, that is, not in a read callback. A forked child executes another program before it
/// uses a domain: the threads do not survive fork.
class ORBEL_API SharedMemDomain {
public:
    /// One pool of equal blocks. `extraSize` should be a multiple of 8: the stride of the block
    /// headers is `extraSize` + 128, and other values put their 64-bit atomics on odd addresses,
    /// which is slow where it works at all.
    struct PoolConfig {
        std::string name;         ///< not empty
        unsigned int blockSize;   ///< payload bytes of a block, above 0
        unsigned int extraSize;   ///< bytes of side data of a block, may be 0
        unsigned int blockCount;  ///< blocks, 1 to 2^23; the whole pool stays below 4 GiB
    };

    /// The domain `name` of this process: the same object at each call, kept until the process
    /// exits, which leaves it in good order. Nothing is attached yet.
    static std::shared_ptr<SharedMemDomain> instance(const std::string& name);

    SharedMemDomain() = default;
    SharedMemDomain(const SharedMemDomain&) = delete;
    SharedMemDomain& operator=(const SharedMemDomain&) = delete;
    virtual ~SharedMemDomain();

    /// Leaves the domain: closes the nodes of this process with their channels, waits until each
    /// read callback that was queued has run, ends the threads. Samples that the application still
    /// holds stay readable. True only for the call that did it. Asserts that it is not called in
    /// the domain's own threads, which it would wait for.
    virtual bool deInit() = 0;

    /// As given to instance().
    virtual std::string domainName() const = 0;

    /// Closes the node `name` of this process and forgets it. False if there is none.
    virtual bool destroyNode(const std::string& name) = 0;

    /// Joins the domain, with the first process to do so as its master. Keys of `config`, all of
    /// them optional: "realtime" (boolean, false), "priority" (integer, -1) and "attachCore"
    /// (integer, -1) of the control thread, as in EventLoopThread::setSchedulePolicy. True at once
    /// if already joined. False, with a line in the log, if a value has a wrong type, a segment is
    /// not usable, a pool cannot be made or the control thread does not start; init() may then be
    /// called again. A default action for SIGPIPE is replaced by ignoring it.
    virtual bool init(const Json::Value& config) = 0;

    /// A new node, or the one of that name in this process; the caller then calls its init(). Null,
    /// with a line in the log, before init(), or if the process or the domain has 32 nodes already.
    virtual std::shared_ptr<SharedMemNode> createNode(const std::string& name) = 0;

    /// The pools that init() makes if it finds none in the domain: a domain has the pools of its
    /// first process, whatever the others ask for. At most 32. A config without a name, block size
    /// or block count is skipped with a line in the log. Before init(), and not beside it.
    virtual void setPoolConfigs(const std::vector<PoolConfig>& configs) = 0;

    /// One clean-up pass, which the control thread makes every 100 ms by itself. Always true.
    virtual bool check() = 0;
};

}  // namespace Vantel::Orbel
