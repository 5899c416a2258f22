#include "frame/BuildIdentity.h"

// The build system defines these for this source only; a build without it is nameless.
#ifndef ORBEL_BUILD_TIME
#define ORBEL_BUILD_TIME "1970-01-01 00:00:00"
#endif
#ifndef ORBEL_BUILD_BRANCH
#define ORBEL_BUILD_BRANCH "unknown"
#endif
#ifndef ORBEL_BUILD_COMMIT
#define ORBEL_BUILD_COMMIT "00000000"
#endif
#ifndef ORBEL_HEADER_COMMIT
#define ORBEL_HEADER_COMMIT "0000000(1970-01-01)"
#endif

// The version fields are empty on purpose.
#define ORBEL_VERSION_MAJOR ""
#define ORBEL_VERSION_MINOR ""
#define ORBEL_VERSION_PATCH ""

#if defined(__x86_64__)
#define ORBEL_PROCESSOR "x86_64"
#elif defined(__aarch64__)
#define ORBEL_PROCESSOR "aarch64"
#elif defined(__arm__)
#define ORBEL_PROCESSOR "arm"
#elif defined(__riscv) && __riscv_xlen == 64
#define ORBEL_PROCESSOR "riscv64"
#else
#define ORBEL_PROCESSOR "unknown"
#endif

namespace Vantel::Orbel {

const char* getVersion() {
    return ORBEL_VERSION_MAJOR "." ORBEL_VERSION_MINOR "." ORBEL_VERSION_PATCH;
}

const char* getMajorVersion() {
    return ORBEL_VERSION_MAJOR;
}

const char* getMinorVersion() {
    return ORBEL_VERSION_MINOR;
}

const char* getPatchVersion() {
    return ORBEL_VERSION_PATCH;
}

const char* getBuildInfo() {
    return "Release Build: " ORBEL_BUILD_TIME " Repo: ***" ORBEL_BUILD_BRANCH "(" ORBEL_BUILD_COMMIT
           ")";
}

const char* getCrossPlatform() {
    return ORBEL_PROCESSOR;
}

const char* headerCommit() {
    return ORBEL_HEADER_COMMIT;
}

}  // namespace Vantel::Orbel
