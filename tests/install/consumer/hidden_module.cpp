// Built with everything hidden that is not marked, as the library itself is.
#include "hidden_module.h"

int Target::member(int value) {
    return value + 1;
}

int function(int value) {
    return value + 2;
}

Delegate ofFunction() {
    return &function;
}

Delegate ofMember(Target* target) {
    return {target, &Target::member};
}
