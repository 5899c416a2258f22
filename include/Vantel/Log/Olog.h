#pragma once

#include "Vantel/Export.h"

/** @file
   The log client of the process without ILogger, callable from C as well. Levels here are the
   client's: 1 trace, 2 debug, 3 information, 4 warning, 5 error, 6 fatal. ologInit() does not make
   ILogger work. Threads: call ologInit() before threads start; all else from any thread. */

#ifdef __cplusplus
extern "C" {
#endif

/** Called by the crash report on its own thread: with status 0 at its start, with 1 at its end. */
typedef void (*OlogGcoreCallback)(int status, void* user, ...);

/** Connects to the log server as `appName`; takes up to 2 seconds if there is none. 0, or -1 with
   a message on standard output. */
ORBEL_API int ologInit(const char* appName, int level);

/** Always 0; the client stays as it is. */
ORBEL_API int ologDeinit(void);

/** Installs the crash callback, which may be null, and the crash handlers; a second call replaces
   the callback. Always 0.

   SIGABRT, SIGSEGV, SIGILL, SIGFPE, SIGBUS and SIGSYS are then reported before they end the
   process: a thread of the library sends lines about thread, signal, machine, process and
   backtrace to the log server while the thread that was hit waits. After the report, at the latest
   after 10 seconds, the signal is raised again with its default action, so that the process ends
   with its true status. Threads that are hit meanwhile are reported in turn.
   ILogger::init() installs a callback that ends the process with _exit(-1) behind the report: the
   exit status is then 255, also of a failed assertion, and a second thread that is hit gets no
   report. A callback set after it gets the true status back.
   Not reported: the overflow of a stack (the handlers use no stack of their own), crashes in a
   child that forked without exec, and those behind the end of main. */
ORBEL_API int ologSetGcoreCallback(OlogGcoreCallback callback, void* user);

/** Lines below `level` are dropped, any number is taken. Always 0. */
ORBEL_API int ologSetLogLevel(int level);
/** As set by ologInit() or ologSetLogLevel(), 3 at first. */
ORBEL_API int ologGetLogLevel(void);

/** Sends one line of at most 8191 bytes; a longer one is cut, with a message on standard output
   from 8193 bytes on. The bytes of its packet, 0 if the level keeps it back or there is no
   connection yet, -1 if it is lost. */
ORBEL_API int ologPrint(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

/** Asks the server to write out what it holds. 0, or -1. */
ORBEL_API int ologFlush(void);

#ifdef __cplusplus
}
#endif
