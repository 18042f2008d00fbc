// ZvFile: a buffered file handle with line reading and 64-bit sizes, plus static helpers for
// access checks, copying, renaming and appending whole files.
#pragma once

#include <cstddef>
#include <cstdio>

#include "zv-string-ascii.h"

class ZvFile {
public:
    ZvFile() = default;
    ~ZvFile() { Close(); }
    ZvFile(const ZvFile&) = delete;
    ZvFile& operator=(const ZvFile&) = delete;

    // Plain system-library open; the caller owns the stream.
    static FILE* Fopen(const char* path, const char* mode);

    // Closes any open stream, records the path and opens it; true on success.
    bool Open(const char* path, const char* mode);
    // Closes the stream, frees the line buffer and clears the path. Harmless when closed.
    void Close();
    bool IsOpen() const { return m_file != nullptr; }
    FILE* GetHandle() const { return m_file; }
    const ZvAString& GetPath() const { return m_path; }

    // One block read or write; the byte count (0 when closed).
    size_t Read(void* buffer, size_t size);
    size_t Write(const void* data, size_t size);

    // Reads one line, the line feed (and a carriage return before it) included. Returns the text
    // in `line`, or null at the end of the file.
    const char* ReadLine(ZvAString& line);
    // As above, as a copy allocated with malloc that the caller frees; null at the end.
    char* ReadLine();

    // Formatted write; the character count, or -1 when closed or on error.
    int Printf(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // True when open and the flush succeeds.
    bool Flush();

    // The stream's flags. A closed file reports no error and end of file.
    bool IsError() const;
    bool IsEof() const;

    // 64-bit seek: true on success, false on failure or when closed (unlike fseek, whose zero
    // means success). Ftell gives 0 when closed, -1 on error.
    bool Fseek(long long offset, int whence);
    long long Ftell();

    // Size of the open file; the position is kept. False when closed or a seek fails.
    bool GetSize(long long& size);
    // Size of the file at `path` (opened for binary reading).
    static bool GetSize(const char* path, long long& size);

    static bool IsReadable(const char* path);
    static bool IsWriteable(const char* path);
    // False for a null or empty path.
    static bool Exists(const char* path);
    // Adds owner read and write permission to an existing file that lacks either.
    static bool MakeWriteable(const char* path);

    // Copies `src` to `dst` in 4096-byte blocks. The same file for both (the same name, or one
    // file under two names) is success with nothing done; with `failIfExists` an existing `dst`
    // is a failure.
    static bool Copy(const char* src, const char* dst, bool failIfExists);
    // Renames; across file systems falls back to copy and remove.
    static bool Rename(const char* oldPath, const char* newPath);
    // Appends the whole of `src` to `dst`. The same file for both is a failure.
    static bool Append(const char* dst, const char* src);

    // Plain system open; the descriptor or -1.
    static int OpenFd(const char* path, int flags, int mode = 0644);
    // Opens `path` for writing, created when missing but not truncated, and takes an exclusive
    // lock on it at once, without waiting. The descriptor, or -1 with errno set: EWOULDBLOCK when
    // another process holds the lock. A file system without locks does not stop the open. Only
    // once this succeeded may the caller truncate the file (TruncateIfRegular): a file that
    // another run is writing is never cut short.
    static int OpenLockedForWriting(const char* path, int mode = 0666);
    // Empties the file behind `fd` when it is a regular file (a tty or a pipe is left alone);
    // false when that fails.
    static bool TruncateIfRegular(int fd);
    // True when another process holds a lock on the existing file `path`.
    static bool IsLockedByAnother(const char* path);
    // Writes the whole buffer to a descriptor unless the system refuses (interrupted writes are
    // resumed); returns the bytes written, with the refusal's errno in `error` (0 when none).
    static size_t WriteAll(int fd, const void* data, size_t size, int& error);

private:
    static constexpr size_t kLineBufferSize = 300;

    FILE* m_file = nullptr;
    ZvAString m_path;
    char* m_lineBuffer = nullptr;
};
