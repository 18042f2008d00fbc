// ZvVer: the program version, major.minor and a build number derived from the build date.
#pragma once

#include "zv-string-ascii.h"

class ZvVer {
public:
    // The build date defaults to the compiler's date of building ("Mmm dd yyyy").
    ZvVer(unsigned major, unsigned minor, const char* buildDate = __DATE__);

    void GetFullVersionString(ZvAString& out) const; // "Version 1.8.NNNN (Mmm dd yyyy)"
    void GetNumberString(ZvAString& out) const;      // "1.8.NNNN"
    void GetDateString(ZvAString& out) const { out = m_date; }
    unsigned GetBuildNumber() const { return m_build; }

    // Collapses every run of spaces to one space (tabs are kept).
    static void StripExtraSpaces(ZvAString& text);

private:
    unsigned m_major;
    unsigned m_minor;
    unsigned m_build;
    ZvAString m_date;
};
