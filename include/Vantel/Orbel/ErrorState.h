#pragma once

#include <string>

#include "Vantel/Export.h"
#include "Vantel/Orbel/TDelegate.h"

/// @file
/// The last error number of each thread, and the error texts of the process. A module's code has
/// the number of the module in its high 16 bits and the module's own number in the low ones; other
/// codes are small plain numbers. 0 is no error.
///
/// Threads: all of these from any thread, but setErrorMsgProc(), which belongs to the start of the
/// process.

namespace Vantel::Orbel {

/// Sets the number of the calling thread.
ORBEL_API void setLastErrno(int error);

/// The number of the calling thread, which becomes 0: each error is collected once.
ORBEL_API int getLastErrno();

/// Enters the text of `error`, in place of an earlier one: what the translator makes of it, else
/// `message` (null counts as empty).
ORBEL_API void setErrorMsg(int error, const char* message);

/// The same as setErrorMsg(): modules have no table of their own to write.
ORBEL_API void setModuleErrno(int error, const char* message);

/// The text of `error`, "" if it has none. Valid until `error` gets another text.
ORBEL_API const char* getErrorMsg(int error);

/// The name of the module in the high 16 bits of `error`, "" if it has none.
ORBEL_API const char* getModuleName(int error);

/// Installs the translator that setErrorMsg() asks: it gets the code and an empty text. If its
/// result is 0 or more, the text is entered as it left it. It runs under the lock of the table and
/// must call none of these functions but the first two. False if `proc` is empty or there is a
/// translator already; none can be removed.
ORBEL_API bool setErrorMsgProc(TDelegate<int, int, std::string&> proc);

}  // namespace Vantel::Orbel
