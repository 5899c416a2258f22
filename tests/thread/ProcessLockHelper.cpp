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

int main(int, char** argv) {
    const std::string role = argv[1];
    bool inside = false;
    if (role == "shared") {
        const int fd = shm_open(argv[2], O_RDWR | O_CLOEXEC, 0);
        void* base = mmap(nullptr, sizeof(SHMMutex), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        inside = base != MAP_FAILED && static_cast<SHMMutex*>(base)->enter();
    } else if (role == "named") {
        inside = (new CProcessMutex(argv[2]))->enter();
    } else if (role == "maker") {
        inside = semget(std::atoi(argv[2]), 1, IPC_CREAT | IPC_EXCL | 0600) >= 0;
    }
    std::puts(inside ? "inside" : "failed");
    std::fflush(stdout);
    pause();
}
