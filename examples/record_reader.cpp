// Prints every record of pose_sensor's log; sleeps in an event loop while there is none.
//     record_reader robot
// Ends with the log.

#include <cstdio>
#include <string>

#include "Pose.h"
#include "Vantel/Memory/CShmBuffer.h"
#include "Vantel/Orbel/Channel.h"
#include "Vantel/Orbel/EventLoop.h"

using namespace Vantel;

int main(int argc, char** argv) {
    const char* name = argc > 1 ? argv[1] : "robot";

    Memory::CShmBuffer log;
    if (!log.open(name) || !log.enableEvent(true)) {
        fprintf(stderr, "record_reader: no sensor %s\n", name);
        return 1;
    }
    Orbel::EventLoop loop;
    Orbel::Channel wakeUps(&loop, log.getEventFd());  // the descriptor stays the log's
    wakeUps.setReadCallback([&] {
        log.readEvent(1024);  // first the signals, then the records: none is missed that way
        char record[128];
        unsigned int size = 0;
        while (log.get(record, sizeof record, &size) > 0) {
            if (std::string(record, size) == kEndOfLog) {
                loop.quit();
                return;
            }
            printf("%.*s\n", static_cast<int>(size), record);
        }
        fflush(stdout);
    });
    wakeUps.enableReading();
    printf("listening\n");
    fflush(stdout);
    loop.loop();
    wakeUps.disableAll();
    wakeUps.remove();  // before the log closes the descriptor
}
