#pragma once

#include "Vantel/Orbel/TDelegate.h"

using Delegate = Vantel::Orbel::TDelegate<int, int>;

struct ORBEL_API Target {
    int member(int value);
};

ORBEL_API int function(int value);
ORBEL_API Delegate ofFunction();
ORBEL_API Delegate ofMember(Target* target);
