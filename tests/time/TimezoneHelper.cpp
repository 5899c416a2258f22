// Prints the offset in seconds west of UTC that conversions apply in a fresh process; with an
// argument, after the time zone was switched off.
#include <cstdio>

#include "Vantel/Orbel/CTime.h"

using Vantel::Orbel::CTime;

int main(int argc, char**) {
    if (argc > 1) {
        CTime::disableTimezone();
    }
    const CTime local(uint64_t{30} * 86400 * 1000);
    const CTime utc(1970, 1, 31, 0, 0, 0, 0);
    std::printf("%ld %ld\n", (utc - local) / 1000,
                static_cast<long>(utc.makeTime() / 1000) - 30 * 86400);
}
