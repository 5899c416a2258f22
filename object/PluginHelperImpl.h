#pragma once

#include <memory>

#include "Vantel/Object/IPluginHelper.h"

namespace Vantel::Object {

class PluginHelperImpl : public IPluginHelper {
public:
    /// Shuts down at the end of the process and stays there, empty: static objects that are
    /// destroyed later may still unregister themselves.
    static PluginHelperImpl* instance();

    PluginHelperImpl();
    ~PluginHelperImpl() override;

    bool loadClass(const char* path) override;
    bool unloadClass(const char* path) override;
    IObjectFactory* getFactory(const char* objectId, const char* classId) override;
    IObject* makeInstance(IObject* object, const char* objectId, const char* classId) override;
    IObject* makeObject(IObject* object) override;
    uint32_t addRef(IObject* object) override;
    uint32_t subRef(IObject* object) override;
    bool getClassIds(const char* objectId, std::vector<std::string>& classIds) override;

    bool registerFactory(const char* objectId, IObjectFactory* factory);
    bool unregisterFactory(const char* objectId, IObjectFactory* factory);

    /// Gives the references of the instances back, then lets each library in the order of their
    /// paths clean up, and closes it; empty afterwards.
    void shutdown();

private:
    class Internal;

    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Object
