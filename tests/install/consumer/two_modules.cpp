// Delegates made by two modules with the same target are equal: attached here, detached there.
#include <cstdio>

#include "hidden_module.h"

int main() {
    Target target;
    const bool equal = ofFunction() == Delegate(&function) &&
                       ofMember(&target) == Delegate(&target, &Target::member) &&
                       ofFunction() != ofMember(&target);
    std::puts(equal ? "equal" : "delegates of two modules differ");
    return equal ? 0 : 1;
}
