#pragma once

#include <cstdint>
#include <string>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// Walks the entries of one directory, "." and ".." among them, in the order of the file system.
/// Entries with names of 229 bytes and more are passed over.
///
/// Threads: one object, one thread.
class ORBEL_API FileFind {
public:
    FileFind();
    FileFind(const FileFind&) = delete;
    FileFind& operator=(const FileFind&) = delete;
    virtual ~FileFind();

    /// Goes to the first entry of the directory: "/dir/*" is its pattern. Nothing is matched: a
    /// star at the end is cut off, and what remains is the directory. False if it cannot be opened
    /// or `pattern` is null or empty. A search that was open is closed.
    virtual bool findFile(const char* pattern);

    /// Goes to the next entry; false after the last one, and without a search. The search stays
    /// open until close().
    virtual bool findNextFile();

    /// Ends a search; without one nothing happens. The entry that was found last can still be asked
    /// about.
    virtual void close();

    /// In bytes, of the entry that was found last, as all that follows.
    virtual int64_t getLength();
    /// Without its directory.
    virtual std::string getFileName();
    /// The directory as `pattern` told it, and the name.
    virtual std::string getFilePath();
    ///@{
    /// See the bits of FileInfo.
    virtual bool isReadOnly();
    virtual bool isDirectory();
    virtual bool isHidden();
    ///@}
    /// Neither of these three.
    virtual bool isNormal();

private:
    class ORBEL_LOCAL Internal;

    Internal* mInternal;
};

}  // namespace Vantel::Orbel
