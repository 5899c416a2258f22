#include "Vantel/Object/IObjectFactory.h"

#include "object/PluginHelperImpl.h"

namespace Vantel::Object {

bool IObjectFactory::registerFactory(const char* objectId) {
    return PluginHelperImpl::instance()->registerFactory(objectId, this);
}

bool IObjectFactory::unregisterFactory(const char* objectId) {
    return PluginHelperImpl::instance()->unregisterFactory(objectId, this);
}

}  // namespace Vantel::Object
