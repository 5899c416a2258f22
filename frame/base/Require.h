#pragma once

#include "frame/base/Assert.h"
#include "frame/base/Log.h"

/// What must hold for the program to go on, such as the set-up of a primitive: a fatal line (a
/// literal format with its arguments) and then a failed assertion.
#define ORBEL_REQUIRE(condition, ...)             \
    do {                                          \
        if (!(condition)) {                       \
            ORBEL_LOG_FATAL(__VA_ARGS__);         \
            ORBEL_ASSERT_TEXT(false, #condition); \
        }                                         \
    } while (false)
