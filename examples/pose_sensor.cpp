// Publishes its latest pose, for whoever looks, and a log of records, for who wants each of them.
//     pose_sensor robot 500        500 poses of 1 ms, then the end
// Run pose_reader and record_reader with the same name beside it.

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "Pose.h"
#include "Vantel/Memory/CShmBuffer.h"
#include "Vantel/Memory/CShmTripleBuffer.h"
#include "Vantel/Orbel/CThread.h"

using namespace Vantel::Memory;

namespace {

void waitForEnter() {
    char line[80];
    (void)!fgets(line, sizeof line, stdin);
}

}  // namespace

int main(int argc, char** argv) {
    const char* name = argc > 1 ? argv[1] : "robot";
    const auto count = argc > 2 ? strtoul(argv[2], nullptr, 10) : 500;

    CShmTripleBuffer latest;
    CShmBuffer log;
    // 64 records of up to 128 bytes; a sleeping reader is woken as soon as it has one to read.
    if (!latest.create(name, sizeof(Pose)) || !log.create(name, 128, 64, 1)) {
        fprintf(stderr, "pose_sensor: cannot create %s\n", name);
        return 1;
    }
    printf("publishing (Enter: go, Enter again: end)\n");
    fflush(stdout);
    waitForEnter();  // starts it

    char record[128];
    for (uint64_t number = 1; number <= count; ++number) {
        const double angle = 0.01 * static_cast<double>(number);
        const Pose pose{number, std::cos(angle), std::sin(angle), angle};
        latest.put(&pose, sizeof pose);  // never waits; who is slow misses some

        const int length = snprintf(record, sizeof record, "pose %lu at %.3f %.3f",
                                    static_cast<unsigned long>(number), pose.x, pose.y);
        // Waits for the slowest reader, a little; a full log loses this record (-2).
        log.put(record, static_cast<unsigned>(length), 100);
        Vantel::Orbel::CThread::sleep(1);
    }
    snprintf(record, sizeof record, "%s", kEndOfLog);
    log.put(record, 3, 1000);
    waitForEnter();  // ends it
    latest.destroy();
    log.destroy();
}
