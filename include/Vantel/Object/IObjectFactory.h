#pragma once

#include "Vantel/Export.h"

namespace Vantel::Object {

/// Makes objects of one class. Factories are found by an object id, the name of the interface that
/// their objects have, and a class id, the name of the class behind it. How a factory makes objects
/// is for the derived interface of each object id to say: getFactory()'s callers cast to it.
class ORBEL_API IObjectFactory {
public:
    IObjectFactory() = default;
    IObjectFactory(const IObjectFactory&) = delete;
    IObjectFactory& operator=(const IObjectFactory&) = delete;
    virtual ~IObjectFactory() = default;

    /// The same text at each call, valid as long as the factory.
    virtual const char* getClassId() = 0;

    /// Enters the factory under `objectId` and its class id. The caller keeps it alive until it is
    /// unregistered or the process ends. True also if it is there already; false if another one has
    /// this place, or an id is null. Threads: any.
    bool registerFactory(const char* objectId);

    /// Takes the factory out again. False, with the thread's error number, if it is not there: 7
    /// without the object id, 20 without the class id or with another factory in its place.
    /// Threads: any.
    bool unregisterFactory(const char* objectId);
};

}  // namespace Vantel::Object
