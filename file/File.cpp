#include "Vantel/Orbel/File.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "Vantel/Orbel/ProcessServices.h"
#include "file/FileDefaultOpt.h"
#include "file/FileState.h"
#include "frame/base/Require.h"
#include "frame/base/ThreadId.h"

namespace Vantel::Orbel {

class File::Internal : public FileState<uint32_t> {
public:
    int read(void* buffer, size_t size) {
        if (!isOpen() || (buffer == nullptr && size > 0)) {
            return -1;
        }
        const int count = mFileOpt->fread(buffer, 1, oneCall(size), mFile);
        if (count < 0) {
            return -1;
        }
        mPosition += static_cast<uint32_t>(count);
        return count;
    }

    int write(const void* data, size_t size) {
        if (!isOpen() || (data == nullptr && size > 0)) {
            return -1;
        }
        const int count = mFileOpt->fwrite(data, 1, oneCall(size), mFile);
        if (count < 0) {
            return -1;
        }
        locate();
        return count;
    }

    /// Shows on standard output what is behind the descriptor whose content came up short, which
    /// only the default table has.
    void showDescriptor() const {
        if (mFileOpt != FileDefaultOpt::instance()) {
            return;
        }
        char command[64];
        std::snprintf(command, sizeof command, "%s%d%s%d", "ls -lh /proc/", currentThreadId(),
                      "/fd/", fileno(static_cast<FILE*>(mFile)));
        systemCall(command);
    }

private:
    static int oneCall(size_t size) { return static_cast<int>(std::min<size_t>(size, INT_MAX)); }
};

File::File() : mInternal(new Internal) {}

File::~File() {
    delete mInternal;
}

bool File::open(const char* path, uint32_t flags) {
    mInternal->unload();
    mInternal->mFileOpt = _findOpts(path);
    ORBEL_REQUIRE(mInternal->mFileOpt != nullptr, "mInternal->mFileOpt == 0\n");
    // The whole byte is the access, so that close-on-exec makes a reader of everybody.
    return mInternal->open(path, flags, openMode(flags & kOpenAccess, flags, "rb"));
}

bool File::close() {
    return mInternal->close();
}

uint8_t* File::load(const char* path) {
    ORBEL_REQUIRE(mInternal->mBuffer == nullptr, "mInternal->mBuffer != 0\n");
    if (!open(path, kOpenKeep)) {
        return nullptr;
    }
    return mInternal->load(
        INT_MAX,  // one read brings it all
        [this](uint8_t* buffer, uint32_t size) { return mInternal->read(buffer, size); },
        [this, path](uint32_t length, int count) {
            const int error = errno;
            mInternal->showDescriptor();
            ORBEL_LOG_ERROR("filename(%s), length(%d), ret(%d), %s\n", path,
                            static_cast<int>(length), count, std::strerror(error));
        });
}

void File::unload() {
    mInternal->unload();
}

int File::read(void* buffer, size_t size) {
    return mInternal->read(buffer, size);
}

int File::write(const void* data, size_t size) {
    return mInternal->write(data, size);
}

bool File::flush() {
    return mInternal->flush();
}

uint32_t File::seek(int offset, SeekPosition whence) {
    return mInternal->seek(offset, whence);
}

uint32_t File::getPosition() {
    return mInternal->mPosition;
}

uint32_t File::getLength() {
    return mInternal->getLength();
}

char* File::gets(char* buffer, size_t size) {
    return mInternal->gets(buffer, static_cast<int>(std::min<size_t>(size, INT_MAX)));
}

int File::puts(const char* text) {
    return mInternal->puts(text);
}

bool File::isOpen() {
    return mInternal->isOpen();
}

int File::writev(const IOVector* vectors, int count) {
    return mInternal->writev(vectors, count);
}

}  // namespace Vantel::Orbel
