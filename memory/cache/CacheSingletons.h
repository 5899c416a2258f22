#pragma once

namespace Vantel::Memory {

/// Makes the allocator's objects of the process, in the order in which they need each other; once.
/// Called before the static objects of all others are made, so that theirs is destroyed first:
/// their destructors may still give memory back.
void makeCacheSingletons();

}  // namespace Vantel::Memory
