// The daemon's journal "daemon.log": time-stamped lines, each written whole in one write or not
// at all, so that a full disk never tears a line; the lines lost are counted and reported once
// there is room again. A fault line is synced at once, so that it survives a power cut. It is
// bounded for runs of weeks: at 1 MiB it becomes "daemon.log.1" (replacing the one before) and
// starts anew.
#pragma once

#include <cstdarg>
#include <mutex>

#include "zv-log.h"
#include "zv-string-ascii.h"

class ZlZomJournal {
public:
    ZlZomJournal() = default;
    ZlZomJournal(const ZlZomJournal&) = delete;
    ZlZomJournal& operator=(const ZlZomJournal&) = delete;

    // Starts the journal afresh at `path`; without it, lines go nowhere.
    void Open(const ZvAString& path);
    // Syncs and closes it.
    void Close();

    void Text(const char* format, ...) ZV_PRINTF(2, 3);
    void Fault(const char* format, ...) ZV_PRINTF(2, 3);
    void Line(bool sync, const char* format, va_list args);

    // The journal's size at which it is rotated.
    static constexpr long long kRotateBytes = 1024 * 1024;

private:
    void RotateIfFull(size_t nextLine);
    void Write(const ZvAString& message, bool sync);
    bool WriteRaw(const ZvAString& line);

    std::mutex m_lock;
    ZvAString m_path;
    int m_fd = -1;
    // The journal's length: a line that fits only in part is cut off again.
    long long m_size = 0;
    unsigned m_linesLost = 0;
};
