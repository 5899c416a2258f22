#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "Vantel/Orbel/IFileSystem.h"

namespace OrbelTest {

/// A file system with no files: it writes down what it is asked and answers as it is told.
class ScriptedFileSystem : public Vantel::Orbel::IFileSystem {
public:
    explicit ScriptedFileSystem(const char* prefix) : mPrefix(prefix) {
        Vantel::Orbel::hookFileSystem(prefix, this);
    }
    ~ScriptedFileSystem() override { Vantel::Orbel::hookFileSystem(mPrefix.c_str(), nullptr); }

    /// What was asked since the last call.
    std::vector<std::string> asked() { return std::move(mAsked); }

    void* fopen(const char* path, const char* mode) override {
        mAsked.push_back(std::string("fopen ") + mode);
        mOpened = path;
        return mOpens ? this : nullptr;
    }
    int fclose(void* file) override { return ask("fclose", file == this ? mResult : -1); }
    int fread(void*, int, int count, void*) override {
        mAsked.push_back("fread " + std::to_string(count));
        return transfer();
    }
    int fwrite(const void*, int, int count, void*) override {
        mAsked.push_back("fwrite " + std::to_string(count));
        return transfer();
    }
    int fflush(void*) override { return ask("fflush", mResult); }
    int fseek(void*, int offset, int whence) override {
        return ask("fseek " + std::to_string(offset) + " " + std::to_string(whence), mResult);
    }
    long ftell(void*) override {
        ask("ftell", 0);
        return mPosition;
    }
    char* fgets(char* buffer, int size, void*) override {
        ask("fgets " + std::to_string(size), 0);
        return mResult < 0 ? nullptr : std::strcpy(buffer, "line\n");
    }
    int fputs(const char*, void*) override { return ask("fputs", mResult); }
    int rename(const char*, const char*) override { return ask("rename", mResult); }
    int remove(const char*) override { return ask("remove", mResult); }
    long findfirst(const char*, Vantel::Orbel::FileInfo& info) override {
        return ask(std::string("findfirst ") + info.name, mResult);
    }
    int findnext(long, Vantel::Orbel::FileInfo& info) override {
        return ask(std::string("findnext ") + info.name, mResult);
    }
    int findclose(long) override { return ask("findclose", 0); }
    int mkdir(const char*) override { return ask("mkdir", mResult); }
    int rmdir(const char*) override { return ask("rmdir", mResult); }
    int statfs(const char*, unsigned long& avail, unsigned long&, unsigned long&) override {
        avail = 42;
        return ask("statfs", mResult);
    }
    int access(const char*, int mode) override {
        return ask("access " + std::to_string(mode), mResult);
    }
    int stat(const char*, Vantel::Orbel::FileInfo& info) override {
        info.size = mSize;
        return ask("stat", mResult);
    }
    int writev(void*, const Vantel::Orbel::IOVector*, int) override {
        return ask("writev", transfer());
    }
    bool makeDirectoryWithParent(const char*) override { return true; }

    bool mOpens = true;
    int mResult = 0;
    long mPosition = 0;
    int64_t mSize = 0;
    std::vector<int> mTransfers;  // results of fread, fwrite and writev; 0 when used up
    std::string mOpened;

private:
    int ask(const std::string& what, int result) {
        mAsked.push_back(what);
        return result;
    }
    int transfer() {
        if (mTransfers.empty()) {
            return 0;
        }
        const int result = mTransfers.front();
        mTransfers.erase(mTransfers.begin());
        return result;
    }

    std::string mPrefix;
    std::vector<std::string> mAsked;
};

}  // namespace OrbelTest
