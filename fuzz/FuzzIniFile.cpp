// Fuzz target: INI reading and writing. The input is the file; every section, key and value found
// is read, then keys are written into a copy and must read back as written.
#include "FuzzSupport.h"

#include "trace/CIniFile.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <vector>

namespace {

// The first four names of the list of sections (null `section`) or of the
// keys of `section`: every lookup reads the whole file again.
std::vector<std::string> FirstNames(const char* section, const std::string& file)
{
    static char buf[4096];
    const unsigned n = GetPrivateProfileString(section, nullptr, "", buf, sizeof(buf), file.c_str());
    FUZZ_CHECK(n < sizeof(buf));
    std::vector<std::string> out;
    for (unsigned i = 0; i < n && buf[i] && out.size() < 4; i += static_cast<unsigned>(out.back().size()) + 1)
        out.emplace_back(buf + i);
    return out;
}

bool Plain(const std::string& s)
{
    return !s.empty() && std::all_of(s.begin(), s.end(), [](unsigned char c) { return isalnum(c) || c == '_'; });
}

void WriteAndCheck(const char* section, const char* key, const char* value, const std::string& file)
{
    if (!WritePrivateProfileString(section, key, value, file.c_str()))
        return; // a file that cannot be rewritten is no fault of the parser
    char back[1024];
    unsigned n = GetPrivateProfileString(section, key, "<default>", back, sizeof(back), file.c_str());
    FUZZ_CHECK(n < sizeof(back));
    FUZZ_CHECK(strcmp(back, value) == 0);
}

// Reader and writer agree only on files whose lines start in column 0 (the reader skips leading
// white space, the writer does not), fit the reader's line buffer, hold no NUL (a NUL ends a line
// for the reader only) and have no vertical tab, form feed or carriage return between a key and its
// '=' (the reader drops any white space there, the writer only blanks and tabs).
bool WriterAgreesWithReader(const uint8_t* data, size_t size)
{
    size_t lineLen = 0;
    bool seenEq = false;
    for (size_t i = 0; i < size; ++i) {
        unsigned char c = data[i];
        if (c == '\0')
            return false;
        if (c == '\n') {
            lineLen = 0;
            seenEq = false;
            continue;
        }
        if (lineLen == 0 && isspace(c))
            return false;
        if (c == '=' && !seenEq) {
            seenEq = true;
            size_t k = i;
            while (k > i - lineLen && (data[k - 1] == ' ' || data[k - 1] == '\t'))
                --k;
            if (k > i - lineLen && isspace(data[k - 1]))
                return false;
        }
        if (++lineLen >= 1000)
            return false;
    }
    return true;
}

} // namespace

TARVD_FUZZ_TARGET(data, size)
{
    const std::string& dir = fuzzsupport::ScratchDir();
    const std::string file = dir + "/in.ini";
    const std::string copy = dir + "/copy.ini";
    if (!fuzzsupport::WriteWhole(file, data, size) || !fuzzsupport::WriteWhole(copy, data, size))
        return 0;

    const std::vector<std::string> sections = FirstNames(nullptr, file);
    for (const std::string& s : sections) {
        for (const std::string& k : FirstNames(s.c_str(), file)) {
            char small[8], big[4096];
            unsigned m = GetPrivateProfileString(s.c_str(), k.c_str(), "dflt", small, sizeof(small), file.c_str());
            FUZZ_CHECK(m < sizeof(small));
            FUZZ_CHECK(strlen(small) == m);
            m = GetPrivateProfileString(s.c_str(), k.c_str(), "dflt", big, sizeof(big), file.c_str());
            FUZZ_CHECK(m < sizeof(big));
        }
    }

    CIniFile ini;
    if (ini.Open(file.c_str())) {
        std::vector<std::string> names;
        ini.GetSections(names);
        ini.GetNumber(sections.empty() ? "x" : sections[0].c_str(), "Number", 7);
        for (const char* e = ini.GetEnum(nullptr); e && *e; e = ini.GetNextEnum()) {
        }
    }

    // Writes into the copy: a key just written reads back as written when
    // the section and key names are plain.
    if (WriterAgreesWithReader(data, size)) {
        WriteAndCheck("FuzzSection", "fuzzkey", "value1", copy);
        WriteAndCheck("FuzzSection", "fuzzkey", "value22", copy);
        WriteAndCheck("FuzzSection", "other", "x", copy);
        WriteAndCheck("FuzzSection", "fuzzkey", "v", copy);
        for (const std::string& s : sections)
            if (Plain(s)) {
                WriteAndCheck(s.c_str(), "seckey", "written", copy);
                break;
            }
        WritePrivateProfileString("FuzzSection", "other", nullptr, copy.c_str());
        char back[64];
        GetPrivateProfileString("FuzzSection", "fuzzkey", "", back, sizeof(back), copy.c_str());
        FUZZ_CHECK(strcmp(back, "v") == 0);
        WritePrivateProfileString("FuzzSection", nullptr, nullptr, copy.c_str());
    }
    return 0;
}
