#include "Vantel/Orbel/FileFind.h"

#include <cstring>

#include "Vantel/Orbel/IFileSystem.h"
#include "file/MountTable.h"
#include "frame/base/CopyName.h"

namespace Vantel::Orbel {

class FileFind::Internal {
public:
    ~Internal() { close(); }

    void close() {
        if (mHandle != -1) {
            mFileSystem->findclose(mHandle);
            mHandle = -1;
        }
    }

    bool has(uint16_t attribute) const { return (mInfo.attr & attribute) != 0; }

    long mHandle = -1;
    FileInfo mInfo{};
    IFileSystem* mFileSystem = nullptr;
    std::string mBasePath;
};

FileFind::FileFind() : mInternal(new Internal) {}

FileFind::~FileFind() {
    delete mInternal;
}

bool FileFind::findFile(const char* pattern) {
    if (pattern == nullptr || pattern[0] == '\0') {
        return false;
    }
    mInternal->close();
    const char* slash = std::strrchr(pattern, '/');
    // Without a slash the base is one character: no pattern to use, but this is how it stands.
    mInternal->mBasePath.assign(pattern, slash == nullptr ? pattern : slash);
    mInternal->mBasePath += slash == nullptr ? pattern[0] : '/';
    mInternal->mFileSystem = _findOpts(pattern);
    // The table finds the directory in the place of the name.
    copyName(mInternal->mInfo.name, mInternal->mBasePath.c_str());
    mInternal->mHandle = mInternal->mFileSystem->findfirst(pattern, mInternal->mInfo);
    return mInternal->mHandle != -1;
}

bool FileFind::findNextFile() {
    if (mInternal->mHandle == -1) {
        return false;
    }
    copyName(mInternal->mInfo.name, mInternal->mBasePath.c_str());
    return mInternal->mFileSystem->findnext(mInternal->mHandle, mInternal->mInfo) != -1;
}

void FileFind::close() {
    mInternal->close();
}

int64_t FileFind::getLength() {
    return mInternal->mInfo.size;
}

std::string FileFind::getFileName() {
    return mInternal->mInfo.name;
}

std::string FileFind::getFilePath() {
    return mInternal->mBasePath + mInternal->mInfo.name;
}

bool FileFind::isReadOnly() {
    return mInternal->has(FileInfo::kReadOnly);
}

bool FileFind::isDirectory() {
    return mInternal->has(FileInfo::kDirectory);
}

bool FileFind::isHidden() {
    return mInternal->has(FileInfo::kHidden);
}

bool FileFind::isNormal() {
    return mInternal->mInfo.attr == 0;
}

}  // namespace Vantel::Orbel
