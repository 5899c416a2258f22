#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Vantel/Export.h"
#include "Vantel/Object/IObject.h"
#include "Vantel/Object/IObjectFactory.h"

namespace Vantel::Object {

/// The plug-ins, factories and shared objects of the process. A plug-in is a shared library with
/// two functions that are looked up by their plain names:
///
///     extern "C" int objectPluginInit(void);  // required: registers the factories; 0 is success
///     extern "C" int objectPluginExit(void);  // may be missing: called at the end of the process
///
/// The static objects of a plug-in are destroyed before its objectPluginExit() runs: what that
/// needs, such as a factory to unregister, belongs on the heap.
///
/// Errors are told by the thread's error number (getLastErrno()): 7 no such object id, 20 no such
/// class id, 21 and 22 a null object to makeObject() and makeInstance().
///
/// Threads: all methods from any thread, one at a time: others wait while the functions of a
/// plug-in run, which may call all of this themselves.
class ORBEL_API IPluginHelper {
public:
    /// Never destroyed; at the end of the process it lets go of what it holds.
    static IPluginHelper* instance();

    IPluginHelper() = default;
    IPluginHelper(const IPluginHelper&) = delete;
    IPluginHelper& operator=(const IPluginHelper&) = delete;
    virtual ~IPluginHelper() = default;

    /// Loads the library `path`, as dlopen() finds it, and runs its objectPluginInit(). True also
    /// if this path is loaded already, or just being loaded. False, with the reason in the log, if
    /// it cannot be loaded, has no such function, or that fails; factories that it registered
    /// before it failed stay, lead nowhere, and must not be called.
    virtual bool loadClass(const char* path) = 0;

    /// False: libraries stay until the process ends, since anybody may hold objects of theirs.
    virtual bool unloadClass(const char* path) = 0;

    /// The factory of these ids, null (7, 20) if there is none.
    virtual IObjectFactory* getFactory(const char* objectId, const char* classId) = 0;

    /// Enters `object` as the only one of these ids, with a reference that is given back at the end
    /// of the process. Returns it, also if it is there already. A second object for the same ids
    /// ends the program (fatal line and assertion). Null (22, 7, 20) for null arguments.
    virtual IObject* makeInstance(IObject* object, const char* objectId, const char* classId) = 0;

    /// Returns `object`; null sets 21.
    virtual IObject* makeObject(IObject* object) = 0;

    /// IObject::addRef(), 0 for null.
    virtual uint32_t addRef(IObject* object) = 0;

    /// IObject::release(), 0 for null.
    virtual uint32_t subRef(IObject* object) = 0;

    /// Replaces `classIds` by the class ids of `objectId`, in the order of std::string. False (7)
    /// if it is unknown. With the last factory gone it stays known, with no class ids.
    virtual bool getClassIds(const char* objectId, std::vector<std::string>& classIds) = 0;
};

}  // namespace Vantel::Object
