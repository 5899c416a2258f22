#pragma once

#include "Vantel/Export.h"

/* The log client of the process without ILogger, callable from C as well. Levels here are the
   client's: 1 trace, 2 debug, 3 information, 4 warning, 5 error, 6 fatal. ologInit() does not make
   ILogger work. Threads: call ologInit() before threads start; all else from any thread. */

#ifdef __cplusplus
extern "C" {
#endif

/* Called by the crash report: with status 0 at its start, with 1 at its end. */
typedef void (*OlogGcoreCallback)(int status, void* user, ...);

/* Connects to the log server as `appName`; takes up to 2 seconds if there is none. 0, or -1 with
   a message on standard output. */
ORBEL_API int ologInit(const char* appName, int level);

/* Always 0; the client stays as it is. */
ORBEL_API int ologDeinit(void);

/* Installs the crash callback and the crash handlers. 0, or -1. */
ORBEL_API int ologSetGcoreCallback(OlogGcoreCallback callback, void* user);

/* Lines below `level` are dropped. 0, or -1. */
ORBEL_API int ologSetLogLevel(int level);
ORBEL_API int ologGetLogLevel(void);

/* Sends one line of at most 8191 bytes; a longer one is cut, with a message on standard output
   from 8193 bytes on. The result is the client's. */
ORBEL_API int ologPrint(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

/* Asks the server to write out what it holds. 0, or -1. */
ORBEL_API int ologFlush(void);

#ifdef __cplusplus
}
#endif
