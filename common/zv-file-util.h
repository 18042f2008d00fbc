// ZvFileUtil: stateless path and directory helpers, plus the process-wide writable directory used
// for temporary files. Paths use "/" as separator; only MakePath translates backslashes.
#pragma once

#include "zv-string-ascii.h"
#include "zv-string-list-ascii.h"

class ZvFileUtil {
public:
    // Codes of GetFileType.
    enum FileType {
        FileTypeFailure = 0,
        FileTypeRegular = 1,
        FileTypeDirectory = 2,
        FileTypeOther = 3,
        FileTypeMissing = 4
    };

    // Splits "drive:/dir/name.ext": the drive runs up to and including the first ':', the
    // directory up to and including the last '/', the extension from the last '.' when that dot
    // lies in the file-name part. Any output may be null; all given outputs are cleared first.
    static void PathSplit(const char* path, ZvAString* drive, ZvAString* dir, ZvAString* name,
                          ZvAString* ext);
    // Concatenates the non-null parts in order, adding nothing between them.
    static void PathMerge(ZvAString& out, const char* drive, const char* dir, const char* name,
                          const char* ext);

    // Pointer into `path` after its last '/' (the whole path when none); null for null or "".
    static const char* GetFullName(const char* path);
    // Pointer to the last '.' when it lies in the file-name part (the extension with its dot).
    static const char* GetExt(const char* path);
    // Drive and directory part of `path` (ends with '/' when there is a directory).
    static void GetFullDir(const char* path, ZvAString& out);

    // Keeps only the part after the last '/'.
    static void StripPath(ZvAString& s);
    // Removes the file name: empty when there is no '/'; otherwise cut before the last '/', or
    // after it when `keepSlash`.
    static void StripFullName(ZvAString& s, bool keepSlash);
    // Removes the extension when its dot lies after the last '/'.
    static void StripExt(ZvAString& s);
    // Replaces the extension; `ext` brings its own dot.
    static void ChangeFileExt(ZvAString& s, const char* ext);
    // `s` = `from` with its extension replaced by `ext`.
    static void ChangeFileExt(ZvAString& s, const char* from, const char* ext);
    // `s` = `from` with its whole file name replaced by `name`.
    static void ChangeFullFileName(ZvAString& s, const char* from, const char* name);

    static bool DelFile(const char* path);
    // The size, or -1 when the file cannot be opened or seeked.
    static long long GetFileSize(const char* path);
    // Any kind of entry exists; false for null or "".
    static bool DirExists(const char* path);
    static bool IsDir(const char* path);
    // Creates one directory with permissions 0755.
    static bool MakeDir(const char* path);
    // Adds '/' unless `s` is empty or already ends with one, then appends `part`.
    static void AppendToPath(ZvAString& s, const char* part);
    static int GetFileType(const char* path);
    // The bytes an unprivileged writer may still put on the file system that holds `path`.
    static bool GetFreeSpace(const char* path, unsigned long long& bytes);

    static bool GetCwd(ZvAString& out);
    static bool ChDir(const char* path);
    // As GetCwd and ChDir, with a 1024-byte limit on the directory.
    static bool GetCurrentDir(ZvAString& out);
    static bool SetCurrentDir(const char* path);
    // $HOME followed by '/'; false when HOME is not set.
    static bool GetUserDir(ZvAString& out);
    // The program's own path from /proc/self/exe, read once; empty when unreadable.
    static const ZvAString& GetExePath();

    // The absolute form of `path`, resolved against the current directory. With `isDir` the whole
    // path is a directory. Never changes the current directory, so any thread may call it.
    static void RelativeToAbsolutePath(const char* path, ZvAString& out, bool isDir);

    // The writable directory for temporary files: absolute, ending in '/'.
    static bool SetWritableDir(const char* dir);
    // The writable directory; set to the current directory on first use. Always true.
    static bool GetTempDir(ZvAString& out);
    // Creates a new empty file named writable directory + prefix + six unique characters and
    // returns its name; the file stays for the caller to use and delete.
    static bool GetTempFileName(const char* prefix, ZvAString& out);
    // The same in `dir` (a '/' is added when missing), the name ending with `ext`.
    static bool GetTempFileName(const char* dir, const char* prefix, const char* ext,
                                ZvAString& out);
    // As GetTempFileName(prefix, out) but returns the open descriptor, or -1.
    static int GetTempFileOs(const char* prefix, ZvAString& out);

    // Creates every missing directory of `path`; with `isFile` the last component is a file
    // name and is not created.
    static bool MakePath(const char* path, bool isFile);
    // Removes a directory, with everything in it when `recursive`.
    static bool DeleteDir(const char* path, bool recursive);
    // Appends the regular files of `dir` matching `pattern` to `list`, as full paths
    // (dir + "/" + name). With `recursive` subdirectories are searched too, whatever their names.
    static bool GetDirFiles(const char* dir, ZvAStringList& list, const char* pattern,
                            bool recursive);
};
