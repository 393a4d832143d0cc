// CIniFile: sections of key=value lines in a text file, read and written
// directly on the file.  There is no cache: every read opens, scans and
// closes the file; every write rewrites the part of the file behind the
// changed line in place.  Section and key names are case-sensitive.
//
// Comment rule: a line whose first non-blank character is ';' is skipped by
// the reader, and a ';' anywhere else ends the line for the reader, also
// inside a value (a value cannot hold a ';').
//
// No locking: callers that share one file between threads serialise
// themselves.
#pragma once

#include <string>
#include <vector>

/// Reads the value of `key` in `section` of `fileName` into `buffer`.
/// With a null key the buffer receives the list of key names of the section,
/// with a null section the list of all section names; a list is a sequence
/// of NUL-terminated names ended by an empty string.
/// Returns the number of characters stored (for a list counting each name's
/// NUL).  A value cut to the buffer returns `size` - 1, a cut list `size` - 2.
/// When nothing was found and section, key and default are all given, the
/// default is copied (cut to the buffer) and its length returned; else 0.
/// Returns 0 at once when `buffer` or `fileName` is null or `size` is 0.
unsigned GetPrivateProfileString(const char* section, const char* key, const char* defaultValue, char* buffer,
                                 unsigned size, const char* fileName);

/// Writes `key`=`value` into `section` of `fileName`, creating the file
/// (mode 0644) or the section when missing.  A null value deletes the key,
/// a null key deletes the whole section.  Returns true on success; false
/// when section or file name is null, when something to delete is missing
/// or the file could not be written.  Not atomic: the rest of the file is
/// rewritten in place.
bool WritePrivateProfileString(const char* section, const char* key, const char* value, const char* fileName);

class CIniFile {
public:
    /// Result buffers start at this size and grow by the same step ...
    static constexpr unsigned kBufferStep = 1024;
    /// ... as long as they stay within this size.
    static constexpr unsigned kBufferLimit = 65535;

    CIniFile() = default;
    ~CIniFile();
    CIniFile(const CIniFile&) = delete;
    CIniFile& operator=(const CIniFile&) = delete;

    /// Replaces the remembered file name with a copy of `name`; null clears it.
    void SetFilename(const char* name);
    /// The remembered file name, or "" when none is set.
    const char* GetFileName() const;

    /// Marks the file open.  False without a file name.  With `check` the
    /// file must be readable, otherwise it is not touched.
    bool Open(bool check = false);
    /// SetFilename(name), then Open(check).
    bool Open(const char* name, bool check = false);
    bool IsOpen() const { return m_bOpen; }
    /// Clears the open flag; nothing else.
    void Close() { m_bOpen = false; }

    /// The value, in the object's string buffer (valid until the next call),
    /// or `defaultValue` when not open, without file name, when the buffer
    /// could not be made or the value outgrew the buffer limit.
    const char* GetString(const char* section, const char* key, const char* defaultValue);
    /// The value (or `defaultValue`) into `result`.  False when not open,
    /// without file name, or when the value outgrew the buffer limit (then
    /// `result` holds the default).
    bool GetString(std::string& result, const char* section, const char* key, const char* defaultValue);
    /// The value converted with strtoul base 0 (so "0x1F" is 31); `defaultValue`
    /// when not open, section or key null, or the value empty or missing.
    unsigned GetNumber(const char* section, const char* key, unsigned defaultValue);

    /// With a null section the first section name, otherwise the first key
    /// name of `section`; "" when there is none or on failure.  Sets the
    /// cursor for GetNextEnum.
    const char* GetEnum(const char* section);
    /// The next name of the list made by GetEnum; "" at its end.
    const char* GetNextEnum();
    /// Appends every section name; true when at least one was found.
    bool GetSections(std::vector<std::string>& sections);
    /// Appends every key name of `section`; true when at least one was found.
    bool GetEnums(std::vector<std::string>& keys, const char* section);

    /// WritePrivateProfileString on the remembered file.  False when not
    /// open, without file name or with a null section.
    bool SetString(const char* section, const char* key, const char* value);
    /// Writes the number as "%u".  False also for a null key.
    bool SetNumber(const char* section, const char* key, unsigned value);
    /// Writes the number as "%d".  False also for a null key.
    bool SetNumber(const char* section, const char* key, int value);
    bool DeleteSection(const char* section);
    bool DeleteKey(const char* section, const char* key);
    /// Copies every key of `from` into `to`.  Returns the open flag.
    bool CopySection(const char* from, const char* to);
    /// Writes nothing (there is no cache); only traces.
    void Flush();

private:
    /// Reads into `buffer` of `size`, growing it by kBufferStep while the
    /// result may have been cut.  False when the limit was hit or memory ran
    /// out (the buffer is then freed and its size reset).
    bool ReadGrowing(const char* section, const char* key, const char* defaultValue, char*& buffer,
                     unsigned& size);

    char* m_pFileName = nullptr;
    char* m_pStringBuffer = nullptr;
    char* m_pEnumBuffer = nullptr;
    char* m_pEnumCursor = nullptr;
    unsigned m_StringBufferSize = kBufferStep;
    unsigned m_EnumBufferSize = kBufferStep;
    bool m_bOpen = false;
};
