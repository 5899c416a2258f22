// Its entry points do what the test tells them, once it has loaded the library itself.
#include "Vantel/Export.h"

extern "C" {
ORBEL_API int (*hookedInit)() = nullptr;
ORBEL_API int (*hookedExit)() = nullptr;

ORBEL_API int objectPluginInit() {
    return hookedInit();
}
ORBEL_API int objectPluginExit() {
    return hookedExit();
}
}
