// ZvAString: the one byte-string type of the system, the standard string plus the text helpers
// that messages, settings parsing and whole-file input and output lean on.
#pragma once

#include <cstdarg>
#include <string>

// Every trim in the system removes exactly these bytes from the ends of a text.
extern const char* const kZvWhitespace; // " \t\f\v\r\n"

class ZvAString : public std::string {
public:
    ZvAString() = default;
    ZvAString(const char* text) { operator=(text); }
    ZvAString(const char* text, size_t length) : std::string(text, length) {}
    ZvAString(const std::string& text) : std::string(text) {}
    ZvAString(size_t count, char fill) : std::string(count, fill) {}

    // A null pointer clears the string.
    ZvAString& operator=(const char* text);
    ZvAString& operator=(const std::string& text) {
        std::string::operator=(text);
        return *this;
    }

    bool StartsWith(const char* prefix, const char** rest = nullptr) const;
    bool StartsWith(const char* prefix, ZvAString& rest) const;
    bool EndsWith(const char* suffix, ZvAString* head = nullptr) const;

    int Vprintf(const char* format, va_list args);
    int Printf(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void AddPrintf(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Removes the whitespace set from both ends.
    ZvAString& Trim();
    // Removes one matched pair of single quotes, then one matched pair of double quotes.
    void RemoveQuotes(bool trim);
    // Splits at the LAST equals sign: "a=b=c" gives name "a=b" and value "c".
    bool GetNameAndValue(ZvAString* name, ZvAString* value, bool removeQuotes) const;
    // Replaces every occurrence; the inserted text is never rescanned.
    void Replace(const char* from, const char* to);

    ZvAString& ToUpper();
    ZvAString& ToLower();
    // Case-insensitive search; npos (all bits set) when absent.
    size_type IndexI(const char* what, unsigned start = 0) const;
    const char* FindI(const char* what, unsigned start = 0) const;

    bool SaveToFile(const char* path) const;
    bool LoadFromFile(const char* path);
};
