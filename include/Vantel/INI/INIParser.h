#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Vantel/Export.h"

namespace Vantel::INI {

/// Reads values from INI files with the iniparser library, whose rules hold: sections and keys are
/// compared in lower case, "; text" behind a value is a comment, a backslash ends a line that goes
/// on, a line of more than 1023 bytes or one that is neither section, value nor comment spoils the
/// file. That library writes what it does not like about a file to standard error.
///
/// Threads: the static operations from any thread, one at a time: iniparser parses in static
/// memory. An application that calls iniparser itself must not do so beside them.
class ORBEL_API INIParser {
public:
    INIParser() = default;
    INIParser(const INIParser&) = delete;
    INIParser& operator=(const INIParser&) = delete;

    /// An object for one section of a file. It does nothing yet, see below. A null `file` or
    /// `section` ends the program (fatal line and assertion).
    static std::shared_ptr<INIParser> create(const char* file, const char* section);

    /// Puts the values of `keys` into `values`, each under its key as it is written here; other
    /// entries stay. A key that the file does not have is no error. Without a section (null or
    /// empty) a key is "section:key", or one that stands before the first section.
    ///
    /// False for a null or empty `file`, for no keys, if the file cannot be read (the log has a
    /// line), and at an empty key; what was found before that one stays in `values`.
    static bool readINIFile(const char* file, const std::vector<std::string>& keys,
                            std::map<std::string, std::string>& values, const char* section);

    /// Always false: nothing is written.
    static bool writeINIFile(const char* file, const std::map<std::string, std::string>& values,
                             const char* section);

    ///@{
    /// Inert: they are there for their places in the virtual table. True, and an empty text.
    virtual bool read() = 0;
    virtual bool write() = 0;
    virtual const std::string& getValue(const char* key) = 0;
    virtual bool setValue(const char* key, const char* value) = 0;
    virtual bool removeValue(const char* key) = 0;
    ///@}

    virtual ~INIParser() = default;  // behind the others in the virtual table, unlike elsewhere
};

}  // namespace Vantel::INI
