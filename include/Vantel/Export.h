#pragma once

/// @file
/// What is visible outside of the library.

/// Marks what the shared library exports; everything else in it is hidden.
#define ORBEL_API __attribute__((visibility("default")))

/// Keeps a class that is nested in an exported one inside the library.
#define ORBEL_LOCAL __attribute__((visibility("hidden")))
