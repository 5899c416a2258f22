#pragma once

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace OrbelTest {

/// This thread, and what it starts, can never do again what `capability` (CAP_...) is for. True
/// also if it could not before.
inline bool dropCapability(unsigned capability) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    for (auto* set : {&data[0].effective, &data[0].permitted, &data[0].inheritable}) {
        *set &= ~(1u << capability);
    }
    return syscall(SYS_capset, &header, data) == 0;
}

}  // namespace OrbelTest
