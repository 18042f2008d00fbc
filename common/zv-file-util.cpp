#include "zv-file-util.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "zv-file-find.h"
#include "zv-file.h"

namespace {

// Absolute, ending in '/'; empty until first set.
ZvAString g_writableDir;

size_t LastSlash(const ZvAString& s) {
    return s.rfind('/');
}

} // namespace

void ZvFileUtil::PathSplit(const char* path, ZvAString* drive, ZvAString* dir, ZvAString* name,
                           ZvAString* ext) {
    for (ZvAString* part : {drive, dir, name, ext})
        if (part != nullptr)
            part->clear();
    if (path == nullptr || *path == 0)
        return;
    const ZvAString whole(path);

    size_t colon = whole.find(':');
    size_t dirStart = colon == ZvAString::npos ? 0 : colon + 1;
    size_t slash = LastSlash(whole);
    size_t nameStart = (slash == ZvAString::npos || slash < dirStart) ? dirStart : slash + 1;
    size_t dot = whole.rfind('.');
    size_t extStart = (dot == ZvAString::npos || dot < nameStart) ? whole.size() : dot;

    if (drive != nullptr)
        drive->assign(whole, 0, dirStart);
    if (dir != nullptr)
        dir->assign(whole, dirStart, nameStart - dirStart);
    if (name != nullptr)
        name->assign(whole, nameStart, extStart - nameStart);
    if (ext != nullptr)
        ext->assign(whole, extStart, ZvAString::npos);
}

void ZvFileUtil::PathMerge(ZvAString& out, const char* drive, const char* dir, const char* name,
                           const char* ext) {
    out.clear();
    for (const char* part : {drive, dir, name, ext})
        if (part != nullptr)
            out += part;
}

const char* ZvFileUtil::GetFullName(const char* path) {
    if (path == nullptr || *path == 0)
        return nullptr;
    const char* slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

const char* ZvFileUtil::GetExt(const char* path) {
    const char* name = GetFullName(path);
    return name == nullptr ? nullptr : strrchr(name, '.');
}

void ZvFileUtil::GetFullDir(const char* path, ZvAString& out) {
    ZvAString drive, dir;
    PathSplit(path, &drive, &dir, nullptr, nullptr);
    out = drive + dir;
}

void ZvFileUtil::StripPath(ZvAString& s) {
    size_t slash = LastSlash(s);
    if (slash != ZvAString::npos)
        s.erase(0, slash + 1);
}

void ZvFileUtil::StripFullName(ZvAString& s, bool keepSlash) {
    size_t slash = LastSlash(s);
    if (slash == ZvAString::npos)
        s.clear();
    else
        s.erase(keepSlash ? slash + 1 : slash);
}

void ZvFileUtil::StripExt(ZvAString& s) {
    size_t dot = s.rfind('.');
    size_t slash = LastSlash(s);
    if (dot != ZvAString::npos && (slash == ZvAString::npos || dot > slash))
        s.erase(dot);
}

void ZvFileUtil::ChangeFileExt(ZvAString& s, const char* ext) {
    StripExt(s);
    if (ext != nullptr)
        s += ext;
}

void ZvFileUtil::ChangeFileExt(ZvAString& s, const char* from, const char* ext) {
    s = from;
    ChangeFileExt(s, ext);
}

void ZvFileUtil::ChangeFullFileName(ZvAString& s, const char* from, const char* name) {
    s = from;
    StripFullName(s, true);
    if (name != nullptr)
        s += name;
}

bool ZvFileUtil::DelFile(const char* path) {
    return path != nullptr && unlink(path) == 0;
}

long long ZvFileUtil::GetFileSize(const char* path) {
    long long size = -1;
    return ZvFile::GetSize(path, size) ? size : -1;
}

bool ZvFileUtil::DirExists(const char* path) {
    struct stat info;
    return path != nullptr && *path != 0 && stat(path, &info) == 0;
}

bool ZvFileUtil::IsDir(const char* path) {
    struct stat info;
    return path != nullptr && stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool ZvFileUtil::MakeDir(const char* path) {
    return path != nullptr && mkdir(path, 0755) == 0;
}

void ZvFileUtil::AppendToPath(ZvAString& s, const char* part) {
    if (!s.empty() && s.back() != '/')
        s += '/';
    if (part != nullptr)
        s += part;
}

int ZvFileUtil::GetFileType(const char* path) {
    struct stat info;
    if (path == nullptr)
        return FileTypeFailure;
    if (stat(path, &info) != 0)
        return (errno == ENOENT || errno == ENOTDIR) ? FileTypeMissing : FileTypeFailure;
    if (S_ISREG(info.st_mode))
        return FileTypeRegular;
    if (S_ISDIR(info.st_mode))
        return FileTypeDirectory;
    return FileTypeOther;
}

bool ZvFileUtil::GetFreeSpace(const char* path, unsigned long long& bytes) {
    struct statvfs info;
    if (path == nullptr || statvfs(path, &info) != 0)
        return false;
    bytes = static_cast<unsigned long long>(info.f_bavail) * info.f_frsize;
    return true;
}

bool ZvFileUtil::GetCwd(ZvAString& out) {
    char* cwd = getcwd(nullptr, 0);
    if (cwd == nullptr)
        return false;
    out = cwd;
    free(cwd);
    return true;
}

bool ZvFileUtil::ChDir(const char* path) {
    return path != nullptr && chdir(path) == 0;
}

bool ZvFileUtil::GetCurrentDir(ZvAString& out) {
    char cwd[1024];
    if (getcwd(cwd, sizeof(cwd)) == nullptr)
        return false;
    out = cwd;
    return true;
}

bool ZvFileUtil::SetCurrentDir(const char* path) {
    return path != nullptr && strlen(path) < 1024 && chdir(path) == 0;
}

bool ZvFileUtil::GetUserDir(ZvAString& out) {
    const char* home = getenv("HOME");
    if (home == nullptr)
        return false;
    out = home;
    out += '/';
    return true;
}

const ZvAString& ZvFileUtil::GetExePath() {
    static const ZvAString exePath = [] {
        char link[520];
        ssize_t got = readlink("/proc/self/exe", link, sizeof(link) - 1);
        return got > 0 ? ZvAString(link, static_cast<size_t>(got)) : ZvAString();
    }();
    return exePath;
}

void ZvFileUtil::RelativeToAbsolutePath(const char* path, ZvAString& out, bool isDir) {
    out.clear();
    if (path == nullptr)
        return;
    ZvAString given(path);
    given.Trim();
    ZvAString full(given);
    const bool endedWithSlash = !given.empty() && given.back() == '/';
    if (isDir)
        AppendToPath(full, "dummy.txt");

    ZvAString drive, dir, name, ext;
    PathSplit(full.c_str(), &drive, &dir, &name, &ext);
    out = full;

    ZvAString cwd;
    if (drive.empty() && GetCwd(cwd)) {
        if (dir.empty()) {
            out = cwd;
            if (!name.empty() || !ext.empty())
                AppendToPath(out, (name + ext).c_str());
        } else if (dir[0] != '/') {
            // An existing path is resolved by the file system (symbolic links, ".."), through the
            // directory part alone and without entering it: the current directory belongs to the
            // whole process, and another thread may be opening a relative path at this moment.
            const ZvAString& probe = isDir ? given : full;
            ZvAString resolved;
            if (ZvFile::Exists(probe.c_str())) {
                if (char* real = realpath(dir.c_str(), nullptr)) {
                    resolved = real;
                    free(real);
                    AppendToPath(resolved, (name + ext).c_str());
                    out = resolved;
                }
            }
            if (resolved.empty()) {
                out = cwd;
                AppendToPath(out, full.c_str());
            }
        }
    }

    if (isDir) {
        const char* fileName = GetFullName(out.c_str());
        if (fileName != nullptr && strcmp(fileName, "dummy.txt") == 0)
            StripFullName(out, endedWithSlash);
    }
}

bool ZvFileUtil::SetWritableDir(const char* dir) {
    ZvAString absolute;
    RelativeToAbsolutePath(dir, absolute, true);
    if (absolute.empty())
        return false;
    if (absolute.back() != '/')
        absolute += '/';
    g_writableDir = absolute;
    return true;
}

bool ZvFileUtil::GetTempDir(ZvAString& out) {
    if (g_writableDir.empty())
        SetWritableDir(".");
    out = g_writableDir;
    return true;
}

namespace {

// mkstemps on a writable copy of `pattern` whose last `suffixLength` bytes follow "XXXXXX".
int MakeTempFile(ZvAString& pattern, size_t suffixLength) {
    int fd = mkstemps(&pattern[0], static_cast<int>(suffixLength));
    if (fd < 0)
        pattern.clear();
    return fd;
}

} // namespace

int ZvFileUtil::GetTempFileOs(const char* prefix, ZvAString& out) {
    out.clear();
    ZvAString pattern;
    if (prefix == nullptr || !GetTempDir(pattern) || pattern.empty())
        return -1;
    pattern += prefix;
    pattern += "XXXXXX";
    int fd = MakeTempFile(pattern, 0);
    out = pattern;
    return fd;
}

bool ZvFileUtil::GetTempFileName(const char* prefix, ZvAString& out) {
    int fd = GetTempFileOs(prefix, out);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

bool ZvFileUtil::GetTempFileName(const char* dir, const char* prefix, const char* ext,
                                 ZvAString& out) {
    out.clear();
    if (dir == nullptr || prefix == nullptr || ext == nullptr)
        return false;
    ZvAString pattern(dir);
    if (pattern.empty() || pattern.back() != '/')
        pattern += '/';
    pattern += prefix;
    pattern += "XXXXXX";
    pattern += ext;
    int fd = MakeTempFile(pattern, strlen(ext));
    if (fd < 0)
        return false;
    close(fd);
    out = pattern;
    return true;
}

bool ZvFileUtil::MakePath(const char* path, bool isFile) {
    if (path == nullptr)
        return false;
    ZvAString text(path);
    text.Trim();
    text.Replace("\\", "/");
    ZvAStringList parts;
    parts.SetDelimited(text.c_str(), '/');
    unsigned count = parts.Count();
    if (isFile && count > 0)
        --count;

    ZvAString built(!text.empty() && text[0] == '/' ? "/" : "");
    for (unsigned i = 0; i < count; ++i) {
        if (parts[i].empty())
            continue;
        AppendToPath(built, parts[i].c_str());
        if (!DirExists(built.c_str()) && !MakeDir(built.c_str()))
            return false;
    }
    return true;
}

namespace {

// The entry's kind, asking the file system when the directory listing did not say.
int EntryType(const ZvAString& dir, const ZvFindFileData& entry) {
    if (entry.type != ZvFindFileData::TypeUnknown)
        return entry.type;
    ZvAString full(dir);
    ZvFileUtil::AppendToPath(full, entry.name.c_str());
    struct stat info;
    if (lstat(full.c_str(), &info) != 0)
        return ZvFindFileData::TypeUnknown;
    if (S_ISDIR(info.st_mode))
        return ZvFindFileData::TypeDirectory;
    if (S_ISREG(info.st_mode) || S_ISLNK(info.st_mode))
        return ZvFindFileData::TypeFile;
    return ZvFindFileData::TypeOther;
}

bool IsDotEntry(const ZvAString& name) {
    return name == "." || name == "..";
}

} // namespace

bool ZvFileUtil::DeleteDir(const char* path, bool recursive) {
    if (path == nullptr || *path == 0)
        return false;
    const ZvAString dir(path);
    bool ok = true;
    if (recursive) {
        ZvFileFind find;
        ZvFindFileData entry;
        for (bool more = find.FindFirst(path, "*", entry); more; more = find.FindNext(entry)) {
            if (IsDotEntry(entry.name))
                continue;
            ZvAString full(dir);
            AppendToPath(full, entry.name.c_str());
            if (EntryType(dir, entry) == ZvFindFileData::TypeDirectory)
                ok = DeleteDir(full.c_str(), true) && ok;
            else
                ok = unlink(full.c_str()) == 0 && ok;
        }
    }
    return rmdir(path) == 0 && ok;
}

bool ZvFileUtil::GetDirFiles(const char* dir, ZvAStringList& list, const char* pattern,
                             bool recursive) {
    if (dir == nullptr || !IsDir(dir))
        return false;
    ZvAString base(dir);
    if (base.empty() || base.back() != '/')
        base += '/';

    ZvFileFind find;
    ZvFindFileData entry;
    for (bool more = find.FindFirst(base.c_str(), pattern, entry); more;
         more = find.FindNext(entry))
        if (EntryType(base, entry) == ZvFindFileData::TypeFile)
            list.Add(base + entry.name);

    if (recursive) {
        for (bool more = find.FindFirst(base.c_str(), "*", entry); more;
             more = find.FindNext(entry))
            if (!IsDotEntry(entry.name) && EntryType(base, entry) == ZvFindFileData::TypeDirectory)
                GetDirFiles((base + entry.name).c_str(), list, pattern, true);
    }
    return true;
}
