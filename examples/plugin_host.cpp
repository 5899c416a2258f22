// Loads plug-ins by their paths and asks each range sensor that they bring.
//     plugin_host ./sonar.so

#include <cstdio>

#include "RangeSensor.h"
#include "Vantel/Object/IPluginHelper.h"

using Vantel::Object::IPluginHelper;

int main(int argc, char** argv) {
    IPluginHelper* plugins = IPluginHelper::instance();
    for (int i = 1; i < argc; ++i) {
        if (!plugins->loadClass(argv[i])) {
            fprintf(stderr, "plugin_host: cannot load %s\n", argv[i]);
            return 1;
        }
    }
    std::vector<std::string> classIds;
    if (!plugins->getClassIds(RangeSensor::kObjectId, classIds)) {
        fprintf(stderr, "plugin_host: no range sensor\n");
        return 1;
    }
    for (const std::string& classId : classIds) {
        auto* factory = static_cast<RangeSensorFactory*>(
            plugins->getFactory(RangeSensor::kObjectId, classId.c_str()));
        RangeSensor* sensor = factory->create();
        sensor->addRef();
        printf("%s: %.3f m\n", classId.c_str(), sensor->meters());
        sensor->release();  // the last reference: the plug-in deletes it
    }
}
