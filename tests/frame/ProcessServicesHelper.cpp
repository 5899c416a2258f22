// Says what it has inherited: each descriptor from 3 up to 4095 that is open.
#include <fcntl.h>

#include <cstdio>

int main() {
    for (int fd = 3; fd < 4096; ++fd) {
        if (fcntl(fd, F_GETFD) != -1) {
            std::printf("%d\n", fd);
        }
    }
}
