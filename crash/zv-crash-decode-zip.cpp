#include "zv-crash-decode-zip.h"

#include <algorithm>

#include "zv-crash-decode-utils.h"
#include "zv-crash-decode.h"
#include "zv-file-util.h"
#include "zv-file.h"
#include "zv-zip-read.h"
#include "zv-zip.h"

namespace {

constexpr unsigned kCoreCount = 3; // KOR 0, 1 and 2

// Index of the first entry ending with `suffix`, or -1.
int FindEnding(const ZvAStringList& files, const ZvAString& suffix) {
    for (unsigned i = 0; i < files.Count(); ++i)
        if (files[i].EndsWith(suffix.c_str()))
            return static_cast<int>(i);
    return -1;
}

bool Contains(const ZvAStringList& files, const ZvAString& path) {
    for (unsigned i = 0; i < files.Count(); ++i)
        if (files[i] == path)
            return true;
    return false;
}

// Starts the crash zip at `building` from the target's zip at `zipPath`. The target's zip is input
// from outside and is never added to as it is: its entries are read through, each whole with its
// checksum, and copied into the new zip, under safe names (none that reaches out of the folder it
// is unpacked in). One that cannot be read through goes in whole, as one entry (`damaged`).
bool StartFromTargetZip(const ZvAString& zipPath, const ZvAString& building, ZvZip& zip,
                        bool& damaged) {
    if (!zip.Open(building.c_str(), false))
        return false;
    damaged =
        !ZvZipReadEntries(zipPath.c_str(), [](const ZvAString&, const ZvAString&) { return true; });
    if (damaged)
        return zip.Add(zipPath.c_str(), ZvCrashNameInZip(zipPath).c_str());
    return ZvZipReadEntries(zipPath.c_str(), [&](const ZvAString& name, const ZvAString& data) {
        return zip.AddData(name.c_str(), data.data(), data.size());
    });
}

// The zip's path with the leading "crash" of its file name turned into "core".
ZvAString CoreZipPath(const ZvAString& zipPath) {
    ZvAString dir;
    ZvFileUtil::GetFullDir(zipPath.c_str(), dir);
    return dir + "core" + ZvAString(ZvFileUtil::GetFullName(zipPath.c_str())).substr(5);
}

} // namespace

bool ZvCrashTidyZolChunks(unsigned int kor, ZvAStringList& files, bool move, ZvAString* error) {
    ZvAString chunk1Name, chunk2Name, threadName;
    chunk1Name.Printf("logging_kor%u_chunk1.zol", kor);
    chunk2Name.Printf("logging_kor%u_chunk2.zol", kor);
    threadName.Printf("logging_kor_thread%u.zol", kor);
    const int index1 = FindEnding(files, chunk1Name);
    const int index2 = FindEnding(files, chunk2Name);
    if (index1 < 0 || index2 < 0)
        return true;
    const ZvAString chunk1 = files[index1], chunk2 = files[index2];
    ZvAString target;
    ZvFileUtil::GetFullDir(chunk1.c_str(), target);
    target += threadName;

    // The messages name chunk 2 as the source even when chunk 1 failed; users and scripts
    // know them in this form.
    if (!move) {
        if (!ZvFile::Copy(chunk1.c_str(), target.c_str(), false)) {
            ZvCrashSetError(error, "Failed to copy file from '%s' to '%s'.", chunk2.c_str(),
                            target.c_str());
            return false;
        }
    } else {
        ZvFileUtil::DelFile(target.c_str());
        if (!ZvFile::Rename(chunk1.c_str(), target.c_str())) {
            ZvCrashSetError(error, "Failed to rename file from '%s' to '%s'.", chunk2.c_str(),
                            target.c_str());
            return false;
        }
    }
    if (!ZvFile::Append(target.c_str(), chunk2.c_str())) {
        ZvCrashSetError(error, "Failed to append file from '%s' to '%s'.", chunk2.c_str(),
                        target.c_str());
        // Chunk 1 now lives under the target's name: list it there so that it is not lost.
        if (move)
            files[index1] = target;
        return false;
    }
    if (move)
        ZvFileUtil::DelFile(chunk2.c_str());

    files.Remove(static_cast<unsigned>(std::max(index1, index2)));
    files.Remove(static_cast<unsigned>(std::min(index1, index2)));
    files.Add(target);
    return true;
}

bool ZvCrashTidy(const ZvAStringList& decodedFiles, ZvAStringList* extraFiles,
                 ZvAStringList& outFiles, bool move, ZvAString* error) {
    ZvAStringList work(decodedFiles);
    if (extraFiles != nullptr)
        for (unsigned i = 0; i < extraFiles->Count(); ++i)
            if (ZvFile::Exists((*extraFiles)[i].c_str()))
                work.Add((*extraFiles)[i]);

    bool joined = true;
    for (unsigned kor = 0; kor < kCoreCount; ++kor)
        joined = ZvCrashTidyZolChunks(kor, work, move, error) && joined;

    // The target may send several crash dump zips; the last one with a usable number is kept.
    int chosen = -1;
    for (unsigned i = 0; i < work.Count(); ++i) {
        long number = 0;
        if (ZvCrashIsDumpZip(work[i].c_str(), &number) && number >= 0)
            chosen = static_cast<int>(i);
    }
    for (unsigned i = work.Count(); i-- > 0;)
        if (static_cast<int>(i) != chosen && ZvCrashIsDumpZip(work[i].c_str()))
            work.Remove(i);

    outFiles = work;
    return joined;
}

bool ZvCrashZip(const ZvAStringList& decodedFiles, ZvAStringList* extraFiles, ZvAString& zipPath,
                bool move, ZvAString* error) {
    ZvAStringList files;
    ZvCrashTidy(decodedFiles, extraFiles, files, move, error);

    zipPath.clear();
    for (unsigned i = 0; i < files.Count() && zipPath.empty(); ++i)
        if (ZvCrashIsDumpZip(files[i].c_str()))
            zipPath = files[i];
    if (zipPath.empty()) {
        ZvCrashSetError(error, "Failed to find the crash dump zip file in the crash information.");
        return false;
    }

    // The crash zip is made beside the target's and takes its place only once complete: a failure
    // half-way leaves nothing half-written.
    ZvAString dir, building;
    ZvFileUtil::GetFullDir(zipPath.c_str(), dir);
    ZvZip zip;
    bool damaged = false;
    if (!ZvFileUtil::GetTempFileName(dir.empty() ? "." : dir.c_str(), "zip", ".part", building) ||
        !StartFromTargetZip(zipPath, building, zip, damaged)) {
        ZvFileUtil::DelFile(building.c_str());
        ZvCrashSetError(error,
                        "Failed to open the crash dump zip file '%s'. Check for corrupt crash "
                        "information.",
                        zipPath.c_str());
        return false;
    }
    ZvAStringList added;
    for (unsigned i = 0; i < files.Count(); ++i) {
        const ZvAString& path = files[i];
        // A description used twice lists its file twice; it goes in once.
        if (path == zipPath || Contains(added, path))
            continue;
        if (zip.Add(path.c_str(), ZvCrashNameInZip(path).c_str()))
            added.Add(path);
        else
            ZvCrashSetError(error, "Failed to add the '%s' file to the crash dump zip file.",
                            path.c_str());
    }
    if (!zip.Close() || !ZvFile::Rename(building.c_str(), zipPath.c_str())) {
        ZvFileUtil::DelFile(building.c_str());
        ZvCrashSetError(error, "Failed to close the crash dump zip file '%s'.", zipPath.c_str());
        return false;
    }
    if (damaged)
        ZvCrashSetError(error,
                        "The crash dump zip file '%s' in the crash information is damaged; it is "
                        "kept whole inside the crash zip.",
                        zipPath.c_str());
    // Only a complete zip may take the place of the files it holds.
    if (move)
        for (unsigned i = 0; i < added.Count(); ++i)
            ZvFileUtil::DelFile(added[i].c_str());
    return true;
}

bool ZvCrashDecodeZip(const ZvAtCrash::Response& response, const char* outputDir,
                      ZvAStringList& files, ZvAString* error, bool keepText) {
    files.Clear();
    const char* dir = outputDir != nullptr ? outputDir : "";
    ZvAString crashLog, coreDump, crashText;
    if (!response.crashLogFile.empty())
        files.Add(crashLog = ZvCrashMoveToName(response.crashLogFile, dir, "crashlog.txt"));
    if (!response.coreDumpFile.empty())
        files.Add(coreDump = ZvCrashMoveToName(response.coreDumpFile, dir,
                                               response.coreDumpRaw ? "extram.dmp" : "extram.bin"));
    if (response.crashInfoFile.empty())
        return !files.Empty();
    files.Add(crashText = ZvCrashMoveToName(response.crashInfoFile, dir, "crash.txt"));

    // The retrieved files lie beside the text; a section of the same name must not replace them.
    ZvCrashDecode decode;
    for (const ZvAString* retrieved : {&crashLog, &coreDump}) {
        if (!retrieved->empty())
            ZvFileUtil::RelativeToAbsolutePath(retrieved->c_str(), decode.keepFiles.Add(""), false);
    }
    if (!decode.Decode(crashText.c_str(), nullptr)) {
        ZvCrashSetError(error, "%s", decode.errorText.c_str());
        return true;
    }
    ZvAStringList extras;
    for (const ZvAString* extra : {&crashLog, &coreDump})
        if (!extra->empty())
            extras.Add(*extra);
    ZvAString zipPath;
    if (!ZvCrashZip(decode.outputFiles, &extras, zipPath, true, error)) {
        // Files that went into the zip before it failed are still on disk: nothing was moved.
        return true;
    }

    ZvAString finalZip = zipPath;
    if (!coreDump.empty()) {
        const ZvAString corePath = CoreZipPath(zipPath);
        if (ZvFile::Rename(zipPath.c_str(), corePath.c_str()))
            finalZip = corePath;
    }
    files.Clear();
    if (keepText)
        files.Add(crashText);
    files.Add(finalZip);

    // What went into the zip is gone already; other crash dump zips the target sent are
    // dropped, and a file the zip could not take stays and is listed.
    ZvAStringList leftovers(extras);
    for (unsigned i = 0; i < decode.outputFiles.Count(); ++i)
        leftovers.Add(decode.outputFiles[i]);
    for (unsigned i = 0; i < leftovers.Count(); ++i) {
        const ZvAString& path = leftovers[i];
        if (path == zipPath || path == finalZip || !ZvFile::Exists(path.c_str()))
            continue;
        if (ZvCrashIsDumpZip(path.c_str()))
            ZvFileUtil::DelFile(path.c_str());
        else if (!Contains(files, path))
            files.Add(path);
    }
    return true;
}
