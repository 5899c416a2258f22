#include "object/PluginHelperImpl.h"

#include <dlfcn.h>

#include <map>

#include "Vantel/Orbel/CRecursiveMutex.h"
#include "Vantel/Orbel/ErrorState.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "frame/base/Require.h"
#include "frame/base/ScopeExit.h"

namespace Vantel::Object {

using Orbel::setLastErrno;

namespace {

enum ErrorNumber : int { kNoObjectId = 7, kNoClassId = 20, kNoObject = 21, kNoInstance = 22 };

using EntryPoint = int (*)();

EntryPoint entryPoint(void* library, const char* name) {
    return reinterpret_cast<EntryPoint>(dlsym(library, name));
}

void exitLibrary(void* library) {
    const EntryPoint exit = entryPoint(library, "objectPluginExit");
    if (exit != nullptr && exit() != 0) {
        ORBEL_LOG_ERROR("plugin dynamic library objectPluginExit failed\n");
    }
    dlclose(library);
}

}  // namespace

class PluginHelperImpl::Internal {
public:
    using Classes = std::map<std::string, IObjectFactory*>;

    /// Null, with the error number set, if the object id is unknown.
    Classes* classesOf(const char* objectId) {
        const auto found = objectId == nullptr ? factories.end() : factories.find(objectId);
        if (found == factories.end()) {
            setLastErrno(kNoObjectId);
            return nullptr;
        }
        return &found->second;
    }

    /// The iterator of the class id, or end() with the error number set.
    static Classes::iterator findClass(Classes& classes, const char* classId) {
        const auto found = classId == nullptr ? classes.end() : classes.find(classId);
        if (found == classes.end()) {
            setLastErrno(kNoClassId);
        }
        return found;
    }

    // Recursive: plug-ins register their factories while loadClass() runs.
    Orbel::CRecursiveMutex mutex;
    std::map<std::string, IObject*> instances;  // by "objectId.classId"
    std::map<std::string, Classes> factories;   // by object id
    std::map<std::string, void*> libraries;     // by path
};

PluginHelperImpl::PluginHelperImpl() : mInternal(std::make_unique<Internal>()) {}

PluginHelperImpl::~PluginHelperImpl() {
    shutdown();
}

PluginHelperImpl* PluginHelperImpl::instance() {
    static auto* const helper = new PluginHelperImpl;
    static const Orbel::ScopeExit atExit([] { helper->shutdown(); });
    return helper;
}

IPluginHelper* IPluginHelper::instance() {
    return PluginHelperImpl::instance();
}

bool PluginHelperImpl::loadClass(const char* path) {
    if (path == nullptr) {
        return false;
    }
    const Orbel::Guard guard(mInternal->mutex);
    if (mInternal->libraries.count(path) != 0) {
        ORBEL_LOG_WARN(" already load plugin dynamic library %s\n", path);
        return true;
    }
    void* const library = dlopen(path, RTLD_LAZY);
    if (library == nullptr) {
        ORBEL_LOG_ERROR("load plugin dynamic library %s failed, reason = %s\n", path, dlerror());
        return false;
    }
    const EntryPoint init = entryPoint(library, "objectPluginInit");
    if (init == nullptr) {
        ORBEL_LOG_ERROR("plugin dynamic library not found objectPluginInit sysbol\n");
        dlclose(library);
        return false;
    }
    // Entered before it runs: plug-ins that load each other meet their entry and do not go round.
    const auto entry = mInternal->libraries.emplace(path, library).first;
    Orbel::ScopeExit forget([this, entry] { mInternal->libraries.erase(entry); });
    const int result = init();
    if (result != 0) {
        // What it registered stays and leads into the closed library: only it knows what that is.
        ORBEL_LOG_ERROR("plugin dynamic library objectPluginInit failed %d\n", result);
        dlclose(library);
        return false;
    }
    forget.dismiss();
    return true;
}

bool PluginHelperImpl::unloadClass(const char* /*path*/) {
    ORBEL_LOG_ERROR("object not support unload dynamic library\n");
    return false;
}

IObjectFactory* PluginHelperImpl::getFactory(const char* objectId, const char* classId) {
    const Orbel::Guard guard(mInternal->mutex);
    Internal::Classes* classes = mInternal->classesOf(objectId);
    if (classes == nullptr) {
        return nullptr;
    }
    const auto found = Internal::findClass(*classes, classId);
    return found == classes->end() ? nullptr : found->second;
}

IObject* PluginHelperImpl::makeInstance(IObject* object, const char* objectId,
                                        const char* classId) {
    const Orbel::Guard guard(mInternal->mutex);
    if (object == nullptr || objectId == nullptr || classId == nullptr) {
        setLastErrno(object == nullptr     ? kNoInstance
                     : objectId == nullptr ? kNoObjectId
                                           : kNoClassId);
        return nullptr;
    }
    const std::string key = std::string(objectId) + "." + classId;
    const auto [entry, isNew] = mInternal->instances.emplace(key, object);
    const bool isOnlyInstance = entry->second == object;
    ORBEL_REQUIRE(isOnlyInstance, "objectId %s, classId %s instance implement failed\n", objectId,
                  classId);
    if (isNew) {
        object->addRef();
    }
    return object;
}

IObject* PluginHelperImpl::makeObject(IObject* object) {
    const Orbel::Guard guard(mInternal->mutex);
    if (object == nullptr) {
        setLastErrno(kNoObject);
    }
    return object;
}

uint32_t PluginHelperImpl::addRef(IObject* object) {
    const Orbel::Guard guard(mInternal->mutex);
    return object == nullptr ? 0 : object->addRef();
}

uint32_t PluginHelperImpl::subRef(IObject* object) {
    const Orbel::Guard guard(mInternal->mutex);
    return object == nullptr ? 0 : object->release();
}

bool PluginHelperImpl::getClassIds(const char* objectId, std::vector<std::string>& classIds) {
    const Orbel::Guard guard(mInternal->mutex);
    const Internal::Classes* classes = mInternal->classesOf(objectId);
    if (classes == nullptr) {
        return false;
    }
    classIds.clear();
    for (const auto& entry : *classes) {
        classIds.push_back(entry.first);
    }
    return true;
}

bool PluginHelperImpl::registerFactory(const char* objectId, IObjectFactory* factory) {
    const Orbel::Guard guard(mInternal->mutex);
    const char* const classId = factory == nullptr ? nullptr : factory->getClassId();
    if (objectId == nullptr || classId == nullptr) {
        ORBEL_LOG_ERROR("register factory %p without object id or class id\n",
                        static_cast<void*>(factory));
        return false;
    }
    const auto [entry, isNew] = mInternal->factories[objectId].emplace(classId, factory);
    if (isNew) {
        return true;
    }
    if (entry->second != factory) {
        ORBEL_LOG_ERROR("objectId %s, classId %s already register by %p\n", objectId, classId,
                        static_cast<void*>(entry->second));
        return false;
    }
    ORBEL_LOG_WARN(" objectId %s, classId %s register twice by %p\n", objectId, classId,
                   static_cast<void*>(factory));
    return true;
}

bool PluginHelperImpl::unregisterFactory(const char* objectId, IObjectFactory* factory) {
    const Orbel::Guard guard(mInternal->mutex);
    Internal::Classes* classes = mInternal->classesOf(objectId);
    if (classes == nullptr) {
        return false;
    }
    const auto found =
        Internal::findClass(*classes, factory == nullptr ? nullptr : factory->getClassId());
    if (found == classes->end()) {
        return false;
    }
    if (found->second != factory) {
        setLastErrno(kNoClassId);
        return false;
    }
    classes->erase(found);  // an object id stays known without classes
    return true;
}

/// Plug-ins call back while they clean up, and then all that was there is still known. They may
/// add to the maps, which does not disturb the walks; nothing that was there goes before their end.
void PluginHelperImpl::shutdown() {
    const Orbel::Guard guard(mInternal->mutex);
    for (const auto& entry : mInternal->instances) {
        entry.second->release();
    }
    mInternal->instances.clear();
    for (const auto& entry : mInternal->libraries) {
        exitLibrary(entry.second);
    }
    mInternal->libraries.clear();
    mInternal->factories.clear();
}

}  // namespace Vantel::Object
