// Uses the library from outside its tree: a delegate, a signal, the logger and a clock.
#include <cstdio>
#include <cstring>

#include "Vantel/ILogger.h"
#include "Vantel/Orbel/CTime.h"

namespace {

int gLines = 0;

void onLine(Vantel::ILogger::LoggerLevel, const char* line, int) {
    gLines += std::strstr(line, "hello from outside") != nullptr ? 1 : 0;
}

}  // namespace

int main() {
    Vantel::ILogger* logger = Vantel::ILogger::instance();
    logger->init("consumer", 1024);
    logger->setOutput(0);
    logger->attach({&onLine});
    logger->print(Vantel::ILogger::kInfo, "Consumer", "hello from outside\n");
    const bool works = gLines == 1 && Vantel::Orbel::CTime::getCurrentMilliSecond() > 0;
    std::puts(works ? "works" : "does not work");
    return works ? 0 : 1;
}
