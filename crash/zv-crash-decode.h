// ZvCrashDecode: splits the crash information text that a crashed target sends into one file per
// section. Each section starts with a boundary line and a few "Content-" header lines naming the
// section and its transfer encoding; its body is base64 or plain text. The files are named by the
// sections' descriptions and listed in the order of the sections.
#pragma once

#include "zv-string-ascii.h"
#include "zv-string-list-ascii.h"

class ZvCrashDecode {
public:
    // Decodes `inputFile` into `outputDir` (null: the directory of the input file). True when
    // every section was written or deliberately skipped; otherwise `errorText` says why. Files
    // written before a failure stay on disk and in `outputFiles`.
    bool Decode(const char* inputFile, const char* outputDir);

    // Full paths of the files written by the last Decode, in the order of the sections. A
    // description used twice overwrites its file and is listed twice.
    ZvAStringList outputFiles;
    // Empty when the last Decode succeeded.
    ZvAString errorText;
    // Files a section must never replace (absolute paths), such as the crash log retrieved
    // beside the text. The text being decoded is always kept.
    ZvAStringList keepFiles;

private:
    // The section being read: its name and encoding carry over to the next section unless that
    // one gives its own.
    struct Section {
        bool collecting = false;
        ZvAString description;
        ZvAString encoding;
        ZvAStringList body;
    };

    // Reads the header lines after the boundary at `boundary`; returns the index of the first
    // line after them. False when the decode must end.
    bool ReadHeaders(const ZvAStringList& lines, unsigned boundary, Section& section,
                     unsigned& next);
    // True when `path` is the input or one of `keepFiles`.
    bool IsKept(const ZvAString& path) const;
    // Writes the collected body of `section`. False when the decode must end.
    bool WriteSection(const Section& section);

    ZvAString m_inputPath;  // absolute
    ZvAString m_outputBase; // ends with "/"
};
