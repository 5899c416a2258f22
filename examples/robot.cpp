// A whole process: settings from a JSON file, log, configuration, a writer and a reader in a shared
// memory domain, timers, and a clean end on SIGTERM. Two of them tell each other where they are.
//     robot SETTINGS
// SETTINGS for one of the two, which differ in all of these but "domain" and "library":
//     {
//         "name": "left", "peer": "right", "domain": "robots",
//         "library": {"timerPoolSize": 2},
//         "configuration": {"defConfigPath": "/tmp/left", "configPath": "/tmp/left/current"}
//     }
// "library" is what Initialize.h tells, "configuration" what IConfigManager.h tells; the directory
// of the defaults must exist. The document "drive" is kept there; change its speed in the file
// /tmp/left/current/drive before a start.

#include <json/json.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "Pose.h"
#include "Vantel/Client/IClientManager.h"
#include "Vantel/Config/IConfig.h"
#include "Vantel/Config/IConfigManager.h"
#include "Vantel/ILogger.h"
#include "Vantel/Orbel/CTimer.h"
#include "Vantel/Orbel/Initialize.h"
#include "Vantel/Orbel/SharedMemBuffer.h"
#include "Vantel/Orbel/SharedMemDomain.h"
#include "Vantel/Orbel/SharedMemNode.h"
#include "Vantel/Orbel/SharedMemReadChannel.h"
#include "Vantel/Orbel/SharedMemWriteChannel.h"

using namespace Vantel;
using Client::IClientManager;
using Config::IConfigManager;

namespace {

constexpr uint32_t kPoseMs = 100;
constexpr uint32_t kMileageMs = 1000;
constexpr uint32_t kPoseTimeoutMs = 500;  // then the watch over threads warns

/// What the robot remembers and what its owner may change.
class Drive : public Config::IConfig {
public:
    Drive() : IConfig("drive") {}
    ~Drive() override { deInitial(); }

    bool load() {
        Json::Value defaults;
        defaults["speed"] = 0.5;  // metres a second
        defaults["mileage"] = 0.0;
        return initial(defaults, "");
    }
};

class Robot {
public:
    explicit Robot(const Json::Value& settings)
        : mName(settings["name"].asString()),
          mPeer(settings["peer"].asString()),
          mDomainName(settings["domain"].asString()) {}

    bool start(const Json::Value& configuration);
    void stop();
    void report() const;

private:
    bool startDrive(const Json::Value& configuration);
    bool startChannels();
    void publish(unsigned long);
    void keepMileage(unsigned long);
    void onPeer(std::shared_ptr<Orbel::SharedMemBuffer>& sample);
    void onDriveChanged(const char* user, const char* name, const Json::Value& attach);

    const std::string mName;
    const std::string mPeer;
    const std::string mDomainName;

    Drive mDrive;
    double mSpeed = 0;
    int mChanges = 0;  // seen by the observer, in the main thread

    std::shared_ptr<Orbel::SharedMemDomain> mDomain;
    std::shared_ptr<Orbel::SharedMemWriteChannel> mWriter;
    std::shared_ptr<Orbel::SharedMemReadChannel> mReader;
    std::atomic<uint64_t> mSent{0};
    std::atomic<uint64_t> mSkipped{0};  // the peer held all blocks
    std::atomic<uint64_t> mReceived{0};
    std::atomic<uint64_t> mLost{0};
    uint64_t mLastOfPeer = 0;

    // Last, so that they stop before what their callbacks use.
    Orbel::CTimer mPoseTimer{"pose"};
    Orbel::CTimer mMileageTimer{"mileage"};
};

bool Robot::start(const Json::Value& configuration) {
    if (!startDrive(configuration) || !startChannels()) {
        return false;
    }
    mPoseTimer.start({this, &Robot::publish}, 0, kPoseMs, 0, kPoseTimeoutMs);
    mMileageTimer.start({this, &Robot::keepMileage}, kMileageMs, kMileageMs, 0, 0);
    return true;
}

bool Robot::startDrive(const Json::Value& configuration) {
    if (!IConfigManager::instance()->initial(configuration) || !mDrive.load()) {
        return false;
    }
    mSpeed = mDrive.getConfig("speed").asDouble();
    return IConfigManager::instance()->attach("drive", {this, &Robot::onDriveChanged});
}

bool Robot::startChannels() {
    mDomain = Orbel::SharedMemDomain::instance(mDomainName);
    mDomain->setPoolConfigs({{"poses", sizeof(Pose), 8, 64}});  // by whichever robot comes first
    if (!mDomain->init(Json::objectValue)) {
        return false;
    }
    auto node = mDomain->createNode(mName);
    if (node == nullptr || !node->init()) {
        return false;
    }
    mWriter = node->newWriteChannel(mDomainName + "_" + mName);
    mReader = node->newReadChannel(mDomainName + "_" + mPeer);
    return mWriter->init() && mWriter->create({}, {}) && mReader->init() &&
           mReader->open(
               [this](std::shared_ptr<Orbel::SharedMemBuffer>& sample) { onPeer(sample); });
}

/// On a pooled thread. It never blocks: a pose that finds no block is skipped.
void Robot::publish(unsigned long) {
    auto sample = mWriter->allocate(sizeof(Pose), 0);
    if (sample == nullptr) {
        ++mSkipped;
        return;
    }
    const uint64_t number = ++mSent;
    const double metres = mSpeed * static_cast<double>(number * kPoseMs) / 1000;
    *static_cast<Pose*>(sample->data()) = {number, 10 * std::cos(metres / 10),
                                           10 * std::sin(metres / 10), metres / 10};
    mWriter->commit(sample);
}

/// On a pooled thread. The file is written with the next sync, not here.
void Robot::keepMileage(unsigned long) {
    const double metres = mDrive.getConfig("mileage").asDouble() + mSpeed * kMileageMs / 1000;
    mDrive.setConfig("robot", "mileage", metres, Config::IConfig::kDeferSave, Json::nullValue);
}

/// On the domain's callback worker.
void Robot::onPeer(std::shared_ptr<Orbel::SharedMemBuffer>& sample) {
    if (sample->size() < sizeof(Pose)) {
        return;
    }
    const uint64_t number = static_cast<const Pose*>(sample->data())->number;
    if (mLastOfPeer != 0 && number > mLastOfPeer + 1) {
        mLost += number - mLastOfPeer - 1;
    }
    mLastOfPeer = number;
    if (++mReceived == 1) {
        std::printf("%s sees %s\n", mName.c_str(), mPeer.c_str());
    }
}

void Robot::onDriveChanged(const char*, const char*, const Json::Value&) {
    ++mChanges;
}

/// In the order of use: first nobody publishes, then nobody listens, then the values are written.
void Robot::stop() {
    mPoseTimer.stopAndWait();
    mMileageTimer.stopAndWait();
    if (mReader != nullptr) {
        mReader->close();
        mWriter->close();
    }
    if (mDomain != nullptr) {
        mDomain->deInit();  // no callback runs after this
    }
    IConfigManager::instance()->detach("drive", {this, &Robot::onDriveChanged});
    mDrive.deInitial();
    IConfigManager::instance()->deInitial();
}

void Robot::report() const {
    std::printf("sent %lu skipped %lu received %lu lost %lu changes %d\n",
                static_cast<unsigned long>(mSent), static_cast<unsigned long>(mSkipped),
                static_cast<unsigned long>(mReceived), static_cast<unsigned long>(mLost), mChanges);
}

bool readSettings(const char* path, Json::Value& settings) {
    std::ifstream file(path);
    Json::CharReaderBuilder builder;
    std::string errors;
    if (!Json::parseFromStream(builder, file, &settings, &errors) || !settings.isObject()) {
        std::fprintf(stderr, "%s: no settings %s\n", path, errors.c_str());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    Json::Value settings;
    if (argc != 2 || !readSettings(argv[1], settings)) {
        std::fprintf(stderr, "usage: robot SETTINGS\n");
        return 2;
    }
    const std::string name = settings["name"].asString();
    // First, so that a signal during the start ends the process in good order as well.
    IClientManager& client = *IClientManager::instance();
    client.start(name.c_str());
    ILogger::instance()->init(name.c_str(), 1024);
    ILogger::instance()->setLevel(ILogger::kWarn);
    if (!Orbel::initialize(settings["library"])) {
        return 1;
    }
    Robot robot(settings);
    const bool started = robot.start(settings["configuration"]);
    if (started) {
        std::printf("ready\n");
        while (client.checkProcessStatus()) {  // waits for up to 50 ms itself
        }
    }
    robot.stop();
    robot.report();
    return started ? 0 : 1;
}
