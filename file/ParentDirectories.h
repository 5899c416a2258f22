#pragma once

#include <algorithm>
#include <string>
#include <vector>

namespace Vantel::Orbel {

/// Makes what is missing of `path`, parents first, by `make(path)` where `exists(path)` is false.
/// A path without a slash behind its first character counts as existing: "/a" and "a" are true and
/// nothing is made, and the same goes for the first component of a longer path.
template <class Exists, class Make>
bool makeWithParents(const char* path, const Exists& exists, const Make& make) {
    const std::string whole(path == nullptr ? "" : path);
    std::vector<size_t> lengths;  // of the path, of its parent and so on
    size_t length = whole.size();
    while (length > 0) {
        const size_t slash = whole.rfind('/', length - 1);
        if (slash == std::string::npos || slash == 0) {
            break;
        }
        lengths.push_back(length);
        length = whole.find_last_not_of('/', slash) + 1;  // 0 if there are only slashes
    }
    return std::all_of(lengths.rbegin(), lengths.rend(), [&](size_t part) {
        const std::string at = whole.substr(0, part);
        // Asked again after a failure: somebody else may have made it meanwhile.
        return exists(at.c_str()) || make(at.c_str()) || exists(at.c_str());
    });
}

}  // namespace Vantel::Orbel
