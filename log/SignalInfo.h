#pragma once

namespace Vantel::Log {

/// What the crashing thread notes down about its signal.
struct SignalInfo {
    int signo;
    int tid;  // the kernel's
    char threadName[64];
    void* frames[100];  // return addresses, innermost first
    int frameCount;
};

}  // namespace Vantel::Log
