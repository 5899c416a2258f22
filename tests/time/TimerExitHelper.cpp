// Ends with armed timers, static timers and callbacks that are under way: by a return from main, by
// exit() in a callback, or in a forked child, where none of the threads lives.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Vantel/Orbel/CThread.h"
#include "Vantel/Orbel/CTimer.h"
#include "tests/support/ForkedChild.h"

using Vantel::Orbel::CThread;
using Vantel::Orbel::CTimer;

namespace {

CTimer armed("armed");
CTimer repeated("repeated");
CTimer busy("busy");

void nothing(unsigned long) {}

void sleepPastTheEnd(unsigned long ms) {
    CThread::sleep(static_cast<int>(ms));
}

void leave(unsigned long) {
    std::puts("leaving");
    std::exit(0);
}

CTimer* late = nullptr;

/// After the static objects, that is, when the timers have shut down.
[[gnu::destructor]] void useAndDestroyLate() {
    if (late != nullptr && late->start(&nothing, 0, 0, 0, 0)) {
        _exit(2);
    }
    delete late;
    CThread::sleep(300);  // its callback comes back meanwhile
}

/// Goes on in a child; the parent ends as it does.
void becomeChild() {
    const pid_t child = fork();
    if (child != 0) {
        int status = -1;
        waitpid(child, &status, 0);
        _exit(status == 0 ? 0 : 1);
    }
}

}  // namespace

int main(int, char** argv) {
    const std::string how = argv[1];
    if (how == "daemon") {  // has used no timer before, and does so in the child
        becomeChild();
        busy.start(&leave, 1, 0, 0, 0);
        CThread::sleep(30000);
        return 1;
    }
    static auto* const forgotten = new CTimer("forgotten");
    forgotten->start(&nothing, 0, 10, 0, 0);
    armed.start(&nothing, 3600000, 0, 0, 0);
    repeated.start(&nothing, 0, 10, 0, 0);
    late = new CTimer("late");
    late->start(&sleepPastTheEnd, 0, 0, 300, 0);
    if (how == "callback") {
        busy.start(&leave, 0, 0, 0, 0);
        CThread::sleep(30000);
        return 1;
    }
    if (how == "fork") {
        becomeChild();
        late->stopAndWait();  // the thread of its callback does not live here
    }
    leave(0);
}
