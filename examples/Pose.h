#pragma once

#include <cstdint>

/// What pose_sensor publishes: one definition for all three programs, plain fields, no pointers.
struct Pose {
    uint64_t number;  ///< 1, 2, 3, ...
    double x;         ///< metres
    double y;         ///< metres
    double heading;   ///< radians
};

constexpr const char* kEndOfLog = "end";  ///< the last record of the log
