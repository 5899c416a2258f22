#pragma once

#include "Vantel/Object/IObject.h"
#include "Vantel/Object/IObjectFactory.h"

// What the host and its plug-ins share: the interface of the objects, and the one of the factories
// that make them, both under one object id.

class RangeSensor : public Vantel::Object::IObject {
public:
    static constexpr const char* kObjectId = "RangeSensor";

    virtual double meters() = 0;
};

class RangeSensorFactory : public Vantel::Object::IObjectFactory {
public:
    /// With no reference yet: the caller takes the first one.
    virtual RangeSensor* create() = 0;
};
