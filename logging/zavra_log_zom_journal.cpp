#include "zavra_log_zom_journal.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "zv-file.h"
#include "zv-time.h"

void ZlZomJournal::Open(const ZvAString& path) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_path = path;
    m_fd = ZvFile::OpenFd(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    m_size = 0;
    m_linesLost = 0;
}

void ZlZomJournal::Close() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_fd >= 0) {
        fdatasync(m_fd);
        close(m_fd);
        m_fd = -1;
    }
}

void ZlZomJournal::Text(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Line(false, format, args);
    va_end(args);
}

void ZlZomJournal::Fault(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Line(true, format, args);
    va_end(args);
}

void ZlZomJournal::Line(bool sync, const char* format, va_list args) {
    ZvAString message;
    message.Vprintf(format, args);
    Write(message, sync);
}

void ZlZomJournal::Write(const ZvAString& message, bool sync) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_fd < 0)
        return;
    const ZvAString stamp = ZvTime::GetReverseTimeStringText();
    ZvAString line = stamp;
    line += ": ";
    line += message;
    line += "\n";
    ZvAString note;
    if (m_linesLost != 0)
        note.Printf("%s: Journal: %u lines could not be written.\n", stamp.c_str(), m_linesLost);
    // The note and its line are counted together, so that neither takes the file past its bound.
    RotateIfFull(note.size() + line.size());
    if (m_fd < 0)
        return;
    if (!note.empty()) {
        if (!WriteRaw(note)) {
            ++m_linesLost;
            return;
        }
        m_linesLost = 0;
        sync = true;
    }
    if (!WriteRaw(line)) {
        ++m_linesLost;
        return;
    }
    if (sync)
        fdatasync(m_fd);
}

void ZlZomJournal::RotateIfFull(size_t nextLine) {
    if (m_size + static_cast<long long>(nextLine) <= kRotateBytes)
        return;
    fdatasync(m_fd);
    close(m_fd);
    const ZvAString old = m_path + ".1";
    // Should the rename fail, the journal starts anew in place: bounded beats complete.
    rename(m_path.c_str(), old.c_str());
    m_fd = ZvFile::OpenFd(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    m_size = 0;
    if (m_fd >= 0) {
        ZvAString note;
        note.Printf("%s: Journal: continued from '%s'.\n", ZvTime::GetReverseTimeStringText(),
                    old.c_str());
        WriteRaw(note);
    }
}

bool ZlZomJournal::WriteRaw(const ZvAString& line) {
    // One write per line: the line reaches the file at once. Should only part of it fit (a full
    // disk), the part is cut off again, so that the journal never holds a torn line.
    int error;
    const size_t written = ZvFile::WriteAll(m_fd, line.data(), line.size(), error);
    if (written == line.size()) {
        m_size += static_cast<long long>(written);
        return true;
    }
    if (written != 0) {
        if (ftruncate(m_fd, m_size) != 0) {
            // The part stays; end it so that the next line starts on its own.
            m_size += static_cast<long long>(written);
            return false;
        }
        lseek(m_fd, m_size, SEEK_SET);
    }
    return false;
}
