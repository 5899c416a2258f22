#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "Vantel/Orbel/IFileSystem.h"
#include "file/MountTable.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

constexpr uint32_t kOpenAccess = 0xFF;  // LfsFile: the low 4 bits of it
constexpr uint32_t kOpenCloseOnExec = 0x80;
constexpr uint32_t kOpenCreate = 0x1000;
constexpr uint32_t kOpenKeep = 0x2000;

/// The mode for fopen; `other` is that of an access which is neither 1 nor 2.
inline std::string openMode(uint32_t access, uint32_t flags, const char* other) {
    const bool keep = (flags & kOpenKeep) != 0;
    std::string mode = other;
    if (access == 1) {
        mode = keep ? "ab" : "wb";
    } else if (access == 2) {
        mode = (flags & kOpenCreate) == 0 ? "rb+" : keep ? "ab+" : "wb+";
    }
    return (flags & kOpenCloseOnExec) != 0 ? mode + "e" : mode;
}

/// What File and LfsFile have in common, which is nearly all: they differ in the width of position
/// and length, in read and write, and in that only File logs the steps that fail.
template <class Size>
class FileState {
public:
    static constexpr bool kLogsSteps = sizeof(Size) == sizeof(uint32_t);

    ~FileState() { unload(); }

    bool isOpen() const { return mFile != nullptr; }

    /// Through mFileOpt, which the caller has set, with nothing open.
    bool open(const char* path, uint32_t flags, const std::string& mode) {
        ORBEL_LOG_DEBUG("open file(%s),mode %s,dwFlags %d,flag&0xff: %d\n",
                        path == nullptr ? "" : path, mode.c_str(), static_cast<int>(flags),
                        static_cast<int>(flags & kOpenAccess));
        mFile = mFileOpt->fopen(path, mode.c_str());
        if (mFile == nullptr) {
            return false;
        }
        mPosition = tell();  // not 0 where content is appended
        mLength = (flags & (kOpenCreate | kOpenKeep)) == kOpenCreate ? 0 : askLength(path);
        return true;
    }

    bool close() {
        if (!isOpen()) {
            return true;
        }
        const bool closed = mFileOpt->fclose(mFile) >= 0;
        mFile = nullptr;
        mBuffer.reset();
        mLength = 0;
        mPosition = 0;
        mFileOpt = _findOpts(nullptr);
        return closed;
    }

    void unload() {
        close();
        mBuffer.reset();
    }

    /// Reads the file, which has just been opened, into mBuffer. `read` does it; `report` gets the
    /// length and read's result (-1 if `limit` or the memory doesn't allow it) if they differ.
    template <class Read, class Report>
    uint8_t* load(Size limit, const Read& read, const Report& report) {
        const Size length = getLength();
        if (length == 0) {
            return nullptr;  // and stays open
        }
        if (length <= limit) {  // a directory says that it ends at the greatest of all offsets
            mBuffer.reset(new (std::nothrow) uint8_t[length]);
        }
        seek(0, SEEK_SET);
        errno = mBuffer == nullptr ? ENOMEM : 0;
        const auto count = mBuffer == nullptr ? -1 : read(mBuffer.get(), length);
        if (count >= 0 && static_cast<Size>(count) == length) {
            return mBuffer.get();
        }
        report(length, count);
        unload();
        return nullptr;
    }

    bool flush() {
        if (!isOpen()) {
            return false;
        }
        const bool flushed = mFileOpt->fflush(mFile) >= 0;
        locate();
        return flushed;
    }

    /// After a write: asks the stream where it stands.
    void locate() {
        mPosition = tell();
        mLength = std::max(mLength, mPosition);
    }

    int writev(const IOVector* vectors, int count) {
        if (!isOpen()) {
            return -1;
        }
        const int written = mFileOpt->writev(mFile, vectors, count);
        if (written > 0) {
            advance(static_cast<Size>(written));
        }
        return written;
    }

    Size seek(int64_t offset, int whence) {
        if (!isOpen()) {
            return 0;
        }
        if ((whence == SEEK_SET && offset == static_cast<int64_t>(mPosition)) ||
            (whence == SEEK_CUR && offset == 0)) {
            return mPosition;  // no call, so the stream keeps its buffer
        }
        if (whence < SEEK_SET || whence > SEEK_END) {
            if (mPosition == 0) {
                return 0;
            }
            whence = SEEK_SET;
        }
        // Cut to 32 bits in LfsFile, too: the table takes no more.
        if (mFileOpt->fseek(mFile, static_cast<int>(offset), whence) < 0) {
            if constexpr (kLogsSteps) {
                ORBEL_LOG_ERROR("seek file error,errno %d\n", errno);
            }
            return 0;
        }
        const long reached = mFileOpt->ftell(mFile);
        if constexpr (kLogsSteps) {
            if (reached < 0) {
                ORBEL_LOG_ERROR("tell file error,errno %d\n", errno);
            }
        }
        mPosition = reached < 0 ? 0 : static_cast<Size>(reached);
        return mPosition;
    }

    /// A length of 0 is no knowledge: it is looked up each time.
    Size getLength() {
        if (!isOpen()) {
            if constexpr (kLogsSteps) {
                ORBEL_LOG_DEBUG("file handle is null\n");
            }
            return 0;
        }
        if (mLength == 0) {
            const Size position = mPosition;
            mLength = seek(0, SEEK_END);
            seek(static_cast<int64_t>(position), SEEK_SET);
        }
        return mLength;
    }

    char* gets(char* buffer, int size) {
        if (!isOpen() || buffer == nullptr || size <= 0) {
            return nullptr;
        }
        char* line = mFileOpt->fgets(buffer, size, mFile);
        if (line != nullptr) {
            mPosition += static_cast<Size>(std::strlen(line));
        }
        return line;
    }

    int puts(const char* text) {
        if (!isOpen()) {
            return 0;
        }
        const int result = text == nullptr ? -1 : mFileOpt->fputs(text, mFile);
        if (result != -1) {
            advance(static_cast<Size>(std::strlen(text)));
        }
        return result;
    }

    void* mFile = nullptr;
    std::unique_ptr<uint8_t[]> mBuffer;  // what load() has read
    Size mLength = 0;
    Size mPosition = 0;
    IFileSystem* mFileOpt = _findOpts(nullptr);

private:
    void advance(Size count) {
        mPosition += count;
        mLength = std::max(mLength, mPosition);
    }

    Size tell() const {
        const long position = mFileOpt->ftell(mFile);
        return position < 0 ? 0 : static_cast<Size>(position);
    }

    Size askLength(const char* path) const {
        FileInfo info{};
        if (mFileOpt->stat(path, info) == 0) {
            return static_cast<Size>(info.size);
        }
        if constexpr (kLogsSteps) {
            ORBEL_LOG_ERROR("stat file info failed\n");
        }
        return 0;
    }
};

}  // namespace Vantel::Orbel
