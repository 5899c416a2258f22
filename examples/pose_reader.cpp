// Prints the pose that pose_sensor has published last, ten times a second.
//     pose_reader robot 10        at most ten of them
// Ends with the sensor.

#include <cstdio>
#include <cstdlib>

#include "Pose.h"
#include "Vantel/Memory/CShmTripleBuffer.h"
#include "Vantel/Orbel/CThread.h"

using namespace Vantel::Memory;

int main(int argc, char** argv) {
    const char* name = argc > 1 ? argv[1] : "robot";
    auto left = argc > 2 ? strtoul(argv[2], nullptr, 10) : 10;

    CShmTripleBuffer latest;
    if (!latest.open(name, true)) {  // true: each pose once
        fprintf(stderr, "pose_reader: no sensor %s\n", name);
        return 1;
    }
    printf("looking\n");
    fflush(stdout);
    while (left > 0) {
        Pose pose;
        unsigned int size = 0;
        unsigned long sequence = 0;
        const int got = latest.get(&pose, sizeof pose, &size, &sequence);
        if (got == sizeof pose) {
            printf("pose %lu at %.3f %.3f\n", sequence, pose.x, pose.y);
            fflush(stdout);
            --left;
        } else if (got < 0) {
            break;  // the sensor has taken the buffer away
        }           // 0: nothing new
        Vantel::Orbel::CThread::sleep(100);
    }
}
