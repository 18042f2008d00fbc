#include "zv-crash-decode.h"

#include <climits>

#include "zv-b64.h"
#include "zv-crash-decode-utils.h"
#include "zv-file-util.h"
#include "zv-file.h"
#include "zv-log.h"

namespace {

const char kBoundary[] = "--Zavra debug info";
const char kHeaderPrefix[] = "Content-";
const char kDescriptionHeader[] = "Content-Description:";
const char kEncodingHeader[] = "Content-Transfer-Encoding:";
const char kNoDataComment[] = "Content-Comment: No valid log data available";
const char kBase64[] = "x-base64";
const char kPlainText[] = "text/plain";

bool IsBoundary(const ZvAString& line) {
    return line.StartsWith(kBoundary);
}

// A name from the target as it may be printed: its control characters written as "\xNN", so
// that a hostile name cannot steer the terminal that shows the message.
ZvAString Shown(const ZvAString& name) {
    ZvAString shown;
    for (char c : name) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            shown.AddPrintf("\\x%02x", static_cast<unsigned char>(c));
        else
            shown += c;
    }
    return shown;
}

} // namespace

bool ZvCrashDecode::Decode(const char* inputFile, const char* outputDir) {
    outputFiles.Clear();
    errorText.clear();
    if (inputFile == nullptr) {
        errorText = "Input crash file name pointer is NULL.";
        return false;
    }
    if (!ZvFile::Exists(inputFile)) {
        errorText.Printf("Input crash file '%s' does not exist.", inputFile);
        return false;
    }
    if (outputDir != nullptr && !ZvFileUtil::DirExists(outputDir)) {
        errorText.Printf("Output directory '%s' does not exist.", outputDir);
        return false;
    }

    ZvFileUtil::RelativeToAbsolutePath(inputFile, m_inputPath, false);
    m_outputBase = outputDir != nullptr ? outputDir : m_inputPath.c_str();
    if (outputDir == nullptr)
        ZvFileUtil::StripFullName(m_outputBase, true);
    ZvFileUtil::AppendToPath(m_outputBase, "");

    ZvAStringList lines;
    if (!lines.LoadFromFile(m_inputPath)) {
        errorText.Printf("Failed to read from the input crash file '%s'.", m_inputPath.c_str());
        return false;
    }

    Section section;
    for (unsigned i = 0; i < lines.Count();) {
        const ZvAString& line = lines[i];
        if (IsBoundary(line)) {
            if (!section.body.Empty() && !WriteSection(section))
                return false;
            section.body.Clear();
            // A boundary needs room for headers and a body; a closing boundary has none.
            if (lines.Count() - i - 1 < 3)
                break;
            if (!ReadHeaders(lines, i, section, i))
                return false;
            continue;
        }
        if (section.collecting && !line.empty())
            section.body.Add(line);
        ++i;
    }
    return errorText.empty();
}

bool ZvCrashDecode::ReadHeaders(const ZvAStringList& lines, unsigned boundary, Section& section,
                                unsigned& next) {
    section.collecting = true;
    unsigned i = boundary + 1;
    for (; i < lines.Count() && lines[i].StartsWith(kHeaderPrefix); ++i) {
        const ZvAString& line = lines[i];
        ZvAString value;
        if (line.StartsWith(kDescriptionHeader, value))
            section.description = value.Trim();
        else if (line.StartsWith(kEncodingHeader, value))
            section.encoding = value.Trim();
        else if (line == kNoDataComment)
            section.collecting = false;
    }
    next = i;
    if (!section.collecting)
        return true;

    if (section.encoding.empty()) {
        if (section.description.empty())
            errorText = "Crash data encoding not specified.";
        else
            errorText.Printf("Crash data encoding not specified for '%s'.",
                             section.description.c_str());
        return false;
    }
    if (section.encoding != kBase64 && section.encoding != kPlainText) {
        ZvLog::Warning("Crash data encoding '%s' unrecognised on line %u in '%s'.",
                       section.encoding.c_str(), boundary + 1, m_inputPath.c_str());
        section.collecting = false;
    }
    return true;
}

bool ZvCrashDecode::IsKept(const ZvAString& path) const {
    ZvAString absolute;
    ZvFileUtil::RelativeToAbsolutePath(path.c_str(), absolute, false);
    if (absolute == m_inputPath)
        return true;
    for (unsigned i = 0; i < keepFiles.Count(); ++i)
        if (keepFiles[i] == absolute)
            return true;
    return false;
}

bool ZvCrashDecode::WriteSection(const Section& section) {
    // The description becomes a file name in the output directory; one that would reach outside
    // it, or replace the text being decoded, is skipped rather than trusted.
    const ZvAString path = m_outputBase + section.description;
    if (!ZvCrashIsPlainFileName(section.description)) {
        ZvLog::Warning("Crash section '%s' in '%s' is not a plain file name in the output "
                       "directory and was skipped.",
                       Shown(section.description).c_str(), m_inputPath.c_str());
        return true;
    }
    if (IsKept(path)) {
        ZvLog::Warning("Crash section '%s' in '%s' would replace a retrieved file and was "
                       "skipped.",
                       section.description.c_str(), m_inputPath.c_str());
        return true;
    }

    ZvAString data;
    if (section.encoding == kBase64) {
        ZvAString text;
        for (unsigned i = 0; i < section.body.Count(); ++i)
            text += section.body[i];
        ZvAString reason;
        unsigned length = 0;
        const bool fits = text.size() <= static_cast<size_t>(INT_MAX);
        if (!fits)
            reason = "The section is too large.";
        if (!fits ||
            !ZvB64::Decode(text.data(), static_cast<int>(text.size()), data, length, &reason)) {
            errorText.Printf("Base 64 decoding failed on '%s' file data. ",
                             section.description.c_str());
            errorText += reason;
            return false;
        }
        data.resize(length);
    } else {
        for (unsigned i = 0; i < section.body.Count(); ++i) {
            if (i > 0)
                data += '\n';
            data += section.body[i];
        }
    }

    if (!ZvCrashWriteFile(path, data, &errorText))
        return false;
    outputFiles.Add(path);
    return true;
}
