#include "Vantel/Orbel/LfsFile.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include "Vantel/Orbel/File.h"
#include "file/FileState.h"
#include "frame/base/Require.h"

namespace Vantel::Orbel {

namespace {

constexpr uint32_t kLfsAccess = 0xF;

/// What one call of the table is asked for: the low 32 bits of the rest.
uint32_t oneRound(uint64_t rest) {
    return rest < LONG_MAX ? static_cast<uint32_t>(rest) : 0xFFFFFFFF;
}

/// Calls `round(count)` until `size` bytes are counted, and returns how many were. Every round has
/// the start of the caller's buffer: callers that want all of it ask for what comes in one round.
template <class Round, class Report>
long inRounds(long size, const Round& round, const Report& report) {
    long total = 0;
    while (total < size) {
        const uint32_t asked = oneRound(static_cast<uint64_t>(size - total));
        const int result = round(static_cast<int>(asked));
        // Beyond 2 GiB a count looks negative; one above what was asked for is none.
        const auto done = static_cast<uint32_t>(result);
        if (result == 0 || result == -1 || done > asked) {
            report(total, asked, result);
            break;
        }
        total += done;
    }
    return total;
}

}  // namespace

class LfsFile::Internal : public FileState<uint64_t> {
public:
    long read(void* buffer, long size) {
        if (!isOpen() || (buffer == nullptr && size > 0)) {
            return -1;
        }
        const long total = inRounds(
            size, [&](int count) { return mFileOpt->fread(buffer, 1, count, mFile); },
            [size](long done, size_t asked, int result) {
                ORBEL_LOG_ERROR("read get error,total %jd has read %jd,expected %zu return %zu\n",
                                static_cast<intmax_t>(size), static_cast<intmax_t>(done), asked,
                                static_cast<size_t>(result));
            });
        mPosition += static_cast<uint64_t>(total);
        return total;
    }

    long write(const void* data, long size) {
        if (!isOpen() || (data == nullptr && size > 0)) {
            return -1;
        }
        const long total = inRounds(
            size, [&](int count) { return mFileOpt->fwrite(data, 1, count, mFile); },
            [size](long done, size_t asked, int result) {
                ORBEL_LOG_ERROR("write get error,total %jd has write %jd,expected %zu return %zu",
                                static_cast<intmax_t>(size), static_cast<intmax_t>(done), asked,
                                static_cast<size_t>(result));
            });
        locate();
        return total;
    }
};

LfsFile::LfsFile() : mInternal(new Internal) {}

LfsFile::~LfsFile() {
    delete mInternal;
}

bool LfsFile::open(const char* path, uint32_t flags) {
    mInternal->unload();
    mInternal->mFileOpt = _findOpts(path);
    ORBEL_REQUIRE(mInternal->mFileOpt != nullptr, "operator is null\n");
    const uint32_t access = flags & kLfsAccess;
    return mInternal->open(path, flags, openMode(access, flags, access == 0 ? "rb" : ""));
}

bool LfsFile::close() {
    return mInternal->close();
}

uint8_t* LfsFile::load(const char* path) {
    ORBEL_REQUIRE(mInternal->mBuffer == nullptr, "inner buffer is null\n");  // says the reverse
    if (!open(path, kOpenKeep)) {
        return nullptr;
    }
    return mInternal->load(
        LONG_MAX - 1,
        [this](uint8_t* buffer, uint64_t size) {
            return mInternal->read(buffer, static_cast<long>(size));
        },
        [path](uint64_t length, long count) {
            ORBEL_LOG_ERROR("LfsFile::load(): filename(%s), length(%ju), ret(%jd), %s\n", path,
                            static_cast<uintmax_t>(length), static_cast<intmax_t>(count),
                            std::strerror(errno));
        });
}

void LfsFile::unload() {
    mInternal->unload();
}

long LfsFile::read(void* buffer, long size) {
    return mInternal->read(buffer, size);
}

long LfsFile::write(const void* data, long size) {
    return mInternal->write(data, size);
}

bool LfsFile::flush() {
    return mInternal->flush();
}

uint64_t LfsFile::seek(long offset, SeekPosition whence) {
    return mInternal->seek(offset, whence);
}

uint64_t LfsFile::getPosition() {
    return mInternal->mPosition;
}

uint64_t LfsFile::getLength() {
    return mInternal->getLength();
}

char* LfsFile::gets(char* buffer, long size) {
    if (mInternal->isOpen() && size > INT_MAX) {
        ORBEL_LOG_ERROR("bytes need to be seeked has been over the VNT_ORB_MAX_INT_VALUE.\n");
        return nullptr;
    }
    return mInternal->gets(buffer, size > 0 ? static_cast<int>(size) : 0);
}

int LfsFile::puts(const char* text) {
    return mInternal->puts(text);
}

bool LfsFile::isOpen() {
    return mInternal->isOpen();
}

int LfsFile::writev(const IOVector* vectors, int count) {
    return mInternal->writev(vectors, count);
}

bool LfsFile::rename(const char* from, const char* to) {
    return File::rename(from, to);
}

bool LfsFile::remove(const char* path) {
    return File::remove(path);
}

bool LfsFile::makeDirectory(const char* path) {
    return File::makeDirectory(path);
}

bool LfsFile::removeDirectory(const char* path) {
    return File::removeDirectory(path);
}

bool LfsFile::statFS(const char* path, uint64_t& avail, uint64_t& total, uint64_t& free) {
    return File::statFS(path, avail, total, free);
}

bool LfsFile::access(const char* path, int mode) {
    return File::access(path, mode);
}

bool LfsFile::stat(const char* path, FileInfo& info) {
    return File::stat(path, info);
}

}  // namespace Vantel::Orbel
