#pragma once

/// @file
/// Free functions for encodings, checksums, identifiers, strings and JSON. All are free of shared
/// state and may be called from any thread, except as Random.h says.

#include "Vantel/Utils/Base64.h"
#include "Vantel/Utils/Bits.h"
#include "Vantel/Utils/Checksum.h"
#include "Vantel/Utils/JsonText.h"
#include "Vantel/Utils/Numbers.h"
#include "Vantel/Utils/Random.h"
#include "Vantel/Utils/Strings.h"
