// A process with a configuration document: defaults from the factory's file, values that are
// checked before they are stored, a thread that changes them, an observer, and the way back.
//     config_document DIRECTORY
// DIRECTORY/defaults/camera is the factory's file, made here if it is missing; the current values
// stand in DIRECTORY/current/camera. Damage that one and run it again: the defaults come back.

#include <json/json.h>

#include <cstdio>
#include <string>
#include <thread>

#include "Vantel/Config/CConfigLoader.h"
#include "Vantel/Config/IConfig.h"
#include "Vantel/Config/IConfigManager.h"
#include "Vantel/Orbel/ErrorState.h"
#include "Vantel/Orbel/File.h"

using namespace Vantel;

class CameraConfig : public Config::IConfig {
public:
    CameraConfig() : IConfig("camera") {}
    ~CameraConfig() override { deInitial(); }  // a document leaves the manager before it goes

    // This process writes whole documents; a write by path would hand over the one value.
    bool verifyConfig(const Json::Value& camera) override {
        return camera.isObject() && camera["fps"].isInt() && camera["fps"] >= 1 &&
               camera["fps"] <= 120;
    }
};

static void onChange(const char* user, const char* name, const Json::Value& attach) {
    printf("observer: %s changed %s of %s\n", user, attach["what"].asCString(), name);
}

static void change(CameraConfig& config, int fps, int exposureUs) {
    Json::Value camera = config.getConfig(nullptr);
    camera["fps"] = fps;
    camera["exposure"]["us"] = exposureUs;
    Json::Value attach;
    attach["what"] = "speed";
    if (config.setConfig("operator", nullptr, camera, 0, attach)) {
        printf("thread: %d fps stored\n", fps);
    } else {
        printf("thread: %d fps refused, error %#x\n", fps, Orbel::getLastErrno());
    }
}

static void show(const char* when, const CameraConfig& config) {
    printf("%s: %d fps, exposure %d us\n", when, config.getConfig("fps").asInt(),
           config.getConfig("exposure.us").asInt());
}

int main(int argc, char** argv) {
    const std::string directory = argc > 1 ? argv[1] : "/tmp/config_document";
    const std::string defaults = directory + "/defaults";
    const std::string factoryFile = defaults + "/camera";
    if (!Orbel::File::exist(factoryFile.c_str())) {
        Json::Value factory;
        factory["fps"] = 30;
        factory["exposure"]["us"] = 10000;
        Orbel::File::makeDirectoryWithParent(defaults.c_str());
        if (!Config::CConfigLoader::instance()->saveConfig(factoryFile.c_str(), factory)) {
            fprintf(stderr, "config_document: cannot write %s\n", factoryFile.c_str());
            return 1;
        }
    }

    Config::IConfigManager* manager = Config::IConfigManager::instance();
    Json::Value paths;
    paths["defConfigPath"] = defaults;
    paths["configPath"] = directory + "/current";
    if (!manager->initial(paths)) {
        return 1;
    }
    {
        CameraConfig config;
        config.initial();
        show("start", config);
        manager->attach("camera", &onChange);

        std::thread other([&config] {
            change(config, 60, 5000);
            change(config, 500, 5000);
        });
        other.join();
        // In a robot process, IClientManager::checkProcessStatus() does this over and over.
        manager->processEvents();
        show("changed", config);

        Json::Value except;
        except["camera"]["exposure"] = true;  // all but the exposure goes back
        manager->recovery("service", except);
        manager->processEvents();
        show("recovered", config);
        manager->detach("camera", &onChange);
    }
    manager->deInitial();
}
