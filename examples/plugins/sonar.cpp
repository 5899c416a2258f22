// A plug-in with one class: a range sensor that listens for its echo. plugin_host loads it.

#include "../RangeSensor.h"

namespace {

class Sonar : public RangeSensor {
public:
    double meters() override { return kSpeedOfSound * mEchoSeconds / 2; }
    void destroy() override { delete this; }

private:
    static constexpr double kSpeedOfSound = 343;  // m/s, in air of 20 degrees

    double mEchoSeconds = 0.01;
};

class SonarFactory : public RangeSensorFactory {
public:
    const char* getClassId() override { return "sonar"; }
    RangeSensor* create() override { return new Sonar; }
};

SonarFactory factory;

}  // namespace

extern "C" ORBEL_API int objectPluginInit() {
    return factory.registerFactory(RangeSensor::kObjectId) ? 0 : 1;
}
