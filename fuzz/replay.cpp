// Stands in for the fuzzer: runs a target on each of the files given, so that what was found once
// is tried by every compiler and sanitizer, and the targets do not rot.
#include <fstream>
#include <iterator>

#include "fuzz/Fuzz.h"

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::ifstream file(argv[i], std::ios::binary);
        Fuzz::require(file.is_open(), argv[i]);
        const std::string data{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
    }
    std::printf("%d inputs\n", argc - 1);
    return argc > 1 ? 0 : 1;
}
