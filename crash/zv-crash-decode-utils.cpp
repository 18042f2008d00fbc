#include "zv-crash-decode-utils.h"

#include <cstdarg>
#include <cstdlib>

#include "zv-file-util.h"
#include "zv-file.h"
#include "zv-zip.h"

void ZvCrashSetError(ZvAString* error, const char* format, ...) {
    if (error == nullptr)
        return;
    va_list args;
    va_start(args, format);
    error->Vprintf(format, args);
    va_end(args);
}

bool ZvCrashIsPlainFileName(const ZvAString& name) {
    return ZvZipIsSafeEntryName(name) && name != "." &&
           name.find_first_of("/\\") == ZvAString::npos;
}

bool ZvCrashIsDumpZip(const char* path, long* number) {
    static const char kPrefix[] = "crash_dump";
    ZvAString name, ext;
    ZvFileUtil::PathSplit(path, nullptr, nullptr, &name, &ext);
    const char* rest = nullptr;
    if (ext != ".zip" || !name.StartsWith(kPrefix, &rest))
        return false;
    if (number != nullptr)
        *number = strtol(rest, nullptr, 10);
    return true;
}

ZvAString ZvCrashNameInZip(const ZvAString& path) {
    for (const char* fixed : {"extram.bin", "extram.dmp"})
        if (path.EndsWith(fixed))
            return fixed;
    const char* name = ZvFileUtil::GetFullName(path.c_str());
    ZvAString stored(name == nullptr ? "" : name);
    if (stored == "bb_events.txt")
        stored = "bb_events_dup.txt";
    return stored;
}

ZvAString ZvCrashMoveToName(const ZvAString& from, const char* dir, const char* name) {
    ZvAString target(dir == nullptr ? "" : dir);
    ZvFileUtil::AppendToPath(target, name);
    if (target == from)
        return from;
    ZvFileUtil::DelFile(target.c_str());
    return ZvFile::Rename(from.c_str(), target.c_str()) ? target : from;
}

bool ZvCrashWriteFile(const ZvAString& path, const ZvAString& data, ZvAString* error) {
    ZvFile file;
    if (!file.Open(path.c_str(), "wb")) {
        ZvCrashSetError(error, "Failed to open output crash file '%s' for writing.", path.c_str());
        return false;
    }
    // The flush brings out a full disk that the buffered write alone would hide.
    if (file.Write(data.data(), data.size()) != data.size() || !file.Flush()) {
        ZvCrashSetError(error, "Failed to write to output crash file '%s'.", path.c_str());
        return false;
    }
    return true;
}
