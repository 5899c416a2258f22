// The other process of ProcessLockTest: takes a lock, says "inside" and waits to be killed.
//   shared <segment>     an SHMMutex at the start of a shared memory object
//   named <name>         a CProcessMutex
//   maker <key>          makes a semaphore set as a lock does, but is killed before it sets it up
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Vantel/Orbel/CProcessMutex.h"
#include "Vantel/Orbel/SHMMutex.h"

using namespace Vantel::Orbel;

namespace {

[[noreturn]] void waitInside() {
    std::puts("inside");
    std::fflush(stdout);
    for (;;) {
        pause();
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    const std::string role = argv[1];
    if (role == "shared") {
        const int fd = shm_open(argv[2], O_RDWR | O_CLOEXEC, 0);
        void* base = mmap(nullptr, sizeof(SHMMutex), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (base != MAP_FAILED && static_cast<SHMMutex*>(base)->enter()) {
            waitInside();
        }
    } else if (role == "named") {
        CProcessMutex lock(argv[2]);
        if (lock.enter()) {
            waitInside();
        }
    } else if (role == "maker") {
        if (semget(std::atoi(argv[2]), 1, IPC_CREAT | IPC_EXCL | 0600) >= 0) {
            waitInside();
        }
    }
    return 1;
}
