#include "Vantel/Utils/Random.h"

#include <time.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <random>
#include <system_error>

namespace Vantel::Utils {

namespace {

void sleepOneMicrosecond() {
    timespec left{0, 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

/// Nanoseconds since 1970; no two calls return the same.
uint64_t uniqueClockNs() {
    static std::mutex mutex;
    static int64_t last = 0;
    const std::lock_guard guard(mutex);
    for (;;) {
        const int64_t now =
            std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
        if (now != last) {
            last = now;
            return static_cast<uint64_t>(now);
        }
        sleepOneMicrosecond();
    }
}

}  // namespace

std::string createRandomUUID() {
    uuid_t id;
    uuid_generate(id);
    char text[UUID_STR_LEN];
    uuid_unparse_lower(id, text);
    return text;
}

std::string createRandomGUID(int size) {
    std::string text = createRandomUUID();
    text.erase(std::remove(text.begin(), text.end(), '-'), text.end());
    text.resize(std::min(text.size(), static_cast<size_t>(std::max(size, 0))));
    return text;
}

void generateUUID(uint8_t* out, size_t size) {
    if (out == nullptr) {
        return;
    }
    const uint64_t now = uniqueClockNs();
    // Two processes may read the same nanosecond: their ids tell them apart.
    std::seed_seq seed{static_cast<uint32_t>(now), static_cast<uint32_t>(now >> 32),
                       static_cast<uint32_t>(getpid()), static_cast<uint32_t>(gettid())};
    std::mt19937 generator(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    std::generate_n(out, size, [&] { return static_cast<uint8_t>(byte(generator)); });
}

uint32_t generateRandom(uint32_t max) {
    uint64_t value = 0;
    if (getentropy(&value, sizeof value) != 0) {
        throw std::system_error(errno, std::generic_category(), "getentropy");
    }
    return static_cast<uint32_t>(value % max);
}

int createRandNum(int range, int base) {
    if (range == 0) {
        return base;
    }
    // Over again on each call: so it is meant.
    std::srand(static_cast<unsigned int>(time(nullptr)));
    return static_cast<int>(int64_t{base} + std::rand() % range);
}

std::string getRandString(int length) {
    constexpr char kLetters[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    // On the heap: 5000 bytes of thread-local data would come off every thread's stack.
    thread_local std::unique_ptr<std::mt19937> generator;
    if (!generator) {
        generator = std::make_unique<std::mt19937>(std::random_device("default")());
    }
    std::uniform_int_distribution<size_t> letter(0, sizeof kLetters - 2);
    std::string text(static_cast<size_t>(std::max(length, 0)), '\0');
    std::generate(text.begin(), text.end(), [&] { return kLetters[letter(*generator)]; });
    return text;
}

}  // namespace Vantel::Utils
