#include "zv-file.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

FILE* ZvFile::Fopen(const char* path, const char* mode) {
    if (path == nullptr || mode == nullptr)
        return nullptr;
    return fopen(path, mode);
}

bool ZvFile::Open(const char* path, const char* mode) {
    Close();
    m_path = path;
    m_file = Fopen(path, mode);
    return m_file != nullptr;
}

void ZvFile::Close() {
    if (m_file != nullptr) {
        fclose(m_file);
        m_file = nullptr;
    }
    free(m_lineBuffer);
    m_lineBuffer = nullptr;
    m_path.clear();
}

size_t ZvFile::Read(void* buffer, size_t size) {
    if (m_file == nullptr || buffer == nullptr)
        return 0;
    return fread(buffer, 1, size, m_file);
}

size_t ZvFile::Write(const void* data, size_t size) {
    if (m_file == nullptr || data == nullptr)
        return 0;
    return fwrite(data, 1, size, m_file);
}

const char* ZvFile::ReadLine(ZvAString& line) {
    line.clear();
    if (m_file == nullptr)
        return nullptr;
    if (m_lineBuffer == nullptr) {
        m_lineBuffer = static_cast<char*>(malloc(kLineBufferSize));
        if (m_lineBuffer == nullptr)
            return nullptr;
    }
    // fgets stops after a line feed, so a chunk holding one ends the line.
    while (fgets(m_lineBuffer, static_cast<int>(kLineBufferSize), m_file) != nullptr) {
        line += m_lineBuffer;
        if (strchr(m_lineBuffer, '\n') != nullptr)
            break;
    }
    return line.empty() ? nullptr : line.c_str();
}

char* ZvFile::ReadLine() {
    ZvAString line;
    if (ReadLine(line) == nullptr)
        return nullptr;
    return strdup(line.c_str());
}

int ZvFile::Printf(const char* format, ...) {
    if (m_file == nullptr || format == nullptr)
        return -1;
    va_list args;
    va_start(args, format);
    int written = vfprintf(m_file, format, args);
    va_end(args);
    return written;
}

bool ZvFile::Flush() {
    return m_file != nullptr && fflush(m_file) == 0;
}

bool ZvFile::IsError() const {
    return m_file != nullptr && ferror(m_file) != 0;
}

bool ZvFile::IsEof() const {
    return m_file == nullptr || feof(m_file) != 0;
}

bool ZvFile::Fseek(long long offset, int whence) {
    return m_file != nullptr && fseeko(m_file, static_cast<off_t>(offset), whence) == 0;
}

long long ZvFile::Ftell() {
    if (m_file == nullptr)
        return 0;
    return static_cast<long long>(ftello(m_file));
}

bool ZvFile::GetSize(long long& size) {
    if (m_file == nullptr)
        return false;
    long long position = Ftell();
    if (position < 0 || !Fseek(0, SEEK_END))
        return false;
    size = Ftell();
    bool restored = Fseek(position, SEEK_SET);
    return size >= 0 && restored;
}

bool ZvFile::GetSize(const char* path, long long& size) {
    ZvFile file;
    return file.Open(path, "rb") && file.GetSize(size);
}

bool ZvFile::IsReadable(const char* path) {
    return path != nullptr && access(path, R_OK) == 0;
}

bool ZvFile::IsWriteable(const char* path) {
    return path != nullptr && access(path, W_OK) == 0;
}

bool ZvFile::Exists(const char* path) {
    return path != nullptr && *path != 0 && access(path, F_OK) == 0;
}

bool ZvFile::MakeWriteable(const char* path) {
    struct stat info;
    if (path == nullptr || stat(path, &info) != 0)
        return false;
    const mode_t wanted = S_IRUSR | S_IWUSR;
    if ((info.st_mode & wanted) == wanted)
        return true;
    return chmod(path, (info.st_mode & 07777) | wanted) == 0;
}

namespace {

// Copies everything readable from `in` to `out`; false on a short write.
bool CopyStream(FILE* in, FILE* out) {
    char block[4096];
    size_t got;
    while ((got = fread(block, 1, sizeof(block), in)) > 0)
        if (fwrite(block, 1, got, out) != got)
            return false;
    return ferror(in) == 0;
}

// Opens `src` for reading and `dst` with `mode`, then copies; both are closed again.
bool CopyFile(const char* src, const char* dst, const char* mode) {
    FILE* in = fopen(src, "rb");
    if (in == nullptr)
        return false;
    FILE* out = fopen(dst, mode);
    if (out == nullptr) {
        fclose(in);
        return false;
    }
    bool ok = CopyStream(in, out);
    fclose(in);
    // A failed close loses buffered bytes: count it as a short write.
    return fclose(out) == 0 && ok;
}

// True when both names lead to one existing file, e.g. "a" and "./a".
bool SameFile(const char* a, const char* b) {
    struct stat first, second;
    return stat(a, &first) == 0 && stat(b, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

} // namespace

bool ZvFile::Copy(const char* src, const char* dst, bool failIfExists) {
    if (src == nullptr || dst == nullptr)
        return false;
    // Copying a file onto itself would truncate it before reading.
    if (strcmp(src, dst) == 0 || SameFile(src, dst))
        return true;
    if (failIfExists && Exists(dst))
        return false;
    return CopyFile(src, dst, "wb");
}

bool ZvFile::Rename(const char* oldPath, const char* newPath) {
    if (oldPath == nullptr || newPath == nullptr)
        return false;
    if (rename(oldPath, newPath) == 0)
        return true;
    if (errno != EXDEV)
        return false;
    return Copy(oldPath, newPath, false) && remove(oldPath) == 0;
}

bool ZvFile::Append(const char* dst, const char* src) {
    // Appending a file to itself would never reach its end.
    if (src == nullptr || dst == nullptr || strcmp(src, dst) == 0 || SameFile(src, dst))
        return false;
    return CopyFile(src, dst, "ab");
}

int ZvFile::OpenFd(const char* path, int flags, int mode) {
    if (path == nullptr)
        return -1;
    return open(path, flags, mode);
}

int ZvFile::OpenLockedForWriting(const char* path, int mode) {
    const int fd = OpenFd(path, O_WRONLY | O_CREAT | O_CLOEXEC, mode);
    if (fd < 0)
        return -1;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        close(fd);
        errno = EWOULDBLOCK;
        return -1;
    }
    return fd;
}

bool ZvFile::TruncateIfRegular(int fd) {
    struct stat info;
    if (fstat(fd, &info) != 0)
        return false;
    return !S_ISREG(info.st_mode) || ftruncate(fd, 0) == 0;
}

bool ZvFile::IsLockedByAnother(const char* path) {
    const int fd = OpenFd(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return false;
    const bool held = flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(fd);
    return held;
}

size_t ZvFile::WriteAll(int fd, const void* data, size_t size, int& error) {
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    size_t done = 0;
    error = 0;
    while (done < size) {
        ssize_t written = write(fd, bytes + done, size - done);
        if (written > 0) {
            done += static_cast<size_t>(written);
        } else if (written < 0 && errno == EINTR) {
            continue;
        } else {
            error = written < 0 ? errno : 0;
            break;
        }
    }
    return done;
}
