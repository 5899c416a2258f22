#include "utils/JsonNesting.h"

#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace Vantel::Utils {

namespace {

// The parser of jsoncpp 1.9.5 takes 511 bytes of stack for an object in an object and 361 for an
// array in an array (x86-64, measured by search for the depth that overflows stacks of 16 to 64
// KiB). Copies and destructors, which go down the same levels later, take less.
constexpr size_t kStackPerLevel = 768;
constexpr size_t kStackForTheRest = 2048;
constexpr int kLevelsForAnyStack = 8;
constexpr int kLevelsOfParser = 1000;

/// The bytes between this frame and the end of the stack; 0 on a stack that is not the thread's.
size_t stackLeft() {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
        return 0;
    }
    void* lowest = nullptr;
    size_t size = 0;
    pthread_attr_getstack(&attributes, &lowest, &size);
    pthread_attr_destroy(&attributes);
    const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    const auto end = reinterpret_cast<uintptr_t>(lowest);
    return here > end && here - end < size ? here - end : 0;
}

/// Asked only for deep texts: in the main thread the system reads its memory map for it.
int levelsForThisStack() {
    const size_t left = stackLeft();
    if (left < kStackForTheRest) {
        return kLevelsForAnyStack;
    }
    const size_t levels = (left - kStackForTheRest) / kStackPerLevel;
    return std::clamp(static_cast<int>(std::min<size_t>(levels, kLevelsOfParser)),
                      kLevelsForAnyStack, kLevelsOfParser);
}

/// The character behind the string that begins at `at`.
const char* behindString(const char* at, const char* end) {
    for (++at; at < end && *at != '"'; ++at) {
        if (*at == '\\') {
            ++at;
        }
    }
    return at < end ? at + 1 : end;
}

/// Of the first document in the text.
int deepestLevel(const char* at, const char* end) {
    int level = 0;
    int deepest = 0;
    while (at < end) {
        if (*at == '"') {
            at = behindString(at, end);
            continue;
        }
        if (*at == '{' || *at == '[') {
            deepest = std::max(deepest, ++level);
        } else if ((*at == '}' || *at == ']') && --level <= 0) {
            break;
        }
        ++at;
    }
    return deepest;
}

}  // namespace

bool nestingFits(const char* begin, const char* end) {
    const int levels = deepestLevel(begin, end);
    return levels <= kLevelsForAnyStack || levels <= levelsForThisStack();
}

}  // namespace Vantel::Utils
