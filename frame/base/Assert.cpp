#include "frame/base/Assert.h"

#include <sys/uio.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace Vantel::Orbel {

void assertionFailed(const char* text, const char* file, int line, const char* function) noexcept {
    char lineText[16];
    std::snprintf(lineText, sizeof lineText, ":%d: ", line);
    const char* const pieces[] = {file, lineText, function, ": Assertion `", text, "' failed.\n"};
    iovec vectors[std::size(pieces)];
    for (size_t i = 0; i < std::size(pieces); ++i) {
        vectors[i] = {const_cast<char*>(pieces[i]), std::strlen(pieces[i])};
    }
    // The process ends either way: a failed write has nobody left to tell.
    [[maybe_unused]] const ssize_t written = writev(2, vectors, std::size(pieces));
    std::abort();
}

}  // namespace Vantel::Orbel
